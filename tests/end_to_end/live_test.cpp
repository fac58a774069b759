#include "simulator/universe.h"
#include "tests/end_to_end/feeder_home.h"
#include "tests/end_to_end/live_records.h"
#include "tests/support/certificate.h"

#include <gmock/gmock.h>
#include <signal.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace quenmark::test {
namespace {

using ::testing::HasSubstr;

constexpr const char* kApp = FeederHome::kLiveApp;
constexpr const char* kMorning = "1710513000";  // 15 March 2024, 10:30 in New York, 240 minutes west

class Live : public ::testing::Test {
 protected:
  // A market that logs what its event streams send.
  Market Open(std::vector<std::string> arguments) {
    ++m_markets;
    arguments.insert(arguments.end(), {"--event-log", Log()});
    return Market(arguments);
  }
  std::string Log() const { return m_folder.File("events" + std::to_string(m_markets)); }

  static nlohmann::json Events(const Market& market) {
    return nlohmann::json::parse(market.Simulator().Get("/sim/state")).at("events");
  }
  // What the store holds of the keys that the log leads to.
  std::map<std::string, std::string> Stored(FeederHome& home) const {
    std::map<std::string, std::string> stored;
    for (const auto& [key, unused] : RecordsOf(Log())) stored[key] = home.Record(key);
    return stored;
  }
  void ExpectRecordsAsSent(FeederHome& home) const {
    EXPECT_TRUE(Eventually([&] { return Stored(home) == RecordsOf(Log()); }));
    const auto expected = RecordsOf(Log());
    EXPECT_FALSE(expected.empty());
    for (const auto& [key, value] : Stored(home)) EXPECT_EQ(value, expected.at(key)) << key;
  }

 private:
  TemporaryFolder m_folder;
  int m_markets = 0;
};

TEST_F(Live, EveryRecordIsWhatWasSent) {
  const struct {
    const char* about;
    std::size_t symbols;
    std::int64_t events;
    const char* step;  // milliseconds of the market's clock between two events
    std::vector<std::string> arguments;
  } rows[] = {{"full speed", 50, 20000, "37", {"--rate", "0"}},
              {"one symbol", 1, 5000, "400", {"--rate", "0"}},
              {"two thousand symbols", 2000, 8000, "5", {"--rate", "0"}},
              {"three events in a message", 8, 3000, "37", {"--rate", "5000", "--linebreak-batch", "3"}},
              {"an offer of compression", 8, 500, "37", {"--rate", "1000", "--deflate"}}};
  const auto host = StartStandIn();
  for (const auto& row : rows) {
    const std::string symbols = std::to_string(row.symbols);
    std::vector<std::string> arguments{
        "--clock", kMorning, "--symbols", symbols, "--events", std::to_string(row.events), "--event-step", row.step};
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    Market market = Open(arguments);
    FeederHome home(market, FeederHome::Endpoint::kLive);
    for (const auto& instrument : simulator::Universe(row.symbols)) home.OpenChart(instrument.symbol, row.symbols > 50);
    const auto feeder = home.Start();
    ASSERT_TRUE(Eventually([&] { return Events(market).at("events") == row.events; })) << row.about;
    ExpectRecordsAsSent(home);
    EXPECT_EQ(RecordsOf(Log()).size(), 3 * row.symbols) << row.about;  // each with a previous close and a book
    EXPECT_TRUE(feeder->Running()) << row.about;
    ExpectDiscreet(*feeder);
  }
}

// What can become of a stream, each for a feeder of its own, all at the same time: what the store held stays, and the
// feeder ends, connects again, or goes on with what comes, if anything does.
TEST_F(Live, SpoiledStreamsEndTheFeederOrAreOpenedAgain) {
  enum class Then { kEnds, kConnectsAgain, kGoesOn, kWaits };
  const struct {
    const char* fault;
    Then then;
  } rows[] = {
      {"close1000", Then::kEnds}, {"close1011", Then::kEnds}, {"tlsclose", Then::kEnds},       {"cut", Then::kEnds},
      {"status500", Then::kEnds}, {"halfframe", Then::kEnds}, {"reset", Then::kConnectsAgain}, {"drip", Then::kGoesOn},
      {"stall", Then::kWaits},    {"garbage", Then::kWaits}};
  const auto host = StartStandIn();
  std::vector<std::unique_ptr<Market>> markets;
  std::vector<std::unique_ptr<FeederHome>> homes;
  std::vector<std::unique_ptr<ChildProcess>> feeders;
  for (const auto& row : rows) {
    markets.push_back(std::make_unique<Market>(std::vector<std::string>{
        "--rate", "200", "--fault", std::string(row.fault) + "@/v1/markets/events*1", "--fault-turn", "40"}));
    homes.push_back(std::make_unique<FeederHome>(*markets.back(), FeederHome::Endpoint::kLive));
    homes.back()->OpenChart("AAPL");
    homes.back()->OpenChart("MSFT");
    feeders.push_back(homes.back()->Start());
  }
  for (std::size_t row = 0; row < std::size(rows); ++row) {
    const std::string fault = rows[row].fault;
    if (rows[row].then == Then::kEnds) ExpectEnd(*feeders[row], "the stream was closed");
    if (rows[row].then == Then::kConnectsAgain) {
      EXPECT_TRUE(Eventually([&] { return Events(*markets[row]).at("subscriptions") >= 2; })) << fault;
    }
    EXPECT_EQ(feeders[row]->Running(), rows[row].then != Then::kEnds) << fault;
    if (rows[row].then == Then::kConnectsAgain || rows[row].then == Then::kGoesOn) {
      const std::string before = homes[row]->Record("AAPL-bid@ask");
      EXPECT_TRUE(Eventually([&] { return homes[row]->Record("AAPL-bid@ask") != before; })) << fault;
    }
    EXPECT_EQ(homes[row]->Record("AAPL").empty(), fault == "status500") << fault;
  }
}

TEST_F(Live, AServerThatCannotBeTrustedGetsNoSession) {
  const auto host = StartStandIn();
  std::vector<std::unique_ptr<Market>> markets;
  std::vector<std::unique_ptr<FeederHome>> homes;
  std::vector<std::unique_ptr<ChildProcess>> feeders;
  for (const char* certificate : {"expired", "other-host", "not-yet", "unknown-issuer"}) {
    markets.push_back(std::make_unique<Market>(std::vector<std::string>{"--wss-certificate", certificate}));
    homes.push_back(std::make_unique<FeederHome>(*markets.back(), FeederHome::Endpoint::kLive));
    homes.back()->Set(
        "Quenmark", "Hosts", "Stream",
        "wss://localhost:" + std::to_string(markets.back()->Simulator().WssPort()) + "/v1/markets/events");
    homes.back()->OpenChart("AAPL");
    feeders.push_back(homes.back()->Start());
  }
  for (std::size_t row = 0; row < markets.size(); ++row) {
    // It is tried again at the next tick.
    EXPECT_TRUE(Eventually([&] {
      const std::string log = feeders[row]->ErrorText();
      const std::size_t first = log.find("stream: error");
      return first != std::string::npos && log.find("stream: error", first + 1) != std::string::npos;
    })) << feeders[row]->ErrorText();
    EXPECT_TRUE(feeders[row]->Running());
    EXPECT_EQ(Events(*markets[row]).at("opened"), 0);
    EXPECT_EQ(markets[row]->Count("session"), 0U);
    EXPECT_TRUE(homes[row]->Store().GetAllSettings(kApp, "Feeder").empty());
  }
}

TEST_F(Live, KilledInABurstItGoesOnFromTheStore) {
  Market market = Open({"--rate", "0"});
  FeederHome home(market, FeederHome::Endpoint::kLive);
  for (const auto& instrument : simulator::Universe(20)) home.OpenChart(instrument.symbol);
  const auto host = StartStandIn();
  std::string lastStamp;
  for (int round = 0; round < 3; ++round) {
    const auto feeder = home.Start();
    const std::int64_t sent = Events(market).at("events");
    ASSERT_TRUE(Eventually([&] { return Events(market).at("events") > sent + 20000; }));
    feeder->Signal(SIGKILL);
    feeder->Wait();
    const std::string record = home.Record("AAPL");
    EXPECT_THAT(record, ::testing::MatchesRegex("AAPL(-m?[0-9.]+){6}-1-1-[0-9]{14}"));
    const std::string stamp = record.substr(record.size() - 14);
    EXPECT_GE(stamp, lastStamp);
    lastStamp = stamp;
  }
}

TEST_F(Live, ChartsSessionsAndCredentialsMayChangeInABurst) {
  Market market = Open({"--rate", "3000", "--session-life", "100"});
  FeederHome home(market, FeederHome::Endpoint::kLive);
  home.OpenChart("AAPL");
  home.OpenChart("NOSUCH");  // the server refuses it, so it leaves the charts
  const auto host = StartStandIn();
  const auto feeder = home.Start();
  EXPECT_TRUE(Eventually([&] { return home.Get(kApp, "GrafAbertPapel", "chart-NOSUCH").empty(); }));
  const std::string session = home.Get("Quenmark", "API", "SID");
  EXPECT_NE(session, "");
  market.Simulator().Post("/sim/sessions", "expire");
  EXPECT_TRUE(Eventually([&] {
    const std::string now = home.Get("Quenmark", "API", "SID");
    return now != session && now != "ask_new_session";
  }));
  home.OpenChart("MSFT");  // the new session is used with the next change
  EXPECT_TRUE(Eventually([&] { return !home.Record("MSFT-bid@ask").empty(); }));
  home.Store().DeleteSetting(kApp, "GrafAbertPapel", "chart-AAPL");
  home.OpenChart("SPY");
  EXPECT_TRUE(Eventually([&] { return !home.Record("SPY-bid@ask").empty(); }));
  EXPECT_TRUE(feeder->Running());
  home.Configure("t", "b3RoZXI=");
  ExpectEnd(*feeder, "the service credential has changed");
}

// The same session with a broker of another make, on node's TLS and WebSocket.
TEST_F(Live, ASessionWithAnotherStack) {
  const TemporaryFolder folder;
  MakeCertificate(folder.File("both.pem"), folder.File("alone.pem"));
  ChildProcess::Options options;
  options.environment["NODE_PATH"] = "/usr/share/nodejs";
  ChildProcess broker("node", {SOURCE_DIR "/tests/end_to_end/peers/market.js", folder.File("both.pem")}, options);
  const std::string port = broker.ReadLine().value_or(broker.ErrorText());

  const Market unused;
  FeederHome home(unused, FeederHome::Endpoint::kLive);
  home.Surroundings().environment["SSL_CERT_FILE"] = folder.File("alone.pem");
  home.Surroundings().environment["TZ"] = "XYZ4";
  home.Configure("EP", "https://localhost:" + port + "/v1/");
  home.Set("Quenmark", "Hosts", "Stream", "wss://localhost:" + port + "/v1/markets/events");
  home.OpenChart("QQQ");
  const auto host = StartStandIn();
  const auto feeder = home.Start();
  EXPECT_EQ(broker.ReadLine(), R"({"symbols": ["QQQ"], "sessionid": "node-session-1", "linebreak": true})");
  EXPECT_TRUE(Eventually([&] { return home.Record("QQQ-bid@ask") == "100.5|100@100.75|200"; }));
  // Two trades a second, of which the first counts: 51 of them.
  EXPECT_TRUE(Eventually([&] { return home.Record("QQQ") == "QQQ-311-0.32-310-311-309.25-1510-1-1-20201231164928"; }))
      << home.Record("QQQ");
  EXPECT_EQ(home.Record("QQQ-pc"), "310");
  EXPECT_TRUE(feeder->Running()) << feeder->ErrorText();
}

}  // namespace
}  // namespace quenmark::test
