#include "platform/number_text.h"
#include "tests/end_to_end/feeder_home.h"

#include <gmock/gmock.h>
#include <signal.h>

#include <string>

namespace quenmark::test {
namespace {

using ::testing::MatchesRegex;
using ::testing::StartsWith;

constexpr const char* kMorning = "1710513000";  // 15 March 2024, 10:30 in New York, 240 minutes west
constexpr int kNewYork = 240;

TEST(EndToEnd, RegularSessionFillsTheStore) {
  Market market({"--clock", kMorning, "--gzip"});
  FeederHome home(market);
  home.Surroundings().environment["TZ"] = "XYZ-9";  // the service's answer counts, not the machine's zone
  home.Settings({"set", "Quenmark", "API", "q", "-", "--base64"}, FeederHome::kToken);
  home.Settings({"set", "Quenmark", "API", "t", "-", "--base64"}, FeederHome::kCredential);
  home.Settings({"set", "Quenmark", "Hosts", "TimeZone", market.Simulator().SecureBase()});
  home.Settings({"set", "Quenmark", "QX", "QXPapeis", "MSFT-NOPE"});
  home.Settings({"set", "Quenmark", "QX", "HrLM", "2024-03-15 10:30:00"});
  const std::vector<std::string> symbols{"AAPL", "T", "BRK/B", "NVDA"};
  for (const std::string& symbol : symbols) home.OpenChart(symbol, false);
  home.Set(FeederHome::kApp, "GrafAbertPapel", "second window", "AAPL");
  home.Set(FeederHome::kApp, "GrafAbertPapel", "closing", "");

  ChildProcess watch(BIN_DIR "/feeder-settings", {"watch", FeederHome::kApp, "Feeder"}, home.Surroundings());
  const auto host = StartStandIn();
  const auto feeder = home.Start();
  const auto watched = [&](const std::string& key) {
    for (;;) {
      const auto line = watch.ReadLine();
      if (!line || line->starts_with(key + "\t")) return line.value_or("no such line");
    }
  };
  EXPECT_THAT(watched("AAPL"), MatchesRegex("AAPL\tAAPL(-m?[0-9.]+){6}-1-1-[0-9]{14}"));

  // Prices that stand still: what the store shows must be what was sent last.
  market.Hold(true);
  ASSERT_TRUE(market.Asked("markets/quotes", 2));
  for (const std::string& symbol : symbols) {
    EXPECT_TRUE(Eventually([&] { return home.Record(symbol) == market.SentRecord(symbol, kNewYork); }))
        << home.Record(symbol) << " stored, sent " << market.SentRecord(symbol, kNewYork);
    EXPECT_EQ(home.Record(symbol + "-bid@ask"), market.SentBook(symbol));
    EXPECT_EQ(home.Record(symbol + "-pc"), NumberOf(market.Sent(symbol, "quote", "prevclose")));
    EXPECT_THAT(home.Record(symbol + "-all"), MatchesRegex("[0-9]{1,5}"));
    EXPECT_LT(platform::ReadNumber(home.Record(symbol + "-all")), 86400);
  }
  EXPECT_EQ(home.Get(FeederHome::kApp, "Descs", "T"), "AT&&T Inc");
  EXPECT_EQ(home.Get(FeederHome::kApp, "Descs", "BRK/B"), market.Sent("BRK/B", "lookup", "description"));
  EXPECT_EQ(home.Get("Tradier", "Symbols", "T"),
            R"({"symbol":"T","description":"AT&T Inc","exch":"N","type":"stock"})");
  std::string bars = "@!@MSFT-1015";
  for (const char* field : {"open", "high", "low", "close", "volume"}) {
    bars += "-" + NumberOf(market.Sent("MSFT", "bar", field));
  }
  EXPECT_EQ(home.Settings({"get", "Quenmark", "QX", "QXPapResp"}), bars + "-1-1| 20240315101955\n");

  const nlohmann::json request = market.Requests("markets/quotes").back();
  EXPECT_THAT(request.at("path").get<std::string>(),
              StartsWith("/sandbox/v1/markets/quotes?symbols=AAPL,T,BRK/B,NVDA&greeks=false&randombit=0."));
  EXPECT_EQ(request.at("scheme"), "https");
  EXPECT_EQ(request.at("headers").at("Authorization"), std::string("Bearer ") + FeederHome::kToken);
  EXPECT_EQ(market.Requests("/gmt/").at(0).at("headers").at("Authorization"), "Basic @");
  EXPECT_EQ(market.Count("lookup?q=AAPL"), 1U) << "a description is asked once";

  ExpectDiscreet(*feeder);
  feeder->Signal(SIGTERM);
  ExpectEnd(*feeder, "stopped by a signal");
  EXPECT_EQ(home.Settings({"get", FeederHome::kApp, "Feeder", "AAPL"}), market.SentRecord("AAPL", kNewYork) + "\n");
}

TEST(EndToEnd, ExtendedHoursFollowTheBars) {
  Market market({"--clock", kMorning, "--session", "pre"});
  FeederHome home(market);
  home.Set("Quenmark", "Hosts", "TimeZone", market.Simulator().SecureBase());
  for (const char* symbol : {"AAPL", "NVDA", "PFE"}) home.OpenChart(symbol);
  const auto host = StartStandIn();
  const auto feeder = home.Start();

  // The first snapshot: NVDA has no volume before the open, PFE no last price.
  ASSERT_TRUE(market.Asked("markets/clock", 1));
  const std::string nvda = market.SentRecord("NVDA", kNewYork);
  EXPECT_THAT(nvda, MatchesRegex("NVDA-.*-1-1-1-[0-9]+"));
  EXPECT_EQ(home.Record("PFE"), "");
  EXPECT_THAT(home.Record("PFE-bid@ask"), "");

  const auto followsBars = [&](const std::string& symbol, const std::string& before) {
    const auto parts = [](const std::string& record) {  // symbol and last, the fields that stay, the stamp
      const std::size_t change = record.find('-', record.find('-') + 1);
      const std::size_t stamp = record.rfind('-');
      return std::vector{record.substr(0, change), record.substr(change, stamp - change), record.substr(stamp + 1)};
    };
    const auto matches = [&] {
      // Answers are kept for 15 s; a quote of a new minute empties this section as well.
      home.Store().DeleteSection(FeederHome::kApp, "TIntra");
      home.Store().Flush();
      std::string stamp = market.Sent(symbol, "bar", "time");
      std::erase_if(stamp, [](char c) { return c == '-' || c == 'T' || c == ':'; });
      const auto now = parts(home.Record(symbol));
      return now[0] == symbol + "-" + NumberOf(market.Sent(symbol, "bar", "price")) && now[2] == stamp &&
             now[1] == parts(before)[1];
    };
    EXPECT_TRUE(Eventually(matches)) << home.Record(symbol) << " after " << before;
  };
  market.Hold(true);
  followsBars("NVDA", nvda);
  EXPECT_EQ(market.Count("timesales?symbol=PFE"), 0U);

  // While the charts stay the same neither the clock nor a snapshot is asked for.
  const std::size_t snapshots = market.Count("markets/quotes");
  const std::size_t bars = market.Count("timesales?symbol=AAPL");
  market.Hold(false);
  market.Session("open");
  home.Store().DeleteSection(FeederHome::kApp, "TIntra");
  home.Store().Flush();
  ASSERT_TRUE(Eventually([&] { return market.Count("timesales?symbol=AAPL") > bars; }))
      << feeder->Running() << feeder->ErrorText();
  EXPECT_EQ(market.Count("markets/clock"), 1U);
  EXPECT_EQ(market.Count("markets/quotes"), snapshots);

  // A new chart leads through the clock, and that back to snapshots.
  home.OpenChart("MSFT");
  EXPECT_TRUE(Eventually([&] { return !home.Record("MSFT").empty() && !home.Record("PFE").empty(); }));
  market.Session("post");
  market.Hold(true);
  ASSERT_TRUE(Eventually([&] { return market.Count("timesales?symbol=MSFT") > 0; }));
  followsBars("MSFT", market.SentRecord("MSFT", kNewYork));
  EXPECT_TRUE(feeder->Running());
}

}  // namespace
}  // namespace quenmark::test
