#include "providers/quote_scan.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace quenmark::test {
namespace {

constexpr const char* kFull =
    R"({"Symbol":"spy","Open":"1.5","PreviousClose":"1.4","Last":"1.6","Ask":"1.7","AskSize":"40","Bid":"1.5",)"
    R"("BidSize":"80","Restrictions":[],"TradeTime":"2026-05-10T18:00:23Z","MarketFlags":{"IsDelayed":false,)"
    R"("IsHalted":false},"LastSize":"125","LastVenue":"ARCX"})";
constexpr const char* kFullQuote = "SPY|1.6|2026-05-10t18:00:23z|1.5|80|1.7|40;";
constexpr const char* kUpdate = R"({"Symbol":"SPY","Last":"1.65","TradeTime":"2026-05-10T18:00:24Z"})";
constexpr const char* kUpdateQuote = "SPY|1.65|2026-05-10t18:00:24z;";

// The quotes found in a text that arrives in pieces.
std::string Scanned(const std::vector<std::string_view>& pieces) {
  std::string found;
  providers::QuoteScan scan([&found](const providers::StreamQuote& quote) {
    found += fmt::format("{}|{}|{}", quote.symbol, quote.last, quote.tradeTime);
    if (quote.hasBook) found += fmt::format("|{}|{}|{}|{}", quote.bid, quote.bidSize, quote.ask, quote.askSize);
    found += ';';
  });
  for (const std::string_view piece : pieces) scan.Feed(piece);
  return found;
}

TEST(QuoteScan, SameQuotesHoweverTheTextIsCut) {
  const std::string update = kUpdate;
  using Row = std::pair<std::string, std::string>;
  for (const auto& [whole, quotes] :
       {Row{kFull, kFullQuote}, Row{kUpdate, kUpdateQuote},
        Row{std::string(kFull) + "\r\n{\"Heartbeat\":1,\"Timestamp\":\"2026-05-10T18:00:23Z\"}\r\n" + kUpdate +
                "{\"StreamStatus\":\"GoAway\"}{\"Symbol\":\"AAPL\",\"Error\":\"DualLogon\"}" + kFull,
            std::string(kFullQuote) + kUpdateQuote + kFullQuote},
        Row{R"("Last":"1","TradeTime":"x"})" + update, kUpdateQuote},               // a fragment at the start
        Row{update + R"({"Symbol":"A","Last":"1","TradeTime":"20)", kUpdateQuote},  // an open object at the end
        Row{R"({"Symbol":"A","Last":"1"})" + update, kUpdateQuote},                 // no time
        Row{R"({"X":"}{\"","Symbol":"A","Last":"1","TradeTime":"T"})", "A|1|t;"},   // braces and quotes in a text
        Row{"{\"Symbol\":\"A\n" + update, kUpdateQuote}}) {                         // a line break in a text
    SCOPED_TRACE(whole);
    const std::string_view text = whole;
    EXPECT_EQ(Scanned({text}), quotes);
    std::vector<std::string_view> bytes;
    for (std::size_t i = 0; i < text.size(); ++i) bytes.push_back(text.substr(i, 1));
    EXPECT_EQ(Scanned(bytes), quotes);
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
      ASSERT_EQ(Scanned({text.substr(0, cut), text.substr(cut)}), quotes) << cut;
    }
  }
}

TEST(QuoteScan, DropsAnObjectAboveTheLimitAndGoesOn) {
  const std::string huge = "{\"Symbol\":\"" + std::string(providers::QuoteScan::kLargestObject, 'A');
  EXPECT_EQ(Scanned({huge, "\"}\n", kUpdate}), kUpdateQuote);
  const std::string braces(providers::QuoteScan::kLargestObject + 1, '{');
  EXPECT_EQ(Scanned({braces, kUpdate}), kUpdateQuote);
}

}  // namespace
}  // namespace quenmark::test
