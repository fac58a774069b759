// The vendor's quotes and news with a simulated vendor: records, bars and orders against a computation of their own
// over the answers that were sent.
#include "platform/files.h"
#include "tests/end_to_end/feeder_home.h"
#include "tests/support/text_bars.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace quenmark::test {
namespace {

constexpr const char* kVendorApp = "Quenmark_Quenmark_1_";
constexpr const char* kMorning = "1710513050";  // 10:30:50 in New York; each request is a second
const std::vector<std::string> kCharts = {"AAPL", "MSFT", "SPY"};

std::vector<std::string> Cut(const std::string& text, char separator) {
  std::vector<std::string> pieces;
  std::istringstream stream(text);
  for (std::string piece; std::getline(stream, piece, separator);) pieces.push_back(piece);
  return pieces;
}

// What the answers sent must have led to.
struct Expected {
  std::map<std::string, std::string> records;
  TextBars bars;
  double limit = 0;  // of a buy order for the first chart, 0 before it is placed; the first price below it fills it
  std::string filledAt;

  void TakeAnswer(const std::string& body) {
    const std::size_t start = body.find("|@|");
    if (start == std::string::npos) return;
    const std::string items = body.substr(start + 3, body.rfind('|') + 1 - (start + 3));
    for (const std::string& item : Cut(items, '|')) {
      const std::vector<std::string> fields = Cut(item, '-');
      if (item.find('-') == std::string::npos || std::count(kCharts.begin(), kCharts.end(), fields[0]) == 0) continue;
      records[fields[0]] = item;
      const double last = fields.size() > 1 ? std::atof(fields[1].c_str()) : 0;
      if (last > 0) TakePrice(fields[0], last, item.substr(item.size() - 14));
    }
  }
  void TakePrice(const std::string& symbol, double last, const std::string& stamp) {
    if (symbol == kCharts[0] && filledAt.empty() && last < limit) filledAt = stamp;
    bars.Update(symbol, last, stamp);
  }
};

class Vendor : public testing::Test {
 protected:
  Vendor() : host(StartStandIn()) {}

  std::string EventFile() const { return folder.File("events"); }
  std::unique_ptr<Market> Open(std::vector<std::string> more = {}) {
    more.insert(more.end(), {"--provider", "vendor", "--clock", kMorning, "--event-log", EventFile()});
    return std::make_unique<Market>(more);
  }
  std::unique_ptr<FeederHome> Home(const Market& market) {
    auto home = std::make_unique<FeederHome>(market);
    home->Configure("name", "Quenmark");
    home->Configure("#", "1");
    home->Configure("Account", "77");
    home->Set("Quenmark", "Hosts", "Quotes", market.Simulator().PlainBase());
    home->Set("Quenmark", "Hosts", "News", market.Simulator().SecureBase());
    home->Set("Quenmark", "Hosts", "Icons", market.Simulator().PlainBase());
    std::filesystem::create_directory(home->Path() + "/data");
    for (const std::string& symbol : kCharts) {
      home->Set(kVendorApp, "Descs", symbol, "described");
      home->Set(kVendorApp, "GrafAbertPapel", "chart-" + symbol, symbol);
    }
    return home;
  }
  std::vector<std::string> Bodies() const {
    std::vector<std::string> bodies;
    std::ifstream file(EventFile());
    for (std::string line; std::getline(file, line) && !file.eof();) {
      const std::size_t kind = line.find("\tvendor\t");
      if (kind != std::string::npos) bodies.push_back(line.substr(kind + 8));
    }
    return bodies;
  }
  // What the store and the files do not show of that which the answers must have led to; the order was placed after
  // that many of them.
  std::string Missing(FeederHome& home, double limit, std::size_t placed) {
    Expected expected;
    const std::vector<std::string> bodies = Bodies();
    for (std::size_t i = 0; i < bodies.size(); ++i) {
      if (i == placed) expected.limit = limit;
      expected.TakeAnswer(bodies[i]);
    }
    std::string missing;
    for (const std::string& symbol : kCharts) {
      const std::string record = home.Get(kVendorApp, "Feeder", symbol);
      if (record != expected.records[symbol]) missing += expected.records[symbol] + ", not " + record + "\n";
    }
    for (const auto& [name, text] : expected.bars.files) {
      const std::string found = platform::ReadWholeFile(home.Path() + "/data/" + name);
      if (found != text) missing += name + ": " + text + ", not " + found + "\n";
    }
    const std::string filledAt = home.Get("KLV-PT", "Ord-QDate", "1");
    if (filledAt != expected.filledAt) missing += "filled " + expected.filledAt + ", not " + filledAt + "\n";
    return missing;
  }

  TemporaryFolder folder;
  std::unique_ptr<ChildProcess> host;
};

TEST_F(Vendor, RecordsBarsAndOrdersOfTheAnswersSent) {
  const auto market = Open();
  const auto home = Home(*market);
  const auto feeder = home->Start();
  ASSERT_TRUE(Eventually([&] { return !home->Get(kVendorApp, "Feeder", "AAPL").empty(); }));
  market->Hold(true);
  ASSERT_TRUE(market->Asked("/quotes/", 2));
  const std::string now = Bodies().back();
  const double limit = std::atof(Cut(now.substr(now.find("|@|AAPL-") + 8), '-')[0].c_str());
  home->Set("KLV-PT", "Ord-Status", "1", "1");
  home->Set("KLV-PT", "Ord-Qty", "1", "10");
  home->Set("KLV-PT", "Open-AAPL", "B|1", fmt::format("{:.2f}", limit));
  const std::size_t placed = Bodies().size();
  market->Hold(false);
  ASSERT_TRUE(Eventually([&] { return Bodies().size() >= placed + 16; }));  // past the end of a minute
  ExpectDiscreet(*feeder);
  // An answer may be on its way; between two polls all have been taken.
  std::string missing;
  EXPECT_TRUE(Eventually([&] { return (missing = Missing(*home, limit, placed)).empty(); })) << missing;
  EXPECT_TRUE(platform::FileExists(home->Path() + "/data/mdi_AAPL(0)-20240315"));
  EXPECT_EQ(home->Get(kVendorApp, "Feeder", "AAPL-pc"), "");
  EXPECT_FALSE(home->Get(kVendorApp, "Feeder", "AAPL-all").empty());
}

// Whatever the vendor answers, the feeder goes on asking, writes nothing else, and is right again afterwards.
TEST_F(Vendor, SurvivesWhatTheServiceDoes) {
  const auto market = Open();
  const auto home = Home(*market);
  const auto feeder = home->Start();
  for (const char* fault :
       {"status500", "status401", "reset", "cut", "html", "empty", "huge", "http10", "chunked", "odd", "slow1500"}) {
    market->Fault(std::string(fault) + "@/quotes/*1");
    ASSERT_TRUE(market->Asked("/quotes/", 1, true)) << fault;
    ASSERT_TRUE(market->Asked("/quotes/", 1)) << fault;
    market->Hold(true);
    EXPECT_TRUE(Eventually([&] {
      Expected expected;
      const auto bodies = Bodies();
      if (!bodies.empty()) expected.TakeAnswer(bodies.back());
      return !expected.records["AAPL"].empty() && home->Get(kVendorApp, "Feeder", "AAPL") == expected.records["AAPL"] &&
             home->Get(kVendorApp, "Feeder", "SPY") == expected.records["SPY"];
    })) << fault;
    market->Hold(false);
  }
  EXPECT_TRUE(feeder->Running());
  const std::set<std::string> allowed = {"AAPL",     "AAPL-pc", "AAPL-all", "MSFT",   "MSFT-pc",
                                         "MSFT-all", "SPY",     "SPY-pc",   "SPY-all"};
  for (const auto& [key, value] : home->Store().GetAllSettings(kVendorApp, "Feeder")) {
    EXPECT_TRUE(allowed.count(key) != 0) << key;
  }
}

// The news of a start, over the socket and, when that is reset, by the other means. Nothing is stored of an answer with
// another status, in another version of HTTP, or in chunks, which are taken as they are.
TEST_F(Vendor, NewsAndIcons) {
  for (const std::string fault : {"", "reset", "status500", "http10", "chunked"}) {
    const auto market = Open({"--news", "80"});
    if (!fault.empty()) market->Fault(fault + "@/news/*1");
    const auto home = Home(*market);
    const auto feeder = home->Start();
    ASSERT_TRUE(Eventually([&] { return feeder->ErrorText().find("news: status ") != std::string::npos; })) << fault;
    if (!fault.empty() && fault != "reset") {
      const std::string status = fault == "status500" ? "500" : fault == "http10" ? "0" : "200";
      EXPECT_THAT(feeder->ErrorText(), testing::HasSubstr("news: status " + status + ", ")) << fault;
      EXPECT_TRUE(home->Store().Sections("KLV-News").empty()) << fault;
      continue;
    }
    ASSERT_TRUE(Eventually([&] { return home->Get("KLV", "News", "All") != ""; })) << fault;
    const std::vector<std::string> all = Cut(home->Get("KLV", "News", "All"), ',');
    ASSERT_GE(all.size(), 80u);
    EXPECT_TRUE(std::is_sorted(all.rbegin(), all.rend()));
    EXPECT_EQ(home->Store().Sections("KLV-News").size(), all.size());
    EXPECT_EQ(all.front(), home->Get("KLV", "News", "ID2") + "_" + home->Get("KLV", "News", "ID"));
    std::size_t texts = 0;
    for (const std::string& section : all) {
      std::map<std::string, std::string> stored;
      for (const auto& [key, value] : home->Store().GetAllSettings("KLV-News", section)) stored[key] = value;
      EXPECT_EQ(stored.count("url") + stored.count("image") + stored.count("ts_id"), 0u) << section;
      texts += stored.count("headline") + stored.count("datetime_gmt");
    }
    EXPECT_EQ(texts, 2 * all.size());
    const std::string symbol = Cut(home->Get("KLV-News", all.front(), "symbol"), ',')[0];
    EXPECT_TRUE(Eventually([&] {
      return platform::ReadWholeFile(home->Path() + "/Files/Img/" + symbol + "_ico.png").starts_with("\x89PNG");
    })) << symbol;
    ExpectDiscreet(*feeder);
  }
}

}  // namespace
}  // namespace quenmark::test
