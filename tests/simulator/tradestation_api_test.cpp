#include "tests/simulator/curl_simulator.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>

namespace quenmark::test {
namespace {

constexpr const char* kStream = "/v3/marketdata/stream/quotes/";

TEST(TradeStationApi, QuoteShapes) {
  const Simulator sim;
  const Json answer = sim.Get("/v3/marketdata/quotes/aapl,ZZZZZ,BRK/B,AAPL").Parsed();
  ASSERT_EQ(answer["Quotes"].size(), 2U);
  EXPECT_EQ(answer["Errors"], Json::parse(R"([{"Symbol":"ZZZZZ","Error":"FAILED, EX_INVALID_SYMBOL"}])"));
  const Json& quote = answer["Quotes"][1];
  EXPECT_EQ(quote["Symbol"], "BRK/B");
  EXPECT_EQ(quote["Restrictions"], Json::array());
  EXPECT_EQ(quote["MarketFlags"]["IsHalted"], false);
  for (const auto& [name, value] : quote.items()) {
    const bool nested = name == "Restrictions" || name == "MarketFlags";
    EXPECT_TRUE(nested || value.is_string() || value.is_null()) << name;
  }
  const Json sent = sim.Sent("BRK/B", "station_quote")["fields"];
  for (const char* name : {"Last", "Bid", "AskSize", "TradeTime", "NetChangePct"}) EXPECT_EQ(sent[name], quote[name]);
  EXPECT_EQ(sim.Get("/v3/marketdata/quotes/ZZZZZ").Parsed()["Quotes"], Json::array());
}

TEST(TradeStationApi, SymbolShapes) {
  const Simulator sim;
  const Json answer = sim.Get("/v3/marketdata/symbols/MSFT,ZZZZZ,AMZN").Parsed();
  EXPECT_EQ(answer["Errors"], Json::parse(R"([{"Symbol":"ZZZZZ","Error":"Invalid Symbol"}])"));
  const Json& texts = answer["Symbols"][0];
  EXPECT_EQ(texts, Json::parse(R"({"AssetType":"STOCK","Country":"US","Currency":"USD",)"
                               R"("Description":"Microsoft Corporation","Exchange":"NASDAQ",)"
                               R"("PriceFormat":{"Format":"Decimal","Decimals":"2","IncrementStyle":"Simple",)"
                               R"("Increment":"0.01","PointValue":"1.0"},"QuantityFormat":{"Format":"Decimal",)"
                               R"("Decimals":"0","IncrementStyle":"Simple","Increment":"1",)"
                               R"("MinimumTradeQuantity":"1"},"Root":"MSFT","Symbol":"MSFT"})"));
  EXPECT_EQ(answer["Symbols"][1]["PriceFormat"]["Decimals"], 2) << "every fourth symbol has numbers";
}

TEST(TradeStationApi, RefusesInTheProvidersForm) {
  const Simulator sim{{"--token", "right"}};
  for (const std::string path :
       {"/v3/marketdata/quotes/T", "/v3/marketdata/symbols/T", "/v3/marketdata/stream/quotes/T"}) {
    const Answer wrong = sim.Get(path);
    EXPECT_EQ(wrong.status, 401) << path;
    EXPECT_EQ(wrong.body, R"({"Error":"Unauthorized","Message":"Invalid Access Token"})");
    for (const int status : {401, 500}) {
      EXPECT_EQ(sim.Control("fault", fmt::format("status{}@{}*1", status, path)), 200);
      EXPECT_EQ(sim.Get(path, {"-H", "Authorization: Bearer right"}).status, status) << path;
    }
  }
  EXPECT_EQ(sim.Get("/sim/state").Parsed()["streams"]["opened"], 0);
}

TEST(TradeStationApi, OneProviderAlone) {
  const auto statuses = [](const std::string& provider) {
    const Simulator sim{{"--provider", provider}};
    return std::pair{sim.Get("/v1/markets/clock").status, sim.Get("/v3/marketdata/symbols/T").status};
  };
  EXPECT_EQ(statuses("tradier"), std::pair(200, 404));
  EXPECT_EQ(statuses("tradestation"), std::pair(404, 200));
}

// The stream as it ends by itself equals the log; the connection serves the next request.
TEST(TradeStationApi, StreamsInChunks) {
  for (const std::string chunks : {"object", "random", "byte"}) {
    const TemporaryFolder folder;
    const Simulator sim{{"--log", folder.File("log"), "--rate", "200", "--chunks", chunks, "--fault", "end"}};
    const std::string path = kStream + std::string{"AAPL,ZZZZZ,BRK/B"};
    const Answer answer = sim.Get(path, {"-N", "-D", folder.File("head"), "--next", "-sS", "--cacert", sim.CaFile(),
                                         "-w", R"(\n%{num_connects})", sim.SecureBase() + "/sim/state"});
    EXPECT_EQ(answer.exit, 0);
    EXPECT_EQ(answer.status, 0) << "connections that the second request made";
    std::string expected;
    for (const Json& line : LogLines(folder.File("log"))) {
      if (line["kind"] == "event") expected += line["text"].get<std::string>() + "\r\n";
    }
    EXPECT_TRUE(answer.body.starts_with(expected + "\n200{")) << answer.body << "\nlogged: " << expected;
    EXPECT_GE(std::count(expected.begin(), expected.end(), '\n'), 10) << expected;
    std::ifstream head{folder.File("head")};
    const std::string text{std::istreambuf_iterator<char>{head}, {}};
    EXPECT_NE(text.find("Transfer-Encoding: chunked\r\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("Content-Length"), std::string::npos) << text;
  }
}

TEST(TradeStationApi, StreamFaults) {
  const TemporaryFolder folder;
  const Simulator sim{{"--log", folder.File("log"), "--rate", "200"}};
  const struct {
    const char* fault;
    int exit;            // 18: the transfer broke off, 28: curl's time limit
    const char* reason;  // that the log gives
    bool partial;        // the last object is not whole
  } rows[] = {{"goaway", 0, "end", false},    {"end", 0, "end", false},      {"cut", 18, "cut", true},
              {"stall", 28, "client", true},  {"drip", 28, "client", false}, {"huge", 28, "client", false},
              {"slow10", 28, "client", false}};
  std::size_t streams = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.fault);
    EXPECT_EQ(sim.Control("fault", std::string{row.fault} + "@stream*1"), 200);
    const Answer answer = sim.Get(kStream + std::string{"AAPL"}, {"-N", "--max-time", row.exit == 28 ? "2" : "20"});
    EXPECT_EQ(answer.exit, row.exit);
    EXPECT_TRUE(answer.body.starts_with(R"({"Symbol":"AAPL","Open")"));
    EXPECT_EQ(answer.body.ends_with("{\"StreamStatus\":\"GoAway\"}\r\n"), row.fault == std::string{"goaway"});
    ++streams;
    std::vector<Json> ends;
    EXPECT_TRUE(Eventually([&] {
      ends = LogLines(folder.File("log"));
      std::erase_if(ends, [](const Json& line) { return line["kind"] != "stream_end"; });
      return ends.size() == streams;
    }));
    EXPECT_EQ(ends.back()["reason"], row.reason);
    EXPECT_EQ(ends.back()["stream"], streams);
    if (row.partial) {
      const std::string partial = answer.body.substr(answer.body.rfind('\n') + 1);
      EXPECT_NE(partial, "");
      EXPECT_EQ(ends.back()["partial"], partial);
    }
  }
  EXPECT_EQ(sim.Get("/sim/state").Parsed()["streams"]["open"], 0);
}

}  // namespace
}  // namespace quenmark::test
