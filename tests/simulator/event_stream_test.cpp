#include "simulator/event_stream.h"

#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <map>
#include <set>
#include <sstream>

namespace quenmark::simulator {
namespace {

using Json = nlohmann::ordered_json;

// Streams on a market of its own with a fixed clock.
struct Desk {
  explicit Desk(const EventOptions& options = {}, Session session = Session::kOpen)
      : market({1, 10, session, 1'751'376'600}), shared(market, options) {}

  std::string Subscription(const std::string& symbols, const std::string& session = "") {
    const std::string id = session.empty() ? shared.sessions.Issue("user", market.Now()) : session;
    return R"({"symbols": [)" + symbols + R"(], "sessionid": ")" + id + R"(", "linebreak": true})";
  }

  Market market;
  EventShared shared;
};

std::vector<Json> Events(EventStream& stream, int messages) {
  std::vector<Json> events;
  for (int message = 0; message < messages; ++message) {
    std::string text;
    stream.AppendMessage(text);
    EXPECT_EQ(text.back(), '\n');
    std::istringstream lines{text};
    for (std::string line; std::getline(lines, line);) events.push_back(Json::parse(line));
  }
  return events;
}

std::vector<std::string> Names(const Json& object) {
  std::vector<std::string> names;
  for (const auto& [name, value] : object.items()) names.push_back(name);
  return names;
}

TEST(EventStream, EventsHaveTheirShapesAndFollowTheMarket) {
  const std::map<std::string, std::vector<std::string>> shapes{
      {"quote", {"type", "symbol", "bid", "bidsz", "bidexch", "biddate", "ask", "asksz", "askexch", "askdate"}},
      {"trade", {"type", "symbol", "exch", "price", "size", "cvol", "date", "last"}},
      {"summary", {"type", "symbol", "open", "high", "low", "prevClose"}},
      {"timesale",
       {"type", "symbol", "exch", "bid", "ask", "last", "size", "date", "seq", "flag", "cancel", "correction",
        "session"}}};
  Desk desk;
  EventStream stream{desk.shared, {}};
  stream.Receive(desk.Subscription(R"("AAPL","spy")"));
  std::map<std::string, int> kinds;
  std::int64_t sequence = 0;
  std::int64_t time = 0;
  for (int count = 0; count < 1000; ++count) {
    const Json event = Events(stream, 1).at(0);
    const std::string type = event["type"];
    ++kinds[type];
    ASSERT_EQ(Names(event), shapes.at(type));
    const Stock& stock = *desk.market.Find(event["symbol"].get<std::string>());
    if (type == "quote") {
      EXPECT_EQ(std::llround(event["bid"].get<double>() * 100), stock.bid);
      EXPECT_EQ(std::llround(event["ask"].get<double>() * 100), stock.ask);
      EXPECT_EQ(event["asksz"], stock.askSize);
    } else if (type == "timesale") {
      EXPECT_EQ(std::llround(std::stod(event["last"].get<std::string>()) * 100), stock.last);
      EXPECT_EQ(event["size"], std::to_string(stock.lastVolume));
      EXPECT_EQ(event["date"], std::to_string(stock.tradeTime));
      EXPECT_GT(event["seq"], std::exchange(sequence, event["seq"].get<std::int64_t>()));
      EXPECT_GE(stock.tradeTime, std::exchange(time, stock.tradeTime));
    } else if (type == "summary") {
      EXPECT_EQ(std::llround(std::stod(event["high"].get<std::string>()) * 100), stock.high);
    }
  }
  for (const auto& [type, names] : shapes) EXPECT_GT(kinds[type], 20) << type;
  EXPECT_GT(kinds["quote"], 400);
  EXPECT_EQ(desk.market.Now(), 1'751'376'600'000 + 1000 * 50) << "the market's clock follows the rate";
}

TEST(EventStream, OptionsShapeMessages) {
  EventOptions options;
  options.batch = 4;
  options.events = 10;
  options.kinds = {EventKind::kTimesale};
  options.step = std::chrono::seconds{1};
  options.latency = true;
  Desk desk{options};
  EventStream stream{desk.shared, {}};
  EXPECT_FALSE(stream.Running());
  stream.Receive(desk.Subscription(R"("AAPL")"));
  desk.market.Hold(true);
  EXPECT_FALSE(stream.Running());
  desk.market.Hold(false);
  stream.ReadClocks();
  std::vector<std::size_t> sizes;
  std::set<std::string> seconds;
  while (stream.Running()) {
    const std::vector<Json> events = Events(stream, 1);
    sizes.push_back(events.size());
    for (const Json& event : events) {
      if (event["type"] == "timesale") {
        seconds.insert(event["date"]);
        EXPECT_EQ(event["last"].get<std::string>().size(), 17U) << "seconds and microseconds";
      } else {
        EXPECT_EQ(event["bidsz"], event["asksz"]) << "a step without trade can only be told by a quote";
        EXPECT_GT(event["bidsz"], 1'600'000'000'000'000);
      }
    }
  }
  EXPECT_EQ(sizes, (std::vector<std::size_t>{4, 4, 2}));
  EXPECT_GE(seconds.size(), 6U);
}

TEST(EventStream, SubscriptionsNeedASession) {
  EventOptions options;
  options.sessionLife = std::chrono::seconds{300};
  Desk desk{options};
  EventStream stream{desk.shared, {}};
  EventStream second{desk.shared, {}};
  const std::string id = desk.shared.sessions.Issue("user", desk.market.Now());
  const std::string notFound = R"({"error":"session not found"})";

  struct Row {
    EventStream& stream;
    std::string message;
    std::vector<std::string> replies;
    bool runs;
  };
  for (const Row& row : {Row{stream, "no json", {R"({"error":"invalid subscription"})"}, false},
                         Row{stream, R"({"symbols":["AAPL"]})", {R"({"error":"invalid subscription"})"}, false},
                         Row{stream, desk.Subscription(R"("AAPL")", "unknown"), {notFound}, false},
                         Row{stream, desk.Subscription(R"("AAPL")", id), {}, true},
                         Row{second, desk.Subscription(R"("AAPL")", id), {notFound}, false},
                         Row{stream,
                             desk.Subscription(R"("A B","AAPL","1234")", id),
                             {R"({"error":"A B is not a valid symbol"})", R"({"error":"1234 is not a valid symbol"})"},
                             true},
                         Row{stream, desk.Subscription("", id), {}, false}}) {
    row.stream.Receive(row.message);
    std::vector<std::string> replies;
    while (const auto reply = row.stream.TakeWaiting()) replies.push_back(*reply);
    EXPECT_EQ(replies, row.replies) << row.message;
    EXPECT_EQ(row.stream.Running(), row.runs) << row.message;
  }

  stream.Close("test");
  desk.market.Pass(std::chrono::seconds{299});
  second.Receive(desk.Subscription(R"("AAPL")", id));
  EXPECT_TRUE(second.Running()) << "an id outlives its stream for a while";
  second.Close("test");
  desk.market.Pass(std::chrono::seconds{300});
  EventStream third{desk.shared, {}};
  third.Receive(desk.Subscription(R"("AAPL")", id));
  EXPECT_EQ(third.TakeWaiting(), notFound) << "expired";
  const std::string first = desk.shared.sessions.Issue("user", desk.market.Now());
  const std::string newer = desk.shared.sessions.Issue("user", desk.market.Now());
  third.Receive(desk.Subscription(R"("AAPL")", first));
  EXPECT_EQ(third.TakeWaiting(), notFound) << "a user has one session";
  third.Receive(desk.Subscription(R"("AAPL")", newer));
  EXPECT_TRUE(third.Running());
  desk.shared.ExpireSessions();
  EXPECT_EQ(third.TakeWaiting(), notFound);
  EXPECT_FALSE(third.Running());
  third.Close("test");
  EXPECT_EQ(desk.shared.counts.open, 0);
}

TEST(EventStream, TellsWhatTheSessionTrades) {
  for (const auto& [session, text] : {std::pair{Session::kPre, "pre"}, {Session::kPost, "post"}}) {
    Desk desk{{}, session};
    EventStream stream{desk.shared, {}};
    stream.Receive(desk.Subscription(R"("AAPL")"));
    int timesales = 0;
    for (const Json& event : Events(stream, 200)) {
      if (session == Session::kPre) {
        EXPECT_NE(event["type"], "summary");
      }
      if (event["type"] != "timesale") continue;
      ++timesales;
      EXPECT_EQ(event["session"], text);
      EXPECT_NE(event["size"], "0");
    }
    EXPECT_GT(timesales, 5);
  }
  Desk desk{{}, Session::kClosed};
  EventStream stream{desk.shared, {}};
  stream.Receive(desk.Subscription(R"("AAPL")"));
  EXPECT_FALSE(stream.Running());
}

TEST(EventStream, ASetPriceIsTheNextTimesale) {
  Desk desk;
  EventStream stream{desk.shared, {}};
  stream.Receive(desk.Subscription(R"("AAPL")"));
  ASSERT_TRUE(desk.market.SetPrice("AAPL", 123'45));
  const Json event = Events(stream, 1).at(0);
  EXPECT_EQ(event["type"], "timesale");
  EXPECT_EQ(event["last"], "123.45");
}

}  // namespace
}  // namespace quenmark::simulator
