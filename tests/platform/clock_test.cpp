#include "platform/clock.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <string>

namespace quenmark::platform {
namespace {

class ZoneOf {
 public:
  explicit ZoneOf(const char* zone) {
    if (const char* old = getenv("TZ")) m_old = old;
    setenv("TZ", zone, 1);
  }
  ~ZoneOf() {
    m_old.empty() ? unsetenv("TZ") : setenv("TZ", m_old.c_str(), 1);
    tzset();
  }
  ZoneOf(const ZoneOf&) = delete;
  ZoneOf& operator=(const ZoneOf&) = delete;

 private:
  std::string m_old;
};

// The zones are POSIX rules, so that no zone files are needed.
TEST(SystemClock, DescribesAZoneWithoutDaylightTime) {
  const struct {
    const char* zone;
    int bias;
  } rows[] = {{"UTC0", 0}, {"IST-5:30", -330}, {"XST5", 300}, {"NST3:30", 210}};
  const SystemClock clock;
  for (const auto& row : rows) {
    const ZoneOf set(row.zone);
    const ZoneInformation zone = clock.Zone();
    EXPECT_FALSE(zone.daylight) << row.zone;
    EXPECT_EQ(zone.bias, row.bias) << row.zone;
    EXPECT_EQ(zone.standardBias, 0) << row.zone;
    EXPECT_EQ(zone.daylightBias, 0) << row.zone;
  }
}

// A rule that has daylight time today, one that has standard time today, whatever day it is, and the two written the
// other way round, as zones whose winter is the exception are.
TEST(SystemClock, TellsWhetherDaylightTimeIsInForce) {
  const SystemClock clock;
  time_t now = time(nullptr);
  tm utc{};
  gmtime_r(&now, &utc);
  const int from = (utc.tm_yday + 365 - 60) % 365;
  const int to = (utc.tm_yday + 60) % 365;
  const auto rule = [](const char* names, int begin, int end) {
    return names + std::string(",") + std::to_string(begin) + "," + std::to_string(end);
  };
  const std::string in = rule("EST5EDT", from, to);
  const std::string out = rule("EST5EDT", to, from);
  const std::string winterIn = rule("IST-1GMT0", from, to);
  const std::string winterOut = rule("IST-1GMT0", to, from);
  const struct {
    const std::string& zone;
    bool daylight;
    int bias;
  } rows[] = {{in, true, 300}, {out, false, 300}, {winterIn, false, 0}, {winterOut, true, 0}};
  for (const auto& row : rows) {
    const ZoneOf set(row.zone.c_str());
    const ZoneInformation zone = clock.Zone();
    EXPECT_EQ(zone.daylight, row.daylight) << row.zone;
    EXPECT_EQ(zone.bias, row.bias) << row.zone;
    EXPECT_EQ(zone.daylightBias, -60) << row.zone;
  }
}

TEST(SystemClock, LocalTimeIsUtcMinusTheBias) {
  const ZoneOf set("IST-5:30");
  const SystemClock clock;
  const time_t before = time(nullptr) + 330 * 60;
  const CivilTime local = clock.LocalNow();
  const time_t after = time(nullptr) + 330 * 60;
  tm parts{};
  parts.tm_year = local.year - 1900;
  parts.tm_mon = local.month - 1;
  parts.tm_mday = local.day;
  parts.tm_hour = local.hour;
  parts.tm_min = local.minute;
  parts.tm_sec = local.second;
  const time_t seconds = timegm(&parts);
  EXPECT_GE(seconds, before);
  EXPECT_LE(seconds, after);
}

}  // namespace
}  // namespace quenmark::platform
