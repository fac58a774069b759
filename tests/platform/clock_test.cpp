#include "platform/clock.h"

#include "platform/date_text.h"
#include "tests/support/environment_variable.h"

#include <gtest/gtest.h>
#include <time.h>

#include <string>

namespace quenmark::platform {
namespace {

// The zones are POSIX rules, so that no zone files are needed. Of those with daylight time one has it today and one
// has it not, whatever day it is; the last two count the winter as the exception.
TEST(SystemClock, DescribesZones) {
  const time_t now = time(nullptr);
  tm utc{};
  gmtime_r(&now, &utc);
  const std::string from = "," + std::to_string((utc.tm_yday + 365 - 60) % 365);
  const std::string to = "," + std::to_string((utc.tm_yday + 60) % 365);
  const struct {
    std::string zone;
    bool daylight;
    int bias, daylightBias;
  } rows[] = {{"UTC0", false, 0, 0},
              {"IST-5:30", false, -330, 0},
              {"NST3:30", false, 210, 0},
              {"EST5EDT" + from + to, true, 300, -60},
              {"EST5EDT" + to + from, false, 300, -60},
              {"IST-1GMT0" + from + to, false, 0, -60},
              {"IST-1GMT0" + to + from, true, 0, -60}};
  const SystemClock clock;
  for (const auto& row : rows) {
    const test::EnvironmentVariable set("TZ", row.zone);
    const ZoneInformation zone = clock.Zone();
    EXPECT_EQ(zone.daylight, row.daylight) << row.zone;
    EXPECT_EQ(zone.bias, row.bias) << row.zone;
    EXPECT_EQ(zone.standardBias, 0) << row.zone;
    EXPECT_EQ(zone.daylightBias, row.daylightBias) << row.zone;
    const std::int64_t utcNow = ToSeconds(clock.LocalNow()) + 60 * (row.bias + (row.daylight ? row.daylightBias : 0));
    EXPECT_TRUE(utcNow >= now && utcNow <= time(nullptr)) << row.zone;
  }
}

}  // namespace
}  // namespace quenmark::platform
