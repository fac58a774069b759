#include "feeder/records.h"

#include "tests/support/feeder_fixture.h"

namespace quenmark::test {
namespace {

using feeder::QAnt;
using feeder::QuoteOrder;

struct OrderCase {
  const char* stored;
  const char* stamp;
  QuoteOrder answer;
  bool dropsBars;
};

class QuoteOrderCheck : public FeederFixture, public ::testing::WithParamInterface<OrderCase> {};

TEST_P(QuoteOrderCheck, ComparesStampsAndDropsTheBarCache) {
  const OrderCase& row = GetParam();
  SetFeeder("X", row.stored);
  store->SaveSetting(kApp, "TIntra", "Q-path", "bars");
  EXPECT_EQ(QAnt(context, "x", row.stamp), row.answer);
  EXPECT_EQ(store->GetSetting(kApp, "TIntra", "Q-path").empty(), row.dropsBars);
}

INSTANTIATE_TEST_SUITE_P(Rows, QuoteOrderCheck,
                         ::testing::Values(OrderCase{"", "20240102093000", QuoteOrder::kOk, false},
                                           OrderCase{"no dash", "20240102093000", QuoteOrder::kOk, false},
                                           OrderCase{"X-1-20240102093059", "20240102093000", QuoteOrder::kNo, false},
                                           OrderCase{"X-1-20240102093059", "20240102093059", QuoteOrder::kOk, false},
                                           OrderCase{"X-1-20240102093059", "20240102093100", QuoteOrder::kOk, true},
                                           // The last digit of the minute alone is compared.
                                           OrderCase{"X-1-20240102093059", "20240102094000", QuoteOrder::kOk, false},
                                           OrderCase{"X-1-", "20240102093000", QuoteOrder::kOk, true}));

TEST(QuoteRecord, SplitsIntoTenFieldsWhateverIsThere) {
  const auto fields = feeder::SplitQuoteRecord("A-1-m0.5-2-3-4-5-1-1-20240102093000-more");
  EXPECT_EQ(fields[feeder::kChange], "m0.5");
  EXPECT_EQ(fields[feeder::kStamp], "20240102093000");
  EXPECT_EQ(feeder::SplitQuoteRecord("A-1")[feeder::kStamp], "");
}

TEST(QuoteRecord, ChangeHasTwoDecimalsAndMForItsSign) {
  EXPECT_EQ(feeder::FormatChange(-1.234), "m1.23");
  EXPECT_EQ(feeder::FormatChange(2.5), "2.50");
  EXPECT_EQ(feeder::FormatChange(-0.004), "0.00");
}

TEST(QuoteRecord, WhatWouldBreakTheFieldsIsNotFormatted) {
  const feeder::Quote good{"A", 1, 0, 1, 1, 1, "5", "20240102093000"};
  ASSERT_TRUE(feeder::FormatQuoteRecord(good));
  feeder::Quote bad = good;
  bad.symbol = "A-B";
  EXPECT_FALSE(feeder::FormatQuoteRecord(bad));
  bad = good;
  bad.low = -0.01;
  EXPECT_FALSE(feeder::FormatQuoteRecord(bad));
  bad = good;
  bad.stamp = "2024010209300";
  EXPECT_FALSE(feeder::FormatQuoteRecord(bad));
}

}  // namespace
}  // namespace quenmark::test
