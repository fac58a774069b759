// The simulator as a program, asked by curl.
#include "tests/simulator/event_client.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace quenmark::test {
namespace {

// Every field of `object` as the text that was sent, to compare with the state.
bool SameTexts(const Json& object, const Json& sentFields) {
  if (object.size() != sentFields.size()) return false;
  for (const auto& [name, value] : object.items()) {
    const Json& sent = sentFields[name];
    if (value.is_null() ? !sent.is_null()
                        : value != (value.is_string() ? sent : Json::parse(sent.get<std::string>()))) {
      return false;
    }
  }
  return true;
}

TEST(FeederSim, TlsVerifiesOnlyWithItsAuthority) {
  Simulator sim;
  const std::string address = fmt::format("https://127.0.0.1:{}/sim/state", sim.HttpsPort());
  EXPECT_EQ(sim.Curl(address, {"--cacert", sim.CaFile()}).status, 200);
  EXPECT_EQ(sim.Curl(address).exit, 60) << "peer certificate cannot be authenticated";
  EXPECT_EQ(sim.Curl(fmt::format("https://other:{}/", sim.HttpsPort()),
                     {"--cacert", sim.CaFile(), "--connect-to", "::127.0.0.1:"})
                .exit,
            60);
}

TEST(FeederSim, SignalsEndItCleanly) {
  for (const int signal : {SIGTERM, SIGINT}) {
    Simulator sim;
    const std::filesystem::path folder = std::filesystem::path{sim.CaFile()}.parent_path();
    EXPECT_EQ(std::filesystem::status(folder).permissions(), std::filesystem::perms::owner_all);
    sim.Program().Signal(signal);
    EXPECT_EQ(sim.Program().Wait(), 0);
    EXPECT_FALSE(std::filesystem::exists(folder));
  }
}

TEST(FeederSim, BadOptionsAreRefused) {
  for (const Words& words :
       {Words{"--fault", "nonsense"}, Words{"--session", "lunch"}, Words{"--symbols", "0"}, Words{"--rate", "-1"},
        Words{"--event-kinds", "news"}, Words{"--chunks", "odd"}, Words{"--provider", "any"}, Words{"x"}}) {
    ChildProcess program{BIN_DIR "/feeder-sim", words};
    EXPECT_EQ(program.Wait(), 2) << words.back();
  }
  ChildProcess program{BIN_DIR "/feeder-sim", {"--log", "/nowhere/log"}};
  EXPECT_EQ(program.Wait(), 1);
}

TEST(FeederSim, QuoteShapes) {
  const Simulator sim;
  for (const std::string base : {"/v1/", "/sandbox/v1/"}) {
    const auto quotes = [&](const std::string& symbols) {
      return sim.Get(base + "markets/quotes?symbols=" + symbols + "&greeks=false&randombit=0.5").Parsed()["quotes"];
    };
    const Json one = quotes("aapl");
    ASSERT_TRUE(one["quote"].is_object());
    EXPECT_TRUE(SameTexts(one["quote"], sim.Sent("AAPL", "quote")["fields"]));
    const Json several = quotes("MSFT,ZZZZZ,SPY,MSFT");
    ASSERT_EQ(several["quote"].size(), 2U);
    EXPECT_EQ(several["quote"][0]["symbol"], "MSFT");
    EXPECT_EQ(several["quote"][1]["symbol"], "SPY");
    EXPECT_EQ(several["unmatched_symbols"]["symbol"], "ZZZZZ");
    EXPECT_EQ(quotes("X1,X2"), Json::parse(R"({"unmatched_symbols":{"symbol":["X1","X2"]}})"));
    EXPECT_TRUE(quotes("").is_null());
  }
}

TEST(FeederSim, OnlyBearersAreServed) {
  const Simulator sim{{"--token", "right"}};
  const auto status = [&](const std::string& header) {
    return sim.Curl(sim.SecureBase() + "/v1/markets/clock", {"--cacert", sim.CaFile(), "-H", header}).status;
  };
  EXPECT_EQ(status("Authorization: Bearer right"), 200);
  EXPECT_EQ(status("Authorization: Basic right"), 401);
  EXPECT_EQ(status("X: y"), 401);
  const Answer wrong = sim.Get("/v1/markets/clock");
  EXPECT_EQ(wrong.status, 401);
  EXPECT_EQ(wrong.body,
            R"({"fault":{"faultstring":"Invalid Access Token","detail":{"errorcode":"keymanagement.service.)"
            R"(invalid_access_token"}}})");
}

TEST(FeederSim, AnswersXmlWithoutTheJsonHeader) {
  const Simulator sim;
  const Words words{"--cacert", sim.CaFile(), "-H", "Authorization: Bearer x"};
  const std::string body = sim.Curl(sim.SecureBase() + "/v1/markets/quotes?symbols=T", words).body;
  EXPECT_NE(body.find("<quotes><quote><symbol>T</symbol><description>AT&amp;T Inc</description>"), std::string::npos);
}

TEST(FeederSim, SessionsSwitch) {
  const Simulator sim{{"--session", "pre"}};
  const auto quote = [&](const std::string& symbol) {
    return sim.Get("/v1/markets/quotes?symbols=" + symbol).Parsed()["quotes"]["quote"];
  };
  const auto state = [&] { return sim.Get("/v1/markets/clock").Parsed()["clock"]["state"]; };
  EXPECT_EQ(state(), "premarket");
  const Json before = quote("AAPL");
  for (const char* name : {"open", "high", "low", "close"}) EXPECT_TRUE(before[name].is_null()) << name;
  EXPECT_EQ(before["last"], before["prevclose"]);
  EXPECT_EQ(quote("NVDA")["volume"], 0);
  EXPECT_TRUE(quote("PFE")["last"].is_null());

  EXPECT_EQ(sim.Control("session", "open"), 200);
  EXPECT_EQ(sim.Control("price", "AAPL 123.45"), 200);
  EXPECT_EQ(state(), "open");
  const Json open = quote("AAPL");
  for (const char* name : {"last", "open", "high", "low"}) EXPECT_EQ(open[name], 123.45) << name;
  EXPECT_TRUE(open["close"].is_null());
  EXPECT_GT(open["trade_date"], before["trade_date"]);

  const auto moves = [&] { return quote("MSFT") != quote("MSFT"); };
  EXPECT_TRUE(moves());
  EXPECT_EQ(sim.Control("hold", "on"), 200);
  EXPECT_FALSE(moves());
  EXPECT_EQ(sim.Control("hold", "off"), 200);
  EXPECT_TRUE(moves());

  EXPECT_EQ(sim.Control("session", "post"), 200);
  EXPECT_EQ(state(), "postmarket");
  EXPECT_EQ(quote("AAPL")["close"], 123.45);
  EXPECT_EQ(sim.Control("session", "closed"), 200);
  EXPECT_EQ(state(), "closed");
  EXPECT_EQ(quote("AAPL"), quote("AAPL"));
  EXPECT_EQ(sim.Control("session", "pre"), 200);
  EXPECT_EQ(quote("AAPL")["prevclose"], 123.45);
  EXPECT_EQ(sim.Control("session", "lunch"), 400);
}

TEST(FeederSim, MinuteBars) {
  // 2025-07-01 09:35:00 of the exchange.
  const Simulator sim{{"--session", "post", "--clock", "1751376900"}};
  const auto bars = [&](const std::string& start) {
    return sim.Get("/v1/markets/timesales?symbol=AAPL&interval=1min&start=" + start + "&session_filter=all")
        .Parsed()["series"];
  };
  const Json rows = bars("2025-07-01%2009:33")["data"];
  EXPECT_TRUE(SameTexts(rows.back(), sim.Sent("AAPL", "bar")["fields"]));
  EXPECT_EQ(rows[0]["time"], "2025-07-01T09:33:00");
  EXPECT_EQ(rows[0]["timestamp"], 1751376780);
  EXPECT_EQ(rows[1]["timestamp"], 1751376840);
  for (const Json& row : rows) {
    EXPECT_LE(row["low"], std::min(row["open"], row["close"]));
    EXPECT_GE(row["high"], std::max(row["open"], row["close"]));
    EXPECT_GE(row["vwap"], row["low"]);
    EXPECT_LE(row["vwap"], row["high"]);
  }
  EXPECT_EQ(bars("2025-07-01%2009:33")["data"][0], rows[0]);
  EXPECT_TRUE(bars("2025-07-01%2009:34")["data"].is_array());
  EXPECT_TRUE(bars("2025-07-01%2009:36").is_null());
  EXPECT_EQ(sim.Get("/v1/markets/timesales?symbol=AAPL&interval=1min&start=yesterday").status, 400);
  EXPECT_TRUE(
      sim.Get("/v1/markets/timesales?symbol=ZZZZZ&interval=1min&start=2025-07-01").Parsed()["series"].is_null());
}

TEST(FeederSim, LookupSessionAndVendor) {
  const Simulator sim;
  const auto lookup = [&](const std::string& text) {
    return sim.Get("/v1/markets/lookup?q=" + text).Parsed()["securities"];
  };
  EXPECT_EQ(lookup("GOOG")["security"][0]["description"], "Alphabet Inc - Class C");
  EXPECT_EQ(lookup("GOOG")["security"].size(), 2U);
  EXPECT_EQ(lookup("brk%2Fb")["security"]["symbol"], "BRK/B");
  EXPECT_TRUE(lookup("ZZZZZ").is_null());

  const Words post{"-X", "POST", "-H", "Content-Length: 0"};
  const auto id = [&] {
    return sim.Get("/v1/markets/events/session", post).Parsed()["stream"]["sessionid"].get<std::string>();
  };
  EXPECT_EQ(id().size(), 36U);
  EXPECT_NE(id(), id());
  EXPECT_EQ(sim.Get("/v1/markets/events/session").status, 404) << "GET";

  const std::string zone = sim.Get("/gmt/", post).body;
  EXPECT_TRUE(zone.ends_with("|TZM240|") || zone.ends_with("|TZM300|")) << zone;
  const std::string list = sim.Get("/cad/", post).body;
  EXPECT_NE(list.find(R"({"description":"AT\u0026T Inc","displaySymbol":"T","symbol":"T","type":"Common Stock"})"),
            std::string::npos);
  EXPECT_EQ(Json::parse(list).size(), 100U);
}

TEST(FeederSim, FaultsHitAndEnd) {
  const Simulator sim{{"--fault", "status500@AAPL*1"}};
  const std::string path = "/v1/markets/quotes?symbols=AAPL,MSFT";
  EXPECT_EQ(sim.Get(path).status, 500);
  EXPECT_EQ(sim.Get(path).status, 200);
  const Json sent = sim.Sent("AAPL", "quote");
  struct Row {
    const char* fault;
    int exit;
    int status;
    const char* begin;
    std::size_t size;  // 0: any
  };
  for (const Row& row : {Row{"status401", 0, 401, "{\"fault\"", 0}, Row{"status429", 0, 429, "{\"fault\"", 0},
                         Row{"html", 0, 200, "<!DOCTYPE", 0}, Row{"empty", 0, 200, "", 0},
                         Row{"cut", 18, 200, "{\"quotes\"", 0}, Row{"huge", 0, 200, "{\"quotes\"", 50'000'000}}) {
    EXPECT_EQ(sim.Control("fault", std::string{row.fault} + "@quotes*1"), 200);
    EXPECT_EQ(sim.Get("/v1/markets/clock").status, 200);
    const Answer answer = sim.Get(path);
    EXPECT_EQ(answer.exit, row.exit) << row.fault;
    EXPECT_EQ(answer.status, row.status) << row.fault;
    EXPECT_TRUE(answer.body.starts_with(row.begin)) << row.fault;
    EXPECT_TRUE(row.size == 0 || answer.body.size() == row.size) << answer.body.size();
    EXPECT_EQ(sim.Sent("AAPL", "quote"), sent) << row.fault << ": counted as sent";
  }
  EXPECT_EQ(sim.Control("fault", "html"), 200);
  EXPECT_TRUE(sim.Get(path).body.starts_with("<!"));
  EXPECT_EQ(sim.Control("fault", "none"), 200);
  EXPECT_TRUE(sim.Get(path).body.starts_with("{"));
  EXPECT_EQ(sim.Control("fault", "nonsense"), 400);
}

TEST(FeederSim, SlowAnswersOfClientsThatLeftAreNotSent) {
  const TemporaryFolder folder;
  const Simulator sim{{"--log", folder.File("log")}};
  const std::string path = "/v1/markets/quotes?symbols=SPY";
  EXPECT_EQ(sim.Control("fault", "slow1500*1"), 200);
  EXPECT_EQ(sim.Get(path, {"--max-time", "0.2"}).exit, 28);
  const auto abandoned = [&] {
    const std::vector<Json> lines = LogLines(folder.File("log"));
    return std::any_of(lines.begin(), lines.end(), [](const Json& line) { return line["status"] == 0; });
  };
  EXPECT_TRUE(Eventually(abandoned));
  EXPECT_TRUE(sim.Sent("SPY", "quote").is_null());
  EXPECT_EQ(sim.Control("fault", "slow10*1"), 200);
  EXPECT_EQ(sim.Get(path).status, 200);
  EXPECT_EQ(sim.Sent("SPY", "quote")["sent"], 1);
}

TEST(FeederSim, SameSeedSameRun) {
  const auto run = [](const std::string& seed) {
    const Simulator sim{
        {"--seed", seed, "--clock", "1751376900", "--symbols", "40", "--rate", "500", "--fault", "end@stream*1"}};
    std::string texts;
    for (int round = 0; round < 3; ++round) texts += sim.Get("/v1/markets/quotes?symbols=AAPL,SPY").body;
    texts += sim.Get("/v1/markets/timesales?symbol=SPY&interval=1min&start=2025-07-01%2009:00").body;
    std::vector<std::string> parts{texts, sim.Get("/v3/marketdata/stream/quotes/AAPL,SPY").body, ""};
    EventClient client{sim};
    client.Subscribe({"AAPL", "MSFT"}, NewSession(sim));
    for (const std::string& message : client.Read(100)) parts.back() += message;
    return parts;
  };
  const std::vector<std::string> first = run("7");
  EXPECT_EQ(run("7"), first);
  const std::vector<std::string> other = run("8");
  for (std::size_t part = 0; part < first.size(); ++part) EXPECT_NE(other[part], first[part]) << part;
}

TEST(FeederSim, TakesLargeHeadsAndLogsThem) {
  const TemporaryFolder folder;
  const Simulator sim{{"--log", folder.File("log"), "--symbols", "3000", "--gzip"}};
  const Json list = sim.Get("/cad/", {"-X", "POST"}).Parsed();
  std::string path = "/v1/markets/quotes?symbols=";
  for (std::size_t index = 0; path.size() < 124'000; ++index) {
    path += list[index % list.size()]["symbol"].get<std::string>() + ",";
  }
  // An argument of a program ends below 128 KB; the header fills the head up to it.
  const Answer answer = sim.Get(path, {"--compressed", "-H", "X-Filler: " + std::string(130'800 - path.size(), 'x')});
  EXPECT_EQ(answer.Parsed()["quotes"]["quote"].size(), list.size());
  EXPECT_EQ(sim.Get("/sim/state").Parsed()["symbols"].size(), list.size());

  const Answer posted = sim.Get("/gmt/", {"--data-raw", "a\n\"b\"", "-H", "X-Probe: 1"});
  EXPECT_EQ(posted.status, 200);
  const std::vector<Json> lines = LogLines(folder.File("log"));
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[1]["path"], path);
  const Json& last = lines.back();
  EXPECT_EQ(last["method"], "POST");
  EXPECT_EQ(last["path"], "/gmt/");
  EXPECT_EQ(last["headers"]["X-Probe"], "1");
  EXPECT_EQ(last["headers"]["Authorization"], "Bearer made-up");
  EXPECT_EQ(last["body"], "a\n\"b\"");
  EXPECT_EQ(last["status"], 200);
}

}  // namespace
}  // namespace quenmark::test
