#include "platform/clock.h"

#include <time.h>

#include <algorithm>
#include <optional>

namespace quenmark::platform {
namespace {

constexpr time_t kWeek = time_t{7} * 24 * 3600;
constexpr int kWeeksPerYear = 52;

tm Local(time_t when) {
  tm local{};
  localtime_r(&when, &local);
  return local;
}

}  // namespace

WallTime SystemClock::Now() const {
  return std::chrono::system_clock::now();
}

MonotonicTime SystemClock::Monotonic() const {
  return std::chrono::steady_clock::now();
}

// The C library only tells the offset of one moment. Whether the zone has a daylight rule at all, and which of its two
// offsets is the daylight one, is read off the year around now; the larger offset is daylight, also for zones whose
// rules count the winter as the exception.
ZoneInformation SystemClock::Zone() const {
  tzset();
  const time_t now = std::chrono::system_clock::to_time_t(Now());
  const tm current = Local(now);
  std::optional<long> other;  // the offset on the other side of the daylight rule
  for (int week = -kWeeksPerYear / 2; week <= kWeeksPerYear / 2; ++week) {
    const tm local = Local(now + week * kWeek);
    if ((local.tm_isdst > 0) != (current.tm_isdst > 0) && local.tm_gmtoff != current.tm_gmtoff) other = local.tm_gmtoff;
  }
  const long standard = std::min(current.tm_gmtoff, other.value_or(current.tm_gmtoff));
  const long daylight = std::max(current.tm_gmtoff, other.value_or(current.tm_gmtoff));
  ZoneInformation zone;
  zone.daylight = other && current.tm_gmtoff == daylight;
  zone.bias = static_cast<int>(-standard / 60);
  zone.daylightBias = static_cast<int>((standard - daylight) / 60);
  return zone;
}

CivilTime SystemClock::LocalNow() const {
  tzset();
  const tm local = Local(std::chrono::system_clock::to_time_t(Now()));
  // A leap second reads as the last second of its minute.
  return {local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
          local.tm_hour,        local.tm_min,     std::min(local.tm_sec, 59)};
}

}  // namespace quenmark::platform
