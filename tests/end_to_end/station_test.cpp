#include "feeder/quote_record.h"
#include "tests/end_to_end/feeder_home.h"

#include <string>

namespace quenmark::test {
namespace {

constexpr const char* kStationApp = "Quenmark_TradeStation_1_-SandBox";

TEST(EndToEnd, TradeStationStreamsUntilItIsRefused) {
  Market market({"--provider", "tradestation", "--rate", "200"});
  FeederHome home(market);
  home.Configure("name", "TradeStation");
  home.Configure("EP", market.Simulator().SecureBase() + "/v3/");
  const auto openChart = [&](const std::string& symbol) {
    home.Set(kStationApp, "GrafAbertPapel", "chart-" + symbol, symbol);
  };
  const auto field = [&](const std::string& symbol, feeder::QuoteField which) {
    const std::string record = home.Get(kStationApp, "Feeder", symbol);
    return std::string(feeder::SplitQuoteRecord(record)[which]);
  };
  openChart("AAPL");
  openChart("MSFT");
  const auto host = StartStandIn();
  const auto feeder = home.Start();

  // The stream has begun when last prices come as whole hundredths.
  for (const char* symbol : {"AAPL", "MSFT"}) {
    EXPECT_TRUE(Eventually([&] {
      const std::string last = field(symbol, feeder::kLast);
      return !last.empty() && last.find('.') == std::string::npos;
    })) << symbol;
  }
  EXPECT_NE(home.Get("Dovecrest", "Feeder", "AAPL"), "");

  // Another chart ends the running read early: its symbol is asked for within the 5 s that a read may take.
  const std::size_t before = market.Count("/stream/quotes/");
  ASSERT_TRUE(market.Asked("/stream/quotes/", 1));
  openChart("SPY");
  EXPECT_TRUE(Eventually([&] { return !field("SPY", feeder::kLast).empty(); }));
  EXPECT_GT(market.Count("/stream/quotes/"), before);
  EXPECT_TRUE(Eventually([&] { return market.Count("/stream/quotes/AAPL,MSFT,SPY") > 0; }));

  market.Fault("status401@stream");
  ExpectEnd(*feeder, "the quote stream was refused");
  EXPECT_EQ(home.Get("Quenmark", "API", "SID"), "ask_new_session");
  ExpectDiscreet(*feeder);
}

}  // namespace
}  // namespace quenmark::test
