#include "tests/end_to_end/feeder_home.h"

#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>

namespace quenmark::test {
namespace {

using ::testing::MatchesRegex;

constexpr const char* kApp = FeederHome::kApp;

std::size_t Occurrences(const std::string& text, std::string_view part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

// Every fault hits a feeder of its own, told apart by its symbol, all at the same time.
TEST(EndToEnd, FaultsWriteNothingAndALaterTickRecovers) {
  const struct {
    const char* kind;
    const char* symbol;
  } rows[] = {{"status401", "AAPL"}, {"status429", "MSFT"}, {"status500", "SPY"}, {"slow", "AMZN"},
              {"cut", "GOOG"},       {"html", "QQQ"},       {"empty", "META"},    {"huge", "TSLA"}};
  Market market;
  const auto host = StartStandIn();
  std::vector<std::unique_ptr<FeederHome>> homes;
  std::vector<std::unique_ptr<ChildProcess>> feeders;
  for (const auto& row : rows) {
    market.Fault(std::string(row.kind) + "@?symbols=" + row.symbol);
    market.Fault(std::string(row.kind) + "@?q=" + row.symbol);
    homes.push_back(std::make_unique<FeederHome>(market));
    homes.back()->OpenChart(row.symbol, false);
    homes.back()->Set("Quenmark", "Hosts", "AnswerLimit", "1000000");
    homes.back()->Set("Quenmark", "Hosts", "TotalTimeoutMs", std::string(row.kind) == "slow" ? "300" : "20000");
    feeders.push_back(homes.back()->Start());
  }
  // The second one comes after the answer to the first has been dealt with.
  for (const auto& row : rows) {
    EXPECT_TRUE(Eventually([&] { return market.Count(std::string("?symbols=") + row.symbol, true) >= 2; })) << row.kind;
  }
  for (std::size_t row = 0; row < std::size(rows); ++row) {
    EXPECT_TRUE(homes[row]->Store().GetAllSettings(kApp, "Feeder").empty()) << rows[row].kind;
    EXPECT_TRUE(homes[row]->Store().GetAllSettings(kApp, "Descs").empty()) << rows[row].kind;
    EXPECT_TRUE(homes[row]->Store().GetAllSettings("Tradier", "Symbols").empty()) << rows[row].kind;
    EXPECT_TRUE(feeders[row]->Running()) << rows[row].kind;
  }
  market.Fault("none");
  for (std::size_t row = 0; row < std::size(rows); ++row) {
    const std::string symbol = rows[row].symbol;
    EXPECT_TRUE(Eventually([&] { return !homes[row]->Record(symbol).empty(); })) << rows[row].kind;
    EXPECT_THAT(homes[row]->Record(symbol), MatchesRegex(symbol + "(-m?[0-9.]+){6}-1-1-[0-9]{14}"));
    EXPECT_TRUE(Eventually([&] { return !homes[row]->Get(kApp, "Descs", symbol).empty(); })) << rows[row].kind;
    ExpectDiscreet(*feeders[row]);
  }
}

TEST(EndToEnd, FaultsOfTheOtherRequestsLeaveTheQuotesAlone) {
  Market market({"--fault", "html@/gmt/", "--fault", "cut@clock", "--fault", "status500@timesales", "--fault",
                 "empty@lookup", "--clock", "1710513000"});
  FeederHome home(market);
  home.Surroundings().environment["TZ"] = "XYZ-9";
  home.Set("Quenmark", "Hosts", "TimeZone", market.Simulator().SecureBase());
  home.Set("Quenmark", "QX", "QXPapeis", "MSFT");
  home.Set("Quenmark", "QX", "HrLM", "2024-03-15 10:30:00");
  home.OpenChart("AAPL", false);
  const auto host = StartStandIn();
  const auto feeder = home.Start();
  ASSERT_TRUE(market.Asked("quotes", 2));
  market.Hold(true);
  // Without an offset of the service the machine's own zone holds: nine hours east.
  EXPECT_TRUE(Eventually([&] { return home.Record("AAPL") == market.SentRecord("AAPL", -540); }));
  EXPECT_EQ(home.Get("Quenmark", "QX", "QXPapResp"), "@!@ 20240315101955");
  market.Fault("none");
  EXPECT_TRUE(Eventually([&] { return home.Get("Quenmark", "QX", "QXPapResp").starts_with("@!@MSFT-1015-"); }));
}

TEST(EndToEnd, AServerThatCannotBeTrustedIsNotTalkedTo) {
  Market market;
  const Market other;  // its authority is not the one of the server
  const auto host = StartStandIn();
  struct Row {
    const char* about;
    std::string certificates;
    std::string base;
  };
  const std::string secure = market.Simulator().SecureBase();
  const std::string closed = "https://localhost:1/sandbox/v1/";
  const Row rows[] = {{"no authority", "", secure + "/sandbox/v1/"},
                      {"other authority", other.Simulator().CaFile(), secure + "/sandbox/v1/"},
                      {"nobody listens", market.Simulator().CaFile(), closed},
                      {"plain HTTP behind https", market.Simulator().CaFile(),
                       "https://localhost:" + std::to_string(market.Simulator().HttpPort()) + "/sandbox/v1/"},
                      {"no address", market.Simulator().CaFile(), "sandbox"}};
  std::vector<std::unique_ptr<FeederHome>> homes;
  std::vector<std::unique_ptr<ChildProcess>> feeders;
  for (const Row& row : rows) {
    homes.push_back(std::make_unique<FeederHome>(market));
    homes.back()->Surroundings().environment["SSL_CERT_FILE"] = row.certificates;
    homes.back()->Configure("EP", row.base);
    homes.back()->OpenChart("AAPL");
    feeders.push_back(homes.back()->Start());
  }
  for (std::size_t row = 0; row < std::size(rows); ++row) {
    ChildProcess& feeder = *feeders[row];
    EXPECT_TRUE(Eventually([&] { return Occurrences(feeder.ErrorText(), "request failed: ") >= 3; }))
        << rows[row].about << feeder.ErrorText();
    EXPECT_TRUE(homes[row]->Store().GetAllSettings(kApp, "Feeder").empty()) << rows[row].about;
    EXPECT_TRUE(feeder.Running()) << rows[row].about;
    ExpectDiscreet(feeder);
  }
  EXPECT_EQ(market.Count("markets"), 0U) << "no request, and so no token, left the feeders";
}

}  // namespace
}  // namespace quenmark::test
