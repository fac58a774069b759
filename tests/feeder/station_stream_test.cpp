#include "feeder/station_stream.h"

#include "tests/support/feeder_fixture.h"
#include "tests/support/http_server.h"

#include <algorithm>
#include <functional>
#include <string>

namespace quenmark::test {
namespace {

using namespace std::chrono_literals;

using StreamQuotes = FeederFixture;

TEST_F(StreamQuotes, GiveTheRecord) {
  constexpr const char* kBefore = "SPY-149-0.50-148-149.5-147-900-1-1-20260930162148";
  constexpr const char* kSameSecond = "SPY-149-0.50-148-149.5-147-900-1-1-20260930162149";
  constexpr const char* kInHundredths = "SPY-15025-0.00-148-15025-14700-900-1-1-20260930162148";
  constexpr const char* kLater = "SPY-149-0.50-148-149.5-147-900-1-1-20260930162150";
  const struct {
    const char *name, *stored, *close, *last, *written;
  } rows[] = {
      {"prices in hundredths", kBefore, "148", "150.25", "SPY-15025-1.52-148-15025-147-900-1-1-20260930162149"},
      {"low moves too", kBefore, "148", "146.5", "SPY-14650-m1.01-148-149.5-14650-900-1-1-20260930162149"},
      {"compared as they stand", kInHundredths, "148", "150.5",
       "SPY-15050-1.69-148-15025-15050-900-1-1-20260930162149"},
      {"same second is not written", kSameSecond, "148", "150.25", kSameSecond},
      {"no number keeps last and change", kLater, "148", "", kSameSecond},
      {"no number and no record", "", "148", "", ""},
      {"no previous close keeps the change", kBefore, "", "150", "SPY-15000-0.50-148-15000-147-900-1-1-20260930162149"},
      {"negative price", "", "148", "-1", ""},
  };
  for (const auto& row : rows) {
    SetFeeder("SPY", row.stored);
    SetFeeder("SPY-pc", row.close);
    feeder::WriteStreamQuote(context, row.last, "2026-09-30T16:21:49Z", "SPY");
    EXPECT_EQ(Feeder("SPY"), row.written) << row.name;
  }
}

// The branch against a scripted server.
class StationTick : public FeederFixture {
 protected:
  static constexpr const char* kStreamPath = "/v3/marketdata/stream/quotes/SPY";
  static constexpr const char* kObject =
      R"({"Symbol":"SPY","Last":"150.25","Ask":"150.3","AskSize":"4","Bid":"150.2","BidSize":"8",)"
      R"("TradeTime":"2026-09-30T20:21:49Z","MarketFlags":{"IsDelayed":false}})";

  StationTick() {
    context.providerName = "TradeStation";
    context.apiBase = server.Address("/v3/");
    context.accessToken = "token";
    server.Put("/v3/marketdata/symbols/SPY", {.body = R"({"Symbols":[{"Symbol":"SPY"}],"Errors":[]})"});
    server.Put("/v3/marketdata/quotes/SPY",
               {.body = R"({"Quotes":[{"Symbol":"SPY","Last":"149","Open":"148","High":"149.5","Low":"147",)"
                        R"("PreviousClose":"148","NetChangePct":"0.67","Volume":"900",)"
                        R"("TradeTime":"2026-09-30T20:21:48Z"}],"Errors":[]})"});
    server.Put(kStreamPath, {.body = kObject, .chunked = true});
    OpenChart("SPY");
  }

  void Tick() {
    open.Rebuild(context);
    stream.Tick();
  }
  std::string SessionId() { return store->GetSetting("Quenmark", "API", "SID"); }
  std::size_t Asked(const std::string& path) const {
    const auto seen = server.Seen();
    return static_cast<std::size_t>(
        std::count_if(seen.begin(), seen.end(), [&](const HttpSeen& one) { return one.target == path; }));
  }
  // One read that no tick or timer has begun.
  providers::HttpResult Read(
      int port, const std::string& path, const std::function<void()>& onQuote = [] {}) {
    providers::StreamTarget target;
    target.host = "127.0.0.1";
    target.port = port;
    target.secure = false;
    target.path = path;
    providers::StreamHooks hooks;
    hooks.symbolList = "\"SPY\",";
    hooks.onQuote = [&](const providers::StreamQuote&) { onQuote(); };
    hooks.onTimeUp = [this] { timeUp = true; };
    return StreamRequest(context, target, hooks);
  }

  HttpServer server;
  bool timeUp = false;
  providers::OpenSymbols open;
  std::string subscribed;
  platform::Timer restart{loop, 500ms, [this] { stream.Restart(); }};
  feeder::StationStream stream{context, open, subscribed, restart};
};

TEST_F(StationTick, SnapshotThenStream) {
  Tick();
  EXPECT_EQ(Feeder("SPY"), "SPY-15025-1.52-148-15025-147-900-1-1-20260930162149");
  EXPECT_EQ(Feeder("SPY-bid@ask"), "150.2|8@150.3|4");
  EXPECT_EQ(store->GetSetting("Dovecrest", "Feeder", "SPY"), "SPY-149-0.67-148-149.5-147-900-1-1-20260930162148");
  EXPECT_EQ(store->GetSetting("TradeStation", "Symbols", "SPY"), R"({"Symbol":"SPY"})");
  EXPECT_FALSE(restart.Enabled());  // the stream ended by itself
  const HttpSeen seen = server.Seen().back();
  EXPECT_EQ(seen.target, kStreamPath);
  EXPECT_EQ(seen.headers.at("authorization"), "Bearer token");
  EXPECT_EQ(seen.headers.at("content-type"), "application/vnd.tradestation.streams.v2+json");
  Tick();  // nothing changed: only the stream is opened again
  EXPECT_EQ(Asked("/v3/marketdata/quotes/SPY"), 1u);
  EXPECT_EQ(Asked(kStreamPath), 2u);
}

TEST_F(StationTick, EmptyListOpensNoStream) {
  providers::RemoveOpenChart(context, "SPY");
  Tick();
  EXPECT_TRUE(server.Seen().empty());
}

TEST_F(StationTick, LostStreamAsksForANewSessionAndGoesOn) {
  server.Put(kStreamPath, {.body = kObject, .chunked = true, .cutAfter = 200});
  Tick();
  EXPECT_EQ(SessionId(), "ask_new_session");
  EXPECT_NO_THROW(Tick());
}

TEST_F(StationTick, ReadTellsWhatCame) {
  const auto good = Read(server.Port(), kStreamPath);
  EXPECT_EQ(good.statusLine, "[200] Answer");
  EXPECT_EQ(std::string(good.body.begin(), good.body.end()), kObject);
  EXPECT_EQ(good.bodyLength, static_cast<std::int32_t>(good.body.size()));
  EXPECT_EQ(good.errorText, "");
  const auto missing = Read(server.Port(), "/nothing");
  EXPECT_EQ(missing.statusCode, 404);
  EXPECT_EQ(missing.errorText.substr(0, 23), "HTTP Error, Code: 404: ");
  EXPECT_NE(missing.errorText.find("(HTTPGetResponse(), Code: 800405DD)"), std::string::npos);
  EXPECT_EQ(Read(1, "/x").errorText, "Failed to send HTTP Request (HttpSendRequest(), Code: 800403EB)");
  EXPECT_EQ(Read(0, "/x").errorText, "Failed to open an Internet connection (ii) (InternetConnect(), Code: 800403E9)");
  EXPECT_EQ(Read(server.Port(), "x").errorText, "Failed to open HTTP request (HttpOpenRequest(), Code: 800403EA)");
}

TEST_F(StationTick, RestartReadsWithoutAStatusCheck) {
  Tick();
  restart.SetEnabled(true);
  server.Put(kStreamPath, {.status = 401, .body = "no"});
  EXPECT_NO_THROW(stream.Restart());
  EXPECT_EQ(SessionId(), "ask_new_session");
  EXPECT_FALSE(restart.Enabled());
}

TEST_F(StationTick, ReadOfATickFollowsTheRestartedRead) {
  Tick();
  std::size_t during = 0;
  const platform::WindowId window = loop.CreateHiddenWindow("tick", [&](const platform::Message&) {
    Tick();
    during = Asked(kStreamPath);
  });
  loop.Post({window, platform::kMessageUser});
  stream.Restart();
  EXPECT_GE(during, 1u);
  EXPECT_LE(during, 2u);
  EXPECT_EQ(Asked(kStreamPath), 3u);
}

TEST_F(StationTick, EndlessStreamIsLeftWhenItsTimeIsUp) {
  server.Put(kStreamPath, {.body = std::string(kObject) + "\n", .endless = true});
  std::size_t quotes = 0;
  const auto result = Read(server.Port(), kStreamPath, [&] {
    ++quotes;
    clock.Advance(1s);
  });
  EXPECT_TRUE(timeUp);
  EXPECT_GE(quotes, 5u);
  EXPECT_EQ(result.errorText, "");
}

TEST_F(StationTick, ChangedChartsEndTheRead) {
  server.Put(kStreamPath, {.body = std::string(kObject) + "\n", .endless = true});
  open.Rebuild(context);
  subscribed = open.Text();
  store->SaveSetting("TradeStation", "Symbols", "SPY", "{}");
  OpenChart("AAPL");
  stream.Tick();  // acts on the list that it was given; the store's list differs already
  EXPECT_FALSE(restart.Enabled());
  EXPECT_EQ(SessionId(), "");
}

}  // namespace
}  // namespace quenmark::test
