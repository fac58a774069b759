#include "tests/end_to_end/feeder_home.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sqlite3.h>

#include <algorithm>
#include <regex>

namespace quenmark::test {
namespace {

using ::testing::MatchesRegex;

constexpr const char* kApp = FeederHome::kApp;

std::vector<std::string> TradedSymbols(const Market& market) {
  // The vendor's list names them all.
  std::vector<std::string> symbols;
  for (const auto& entry : nlohmann::json::parse(market.Simulator().Post("/cad/", ""))) {
    symbols.push_back(entry.at("symbol").get<std::string>());
  }
  return symbols;
}

void OpenCharts(FeederHome& home, const std::vector<std::string>& symbols) {
  for (const std::string& symbol : symbols) {
    home.Store().SaveSetting(kApp, "Descs", symbol, "described");
    home.Store().SaveSetting(kApp, "GrafAbertPapel", "chart-" + symbol, symbol);
  }
  home.Store().Flush();
}

TEST(EndToEnd, ThousandsOfSymbolsGoIntoOneRequest) {
  Market market({"--symbols", "2000"});
  FeederHome home(market);
  const std::vector<std::string> symbols = TradedSymbols(market);
  ASSERT_EQ(symbols.size(), 2000U);
  OpenCharts(home, symbols);
  const auto host = StartStandIn();
  const auto feeder = home.Start();
  ASSERT_TRUE(market.Asked("markets/clock", 2));
  std::string path = "?symbols=";
  for (const std::string& symbol : symbols) path += symbol + ",";
  path.back() = '&';
  EXPECT_EQ(market.Count(path), market.Count("markets/quotes"));
  // All but the one whose name would break its record.
  for (const std::string& symbol : symbols) {
    EXPECT_EQ(home.Record(symbol).empty(), symbol == "BF-B") << symbol;
    EXPECT_NE(home.Record(symbol + "-pc"), "") << symbol;
  }
}

void ExpectWhole(FeederHome& home, const std::vector<std::string>& symbols) {
  static const std::regex kQuote("[A-Z/]+(-m?[0-9.]+){6}-1-1-[0-9]{14}");
  static const std::regex kBook("[0-9.]+\\|[0-9]+@[0-9.]+\\|[0-9]+");
  static const std::regex kNumber("[0-9.]+");
  static const std::regex kEntry(R"(\{"symbol":"[^"]+","description":"[^"]+","exch":"[A-Z]","type":"[a-z]+"\})");
  for (const auto& [key, value] : home.Store().GetAllSettings(kApp, "Feeder")) {
    const bool book = key.ends_with("-bid@ask");
    const bool number = key.ends_with("-pc") || key.ends_with("-all");
    EXPECT_TRUE(std::regex_match(value, book ? kBook : number ? kNumber : kQuote)) << key << ": " << value;
  }
  for (const auto& [key, value] : home.Store().GetAllSettings("Tradier", "Symbols")) {
    EXPECT_TRUE(std::regex_match(value, kEntry)) << key << ": " << value;
  }
  EXPECT_EQ(home.Store().GetAllSettings(kApp, "GrafAbertPapel").size(), symbols.size());
}

std::string Check(const std::string& file) {
  sqlite3* database = nullptr;
  sqlite3_open_v2(file.c_str(), &database, SQLITE_OPEN_READWRITE, nullptr);
  std::string answer;
  const auto keep = [](void* text, int, char** values, char**) {
    *static_cast<std::string*>(text) += values[0];
    return 0;
  };
  sqlite3_exec(database, "PRAGMA integrity_check", keep, &answer, nullptr);
  sqlite3_close(database);
  return answer;
}

TEST(EndToEnd, KilledInTheMiddleOfWritesTheStoreStaysWhole) {
  Market market({"--symbols", "600"});
  FeederHome home(market);
  const std::vector<std::string> symbols = TradedSymbols(market);
  OpenCharts(home, symbols);
  const auto host = StartStandIn();
  for (int round = 0; round < 4; ++round) {
    const auto feeder = home.Start();
    // The records of this run begin to be written; each round strikes later in them.
    const std::string last = symbols[static_cast<std::size_t>(round) * symbols.size() / 4];
    const std::string before = home.Record(last + "-bid@ask");
    ASSERT_TRUE(Eventually([&] { return home.Record(last + "-bid@ask") != before; })) << last;
    feeder->Signal(SIGKILL);
    ASSERT_EQ(feeder->Wait(), 128 + SIGKILL);
    ExpectWhole(home, symbols);
  }
  EXPECT_EQ(Check(home.StoreFile()), "ok");
  // The next one goes on from there.
  const auto feeder = home.Start();
  market.Hold(true);
  ASSERT_TRUE(market.Asked("markets/clock", 3));
  EXPECT_EQ(home.Record("AAPL-bid@ask"), market.SentBook("AAPL"));
  EXPECT_EQ(home.Record(symbols.back() + "-bid@ask"), market.SentBook(symbols.back()));
}

TEST(EndToEnd, HardSymbolsLeaveTheOthersAlone) {
  using namespace std::string_literals;
  Market market;
  FeederHome home(market);
  const std::string good[] = {"AAPL", "MSFT", "SPY"};
  const std::string hard[] = {"BF-B",
                              "A\"B",
                              "A,B",
                              "\"",
                              ",",
                              "../../X",
                              "/",
                              "\\",
                              "..",
                              "A\nB",
                              "\x01\x7F",
                              "A\0B"s,
                              "\xC3\xA9\xE2\x82\xAC",
                              "\xFF\xFE",
                              " ",
                              "A B",
                              "A&B=C",
                              "A#B",
                              "A?B",
                              "50%",
                              "%41",
                              "A+B",
                              "A:B",
                              "{\"symbol\":1}",
                              "'; DROP TABLE ENTRY; --",
                              std::string(40'000, 'X')};
  home.OpenChart("AAPL");
  for (const std::string& symbol : hard) home.OpenChart(symbol, false);
  home.OpenChart("MSFT");
  // Its key, the chart's own, is of no account.
  home.Set(kApp, "GrafAbertPapel", std::string(65'536, 'k'), "SPY");
  home.Set(kApp, "Descs", "SPY", "described");
  home.Set("Quenmark", "QX", "QXPapeis", "../x-A&B-A#B-\xC3\xA9-\"-MSFT");
  home.Set("Quenmark", "QX", "HrLM", "2024-03-15 10:30:00");
  const auto host = StartStandIn();
  const auto feeder = home.Start();
  for (const std::string& symbol : good) {
    EXPECT_TRUE(Eventually([&] { return !home.Record(symbol).empty() || !feeder->Running(); })) << symbol;
    EXPECT_THAT(home.Record(symbol), MatchesRegex(symbol + "(-m?[0-9.]+){6}-1-1-[0-9]{14}"));
  }
  market.Hold(true);
  EXPECT_TRUE(market.Asked("markets/quotes", 2));
  EXPECT_TRUE(feeder->Running());
  EXPECT_EQ(home.Record("BF-B"), "");
  EXPECT_TRUE(Eventually([&] { return home.Record("BF-B-bid@ask") == market.SentBook("BF-B"); }));
  EXPECT_EQ(home.Record("BF-B-pc"), NumberOf(market.Sent("BF-B", "quote", "prevclose")));
  EXPECT_EQ(home.Get(kApp, "Descs", "BF-B"), "Brown-Forman Corp - Class B");
  for (const auto& [key, value] : home.Store().GetAllSettings(kApp, "Feeder")) {
    const std::string symbol = key.substr(0, key.find_first_of('-', key == "BF-B" || key.starts_with("BF-B-") ? 3 : 0));
    EXPECT_TRUE(symbol == "BF-B" || std::find(std::begin(good), std::end(good), symbol) != std::end(good)) << key;
  }
  EXPECT_TRUE(Eventually([&] {
    return home.Get("Quenmark", "QX", "QXPapResp").find("|MSFT-") != std::string::npos ||
           home.Get("Quenmark", "QX", "QXPapResp").find("@MSFT-") != std::string::npos;
  })) << home.Get("Quenmark", "QX", "QXPapResp");
  feeder->Signal(SIGTERM);
  ExpectEnd(*feeder, "stopped by a signal");
}

}  // namespace
}  // namespace quenmark::test
