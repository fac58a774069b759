#include "feeder/records.h"

#include "tests/support/feeder_fixture.h"

namespace quenmark::test {
namespace {

using feeder::QuoteOrder;
using Records = FeederFixture;

TEST_F(Records, StampsAreComparedAndANewMinuteDropsTheBarCache) {
  const struct {
    const char *stored, *stamp;
    QuoteOrder answer;
    bool dropsBars;
  } rows[] = {{"", "20240102093000", QuoteOrder::kOk, false},
              {"no dash", "20240102093000", QuoteOrder::kOk, false},
              {"X-1-20240102093059", "20240102093000", QuoteOrder::kNo, false},
              {"X-1-20240102093059", "20240102093059", QuoteOrder::kOk, false},
              {"X-1-20240102093059", "20240102093100", QuoteOrder::kOk, true},
              // The last digit of the minute alone is compared.
              {"X-1-20240102093059", "20240102094000", QuoteOrder::kOk, false},
              {"X-1-", "20240102093000", QuoteOrder::kOk, true}};
  for (const auto& row : rows) {
    SetFeeder("X", row.stored);
    store->SaveSetting(kApp, "TIntra", "Q-path", "bars");
    EXPECT_EQ(feeder::QAnt(context, "x", row.stamp), row.answer) << row.stored << ' ' << row.stamp;
    EXPECT_EQ(store->GetSetting(kApp, "TIntra", "Q-path").empty(), row.dropsBars) << row.stored << ' ' << row.stamp;
  }
}

TEST(QuoteRecord, SplitsIntoTenFieldsWhateverIsThere) {
  const auto fields = feeder::SplitQuoteRecord("A-1-m0.5-2-3-4-5-1-1-20240102093000-more");
  EXPECT_EQ(fields[feeder::kChange], "m0.5");
  EXPECT_EQ(fields[feeder::kStamp], "20240102093000");
  EXPECT_EQ(feeder::SplitQuoteRecord("A-1")[feeder::kStamp], "");
}

TEST(QuoteRecord, WhatWouldBreakTheFieldsIsNotFormatted) {
  const feeder::Quote good{"A", 1, -0.004, 1, 1, 1, "5", "20240102093000"};
  EXPECT_EQ(feeder::FormatQuoteRecord(good), "A-1-0.00-1-1-1-5-1-1-20240102093000");
  feeder::Quote bad[] = {good, good, good, good};
  bad[0].symbol = "A-B";
  bad[1].low = -0.01;
  bad[2].stamp = "2024010209300";
  bad[3].volume = "-5";
  for (const feeder::Quote& quote : bad) EXPECT_FALSE(feeder::FormatQuoteRecord(quote)) << &quote - bad;
}

}  // namespace
}  // namespace quenmark::test
