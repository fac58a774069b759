#include "simulator/faults.h"

#include <gtest/gtest.h>

namespace quenmark::simulator {
namespace {

TEST(Faults, ReadsTheirText) {
  const std::optional<Fault> fault = ParseFault("slow250@markets/quotes?x=1*3");
  ASSERT_TRUE(fault);
  EXPECT_EQ(fault->kind, FaultKind::kSlow);
  EXPECT_EQ(fault->delay, std::chrono::milliseconds{250});
  EXPECT_EQ(fault->path, "markets/quotes?x=1");
  EXPECT_EQ(fault->count, 3U);
  EXPECT_EQ(ParseFault("close")->closeCode, 1001);
  EXPECT_EQ(ParseFault("close1011*2")->closeCode, 1011);
  for (const char* bad :
       {"", "close5000", "none", "slowly", "slow-1", "cut*", "cut*0", "cut*x", "cut5", "@path", "status404"}) {
    EXPECT_FALSE(ParseFault(bad)) << bad;
  }
}

TEST(Faults, EndAfterTheirCount) {
  FaultList faults;
  faults.Add(*ParseFault("cut@/quotes*2"));
  faults.Add(*ParseFault("html"));
  EXPECT_EQ(faults.Take("/v1/markets/clock", FaultTarget::kAnswer)->kind, FaultKind::kHtml);
  EXPECT_EQ(faults.Take("/v1/markets/quotes", FaultTarget::kAnswer)->kind, FaultKind::kCut);
  EXPECT_EQ(faults.Take("/v1/markets/quotes", FaultTarget::kAnswer)->kind, FaultKind::kCut);
  EXPECT_EQ(faults.Take("/v1/markets/quotes", FaultTarget::kAnswer)->kind, FaultKind::kHtml);
  faults.Clear();
  EXPECT_FALSE(faults.Take("/v1/markets/quotes", FaultTarget::kAnswer));
}

TEST(Faults, HitWhatTheyAreFor) {
  const struct {
    const char *fault, *target;
    FaultTarget what;
    bool hits;
  } rows[] = {{"goaway", "/v3/marketdata/stream/quotes/A", FaultTarget::kQuoteStream, true},
              {"garbage", "/v3/marketdata/stream/quotes/A", FaultTarget::kQuoteStream, false},
              {"garbage", "/v1/markets/events", FaultTarget::kEventStream, true},
              {"garbage", "/v1/markets/events/session", FaultTarget::kAnswer, false},
              {"stall", "/v3/marketdata/quotes/A", FaultTarget::kAnswer, false},
              {"cut@markets/events$", "/v1/markets/events", FaultTarget::kEventStream, true},
              {"cut@markets/events$", "/v1/markets/events/session", FaultTarget::kAnswer, false}};
  for (const auto& row : rows) {
    FaultList faults;
    faults.Add(*ParseFault(row.fault));
    EXPECT_EQ(faults.Take(row.target, row.what).has_value(), row.hits) << row.fault << ' ' << row.target;
  }
}

}  // namespace
}  // namespace quenmark::simulator
