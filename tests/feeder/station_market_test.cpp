// The TradeStation branch against the simulator: every record equals what an independent reading of the simulator's log
// gives.
#include "feeder/quote_record.h"
#include "feeder/station_stream.h"
#include "tests/support/feeder_fixture.h"
#include "tests/support/simulator_process.h"

#include <fmt/chrono.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <ctime>
#include <fstream>
#include <map>
#include <string>

namespace quenmark::test {
namespace {

using namespace std::chrono_literals;

constexpr int kOffsetMinutes = 240;

// "2026-09-30T20:21:49Z" as local yyyymmddHHMMss.
std::string LocalStamp(const std::string& utc) {
  std::tm time{};
  strptime(utc.c_str(), "%Y-%m-%dT%H:%M:%SZ", &time);
  return fmt::format("{:%Y%m%d%H%M%S}", fmt::gmtime(timegm(&time) - kOffsetMinutes * 60));
}

// The records a reader of these stream objects must hold, begun from what the snapshot left.
class Reference {
 public:
  std::map<std::string, std::vector<std::string>> records;  // ten fields
  std::map<std::string, double> closes;
  std::map<std::string, std::string> books;

  void Take(const nlohmann::json& object) {
    for (const char* name : {"Symbol", "Last", "TradeTime"}) {
      if (!object.contains(name) || !object.at(name).is_string()) return;
    }
    const std::string symbol = object.at("Symbol");
    auto& record = records.at(symbol);
    const std::string stamp = LocalStamp(object.at("TradeTime"));
    if (stamp < record[9]) return;
    if (stamp > record[9]) {
      const double price = std::stod(object.at("Last").get<std::string>());
      const std::string hundredths = std::to_string(std::lround(price * 100));
      record[1] = hundredths;
      record[2] = fmt::format("{:.2f}", (std::stod(hundredths) / std::round(closes.at(symbol) * 100) - 1) * 100);
      if (record[2] == "-0.00") record[2] = "0.00";
      if (record[2].front() == '-') record[2].front() = 'm';
      if (price > std::stod(record[4])) record[4] = hundredths;
      if (price < std::stod(record[5])) record[5] = hundredths;
      record[9] = stamp;
    }
    if (object.contains("Bid") && object.contains("Ask")) {
      const auto text = [&](const char* name) { return object.value(name, ""); };
      books[symbol] = text("Bid") + "|" + text("BidSize") + "@" + text("Ask") + "|" + text("AskSize");
    }
  }
};

class StationMarket : public FeederFixture, public ::testing::WithParamInterface<const char*> {
 protected:
  StationMarket() {
    context.providerName = "TradeStation";
    context.apiBase = simulator.PlainBase() + "/v3/";
    context.accessToken = "token";
    for (const char* symbol : {"AAPL", "MSFT", "SPY", "AMZN"}) OpenChart(symbol);
  }
  void Tick() {
    open.Rebuild(context);
    stream.Tick();
  }
  // The stream objects that were sent, in order.
  std::vector<nlohmann::json> SentObjects() const {
    std::vector<nlohmann::json> objects;
    std::ifstream file(folder.File("log"));
    for (std::string line; std::getline(file, line);) {
      const auto entry = nlohmann::json::parse(line);
      if (entry.at("kind") == "event") objects.push_back(nlohmann::json::parse(entry.at("text").get<std::string>()));
    }
    return objects;
  }

  // Its streams end by themselves, so that what is in the log was read.
  SimulatorProcess simulator{{"--provider", "tradestation", "--seed", "11", "--rate", "500", "--fault", "end",
                              "--chunks", GetParam(), "--log", folder.File("log")}};
  providers::OpenSymbols open;
  std::string subscribed;
  platform::Timer restart{loop, 500ms, [this] { stream.Restart(); }};
  feeder::StationStream stream{context, open, subscribed, restart};
};

TEST_P(StationMarket, RecordsEqualTheLogOfSentObjects) {
  for (int turn = 0; turn < 25; ++turn) Tick();

  Reference reference;
  for (const std::string& symbol : open.Symbols()) {
    const std::string copy = store->GetSetting("Dovecrest", "Feeder", symbol);
    for (const std::string_view field : feeder::SplitQuoteRecord(copy)) {
      reference.records[symbol].emplace_back(field);
    }
    reference.closes[symbol] = std::stod(Feeder(symbol + "-pc"));
    reference.books[symbol] = Feeder(symbol + "-bid@ask");
  }
  const auto objects = SentObjects();
  ASSERT_GT(objects.size(), 200u);
  for (const auto& object : objects) reference.Take(object);
  for (const auto& [symbol, fields] : reference.records) {
    EXPECT_EQ(Feeder(symbol), fmt::format("{}", fmt::join(fields, "-")));
    EXPECT_EQ(Feeder(symbol + "-bid@ask"), reference.books[symbol]);
  }
}

INSTANTIATE_TEST_SUITE_P(ChunkBorders, StationMarket, ::testing::Values("object", "random", "byte"));

}  // namespace
}  // namespace quenmark::test
