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
  for (const char* kind : {"status401", "status429", "status500", "cut", "html", "empty", "huge", "stall", "drip",
                           "end", "goaway", "tlsclose", "reset", "garbage", "halfframe", "http10", "chunked", "odd"}) {
    const std::optional<Fault> plain = ParseFault(kind);
    ASSERT_TRUE(plain) << kind;
    EXPECT_EQ(FaultName(plain->kind), kind);
    EXPECT_EQ(plain->delay.count(), 0) << kind;
  }
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

TEST(Faults, OfStreamsPassOtherRequests) {
  FaultList mixed;
  mixed.Add(*ParseFault("garbage"));
  mixed.Add(*ParseFault("goaway"));
  EXPECT_EQ(mixed.Take("/v3/marketdata/stream/quotes/A", FaultTarget::kQuoteStream)->kind, FaultKind::kGoAway);
  EXPECT_EQ(mixed.Take("/v1/markets/events", FaultTarget::kEventStream)->kind, FaultKind::kGarbage);
  FaultList ends;
  ends.Add(*ParseFault("cut@markets/events$"));
  EXPECT_FALSE(ends.Take("/v1/markets/events/session", FaultTarget::kAnswer));
  EXPECT_TRUE(ends.Take("/v1/markets/events", FaultTarget::kEventStream));
  EXPECT_FALSE(mixed.Take("/v1/markets/events/session", FaultTarget::kAnswer));
  FaultList faults;
  faults.Add(*ParseFault("stall*1"));
  EXPECT_FALSE(faults.Take("/v3/marketdata/quotes/A", FaultTarget::kAnswer));
  EXPECT_EQ(faults.Take("/v3/marketdata/stream/quotes/A", FaultTarget::kQuoteStream)->kind, FaultKind::kStall);
  EXPECT_FALSE(faults.Take("/v3/marketdata/stream/quotes/A", FaultTarget::kQuoteStream));
}

}  // namespace
}  // namespace quenmark::simulator
