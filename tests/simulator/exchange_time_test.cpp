#include "simulator/exchange_time.h"

#include <gtest/gtest.h>

namespace quenmark::simulator {
namespace {

TEST(ExchangeTime, FollowsDaylightSaving) {
  struct Row {
    std::int64_t instant;
    const char* wall;
  };
  for (const Row& row : {Row{1751376600, "2025-07-01T09:30:00"}, Row{1741503599, "2025-03-09T01:59:59"},
                         Row{1741503600, "2025-03-09T03:00:00"}, Row{1762063199, "2025-11-02T01:59:59"},
                         Row{1762063200, "2025-11-02T01:00:00"}, Row{1735707600, "2025-01-01T00:00:00"}}) {
    EXPECT_EQ(ExchangeTimeText(row.instant), row.wall);
  }
  EXPECT_EQ(UtcTimeText(1751376600), "2025-07-01T13:30:00Z");
}

TEST(ExchangeTime, ReadsWallClockTexts) {
  EXPECT_EQ(ParseExchangeTime("2025-07-01 09:30"), 1751376600);
  EXPECT_EQ(ParseExchangeTime("2025-01-01"), 1735707600);
  EXPECT_EQ(ParseExchangeTime("2025-11-02 01:30"), 1762061400) << "the first of two";
  for (const char* bad : {"", "2025-07-01T09:30", "2025-02-30", "2025-07-01 24:00", "2025-07-01 09:60", "2025-7-1",
                          "2025-07-01 09:3x", "20250701 09:30"}) {
    EXPECT_FALSE(ParseExchangeTime(bad)) << bad;
  }
}

TEST(ExchangeTime, LastCloseSkipsWeekends) {
  const std::int64_t friday = *ParseExchangeTime("2025-06-27 16:00");
  for (const char* later : {"2025-06-27 16:01", "2025-06-28 12:00", "2025-06-30 15:59", "2025-06-30 16:00"}) {
    EXPECT_EQ(LastClose(*ParseExchangeTime(later)), friday) << later;
  }
  EXPECT_EQ(LastClose(friday), friday - 24 * 3600);
}

}  // namespace
}  // namespace quenmark::simulator
