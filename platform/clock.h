// The one seam through which the system asks for the time: wall clock, monotonic clock and the rules of the local zone.
#pragma once

#include <chrono>
#include <cstdint>

namespace quenmark::platform {

using WallTime = std::chrono::system_clock::time_point;
using MonotonicTime = std::chrono::steady_clock::time_point;

// The local zone as the desktop platform describes it: UTC = local time + bias, minutes, positive west of Greenwich.
struct ZoneInformation {
  bool daylight = false;  // daylight saving time is in force now (TIME_ZONE_ID_DAYLIGHT)
  int bias = 0;
  int standardBias = 0;
  int daylightBias = 0;
};

// A point of civil time without a zone.
struct CivilTime {
  int year = 1970;
  int month = 1;   // 1 to 12
  int day = 1;     // 1 to 31
  int hour = 0;    // 0 to 23
  int minute = 0;  // 0 to 59
  int second = 0;  // 0 to 59

  bool operator==(const CivilTime&) const = default;
};

class Clock {
 public:
  virtual ~Clock() = default;

  virtual WallTime Now() const = 0;
  virtual MonotonicTime Monotonic() const = 0;

  // The zone's rules at this moment.
  virtual ZoneInformation Zone() const = 0;
  // The wall clock in the local zone, fractions of a second cut off.
  virtual CivilTime LocalNow() const = 0;

  // Called by the message loop when it has nothing to do before `deadline`. A test clock jumps there and returns true;
  // the real clock returns false and the loop waits.
  virtual bool SkipTo(MonotonicTime deadline) {
    static_cast<void>(deadline);
    return false;
  }
};

// The machine's clocks. The zone is that of TZ or /etc/localtime.
class SystemClock final : public Clock {
 public:
  WallTime Now() const override;
  MonotonicTime Monotonic() const override;
  ZoneInformation Zone() const override;
  CivilTime LocalNow() const override;
};

// Seconds since local midnight, fractions cut off.
inline std::int64_t SecondsSinceMidnight(const CivilTime& time) {
  return (time.hour * 60 + time.minute) * 60 + time.second;
}

}  // namespace quenmark::platform
