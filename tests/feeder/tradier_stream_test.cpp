// The live Tradier branch: the main form on a stream whose far end is the test, and a REST service that answers as
// told.
#include "feeder/main_form.h"
#include "tests/support/feeder_fixture.h"
#include "tests/support/http_server.h"
#include "tests/websocket/websocket_fixture.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

namespace quenmark::test {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* kSessionPath = "/v1/markets/events/session";
constexpr const char* kQuotesPath = "/v1/markets/quotes";
constexpr const char* kBar =
    R"({"series":{"data":{"time":"2024-03-15T10:29:00","open":10,"high":12,"low":9.5,"close":11,"volume":700,"vwap":1}}})";

constexpr const char* kSnapshot =
    R"({"quotes":{"quote":{"symbol":"AMZN","last":463.37,"change_percentage":-1.234,"volume":812,)"
    R"("trade_date":1710513000000,"open":465.0,"high":466.2,"low":460.01,"prevclose":469.16}}})";

class LiveForm : public FeederFixture {
 protected:
  LiveForm() {
    for (const auto& [key, value] : {std::pair{"name", "Tradier"}, {"#", "1"}, {"t", "c2VjcmV0"}, {"q", "dG9rZW4="}}) {
      store->SaveSetting("Quenmark", "API", key, value);
    }
    store->SaveSetting("Quenmark", "API", "EP", server.Address("/v1/"));
    store->SaveSetting("Quenmark", "Hosts", "Stream", "wss://stream.test/v1/markets/events");
    for (const char* symbol : {"AAPL", "MSFT", "QQQ"}) Describe(symbol);
    server.Put(kQuotesPath, {.body = R"({"quotes":{"quote":null}})"});
    server.Put(kSessionPath, {.body = R"({"stream":{"url":"x","sessionid":"id-1"}})"});
  }

  void Start() {
    websocket::WebsocketServices services;
    services.makeTransport = [this](std::weak_ptr<websocket::TransportEvents> events) {
      wires.push_back(std::make_shared<MemoryTransport>(std::move(events)));
      return wires.back();
    };
    services.random = [](std::span<std::uint8_t> out) { std::fill(out.begin(), out.end(), std::uint8_t{0x55}); };
    services.sha1 = Sha1Digest;
    form = std::make_unique<feeder::frmPBF>(context, std::move(services));
    form->Form_Load();
  }
  MemoryTransport& Wire() { return *wires.back(); }
  void Open() {
    Wire().Establish();
    const std::string request = Wire().TakeSent();
    const std::size_t start = request.find("Sec-WebSocket-Key: ") + 19;
    const std::string key = request.substr(start, request.find("\r\n", start) - start);
    Wire().Deliver(
        "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: " +
        platform::EncodeBase64(Sha1Digest(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11")) + "\r\n\r\n");
  }
  void StartOpen() {
    Start();
    Open();
    Tick();
  }
  void Tick() { form->Timer1_Timer(); }
  void Lose(std::int32_t error) {
    Wire().Raise([&](auto& events) { events.OnError(error, 1); });
  }
  void Event(const std::string& text) { Wire().Deliver(ServerFrame(0x81, text)); }
  std::vector<SentFrame> Sent() { return DecodeClientFrames(Wire().TakeSent()); }
  std::vector<std::string> Asked(const std::string& part) {
    std::vector<std::string> found;
    for (const HttpSeen& request : server.Seen()) {
      if (request.target.find(part) != std::string::npos) found.push_back(request.method + " " + request.target);
    }
    return found;
  }
  std::string SessionId() { return store->GetSetting("Quenmark", "API", "SID"); }
  static SentFrame Subscription(const std::string& symbols, const std::string& id) {
    return {0x81, R"({"symbols": [)" + symbols + R"(], "sessionid": ")" + id + R"(", "linebreak": true})", {}};
  }

  HttpServer server;
  std::vector<std::shared_ptr<MemoryTransport>> wires;
  std::unique_ptr<feeder::frmPBF> form;
};

TEST_F(LiveForm, ConnectsSubscribesAndFollowsTheCharts) {
  OpenChart("AAPL");
  const auto hosts = std::exchange(processes.running, {});
  Start();  // nor does it look for a host process
  processes.running = hosts;
  EXPECT_EQ(Wire().host, "stream.test");
  EXPECT_EQ(Wire().port, 443);
  EXPECT_TRUE(Wire().tls);
  EXPECT_THAT(Asked("/v1/"), IsEmpty()) << "a tick that begins to connect does nothing else";

  Wire().Establish();
  const std::string request = Wire().TakeSent();
  EXPECT_THAT(request, HasSubstr("GET /v1/markets/events HTTP/1.1\r\n"));
  EXPECT_THAT(request, ::testing::Not(HasSubstr("Extensions")));
  const MemoryTransport* const first = &Wire();
  Tick();  // still connecting: starts over
  EXPECT_NE(&Wire(), first);
  Open();
  Tick();
  EXPECT_THAT(Sent(), ElementsAre(Subscription(R"("AAPL")", "id-1")));
  EXPECT_EQ(SessionId(), "id-1");
  EXPECT_THAT(Asked("quotes"), ElementsAre(HasSubstr("GET /v1/markets/quotes?symbols=AAPL&greeks=false")));
  EXPECT_THAT(Asked("session"), ElementsAre(HasSubstr("POST")));

  Tick();
  EXPECT_THAT(Sent(), IsEmpty());
  OpenChart("MSFT");
  Tick();
  EXPECT_THAT(Sent(), ElementsAre(Subscription(R"("AAPL","MSFT")", "id-1")));
  EXPECT_THAT(Asked("quotes").back(), HasSubstr("symbols=AAPL,MSFT&"));
  EXPECT_EQ(Asked("session").size(), 1U);
  store->DeleteSection(kApp, "GrafAbertPapel");
  Tick();
  EXPECT_THAT(Sent(), IsEmpty()) << "no chart, no subscription";
  EXPECT_EQ(Asked("quotes").size(), 2U);
}

TEST_F(LiveForm, EventsReachTheStoreAndOtherMessagesDoNot) {
  OpenChart("QQQ");
  StartOpen();
  const std::string trade = R"({"type":"timesale","symbol":"QQQ","last":"313.06","size":"110","date":"1609447718210"})";
  Wire().Deliver(ServerFrame(0x82, trade));
  EXPECT_EQ(Feeder("QQQ"), "") << "binary";
  Event(trade);
  EXPECT_EQ(Feeder("QQQ"), "QQQ-313.06---313.06--110-1-1-20201231164838");
}

// Events go on while a snapshot is under way, and what is older of the two does not replace what is newer.
TEST_F(LiveForm, ASnapshotRacesWithEvents) {
  Describe("AMZN");
  for (const auto& [date, record] :
       {std::pair{"1710512999000", "AMZN-463.37-m1.23-465-466.2-460.01-812-1-1-20240315103000"},
        std::pair{"1710513001000", "AMZN-470-0.18-465-470-460.01-813-1-1-20240315103001"}}) {
    for (const char* section : {"Feeder", "GrafAbertPapel"}) store->DeleteSection(kApp, section);
    server.Put(kQuotesPath, {.body = kSnapshot});
    OpenChart("AMZN");
    StartOpen();
    server.Put(kQuotesPath, {.body = kSnapshot, .delay = 30ms});
    const std::string trade =
        fmt::format(R"({{"type":"timesale","symbol":"AMZN","last":"470","size":"1","date":"{}"}})", date);
    [[maybe_unused]] const auto call = loop.CallAt(0, clock.Monotonic(), [&] { Event(trade); });
    OpenChart("MSFT");
    Tick();
    EXPECT_EQ(Feeder("AMZN"), record);
  }
}

TEST_F(LiveForm, AStoredSessionIsUsedUnlessItIsMarked) {
  OpenChart("AAPL");
  store->SaveSetting("Quenmark", "API", "SID", "kept");
  StartOpen();
  EXPECT_THAT(Sent(), ElementsAre(Subscription(R"("AAPL")", "kept")));
  EXPECT_THAT(Asked("session"), IsEmpty());

  store->SaveSetting("Quenmark", "API", "SID", "ask_new_session");
  OpenChart("MSFT");
  Tick();
  EXPECT_THAT(Sent(), ElementsAre(Subscription(R"("AAPL","MSFT")", "id-1")));
}

TEST_F(LiveForm, AnUnknownSessionIsReplacedOnceAndUsedAtTheNextChange) {
  OpenChart("AAPL");
  store->SaveSetting("Quenmark", "API", "SID", "old");
  StartOpen();
  Sent();
  // While the new one is asked for, the message comes once more and ticks come due.
  server.Put(kSessionPath, {.body = R"({"sessionid":"id-2"})", .delay = 30ms});
  [[maybe_unused]] const auto call =
      loop.CallAt(0, clock.Monotonic(), [&] { Event(R"({"error":"session not found"})"); });
  Event(R"({"error":"session not found"})");
  EXPECT_EQ(SessionId(), "id-2");
  EXPECT_EQ(Asked("session").size(), 1U);
  Tick();
  EXPECT_THAT(Sent(), IsEmpty());
  OpenChart("MSFT");
  Tick();
  EXPECT_THAT(Sent(), ElementsAre(Subscription(R"("AAPL","MSFT")", "id-2")));
}

TEST_F(LiveForm, WithoutASessionTheProgramEnds) {
  OpenChart("AAPL");
  for (const char* answer : {"", R"({"sessionid":""})", R"({"fault":"no"})"}) {
    server.Put(kSessionPath, {.body = answer});
    store->DeleteSetting("Quenmark", "API", "SID");
    EXPECT_THROW(StartOpen(), ProgramEnded) << answer;
  }
  // What the server says beside a refusal is no answer.
  server.Put(kSessionPath, {.status = 500, .body = R"({"sessionid":"id"})"});
  EXPECT_THROW(StartOpen(), ProgramEnded);
  EXPECT_EQ(SessionId(), "");

  store->SaveSetting("Quenmark", "API", "SID", "old");
  StartOpen();
  EXPECT_THROW(Event("session not found"), ProgramEnded);
  EXPECT_EQ(SessionId(), "ask_new_session");
}

TEST_F(LiveForm, RefusedSymbolsLeaveTheCharts) {
  for (const char* symbol : {"AAPL", "MSFT", "sessionid"}) OpenChart(symbol);
  Describe("sessionid");
  StartOpen();
  const auto charts = [&] { return store->GetAllSettings(kApp, "GrafAbertPapel").size(); };
  for (const char* unrelated : {R"({"error":"SessionID is odd"})", R"({"error":""})", R"({"error":"AAPL"})"}) {
    Event(unrelated);
    EXPECT_EQ(charts(), 3U) << unrelated;
  }
  Event(R"({"error":"aapl is not a valid symbol"})");
  EXPECT_EQ(charts(), 2U);
  Sent();
  Tick();
  EXPECT_THAT(Sent(), ElementsAre(Subscription(R"("MSFT","sessionid")", "id-1")));
}

TEST_F(LiveForm, ALostConnectionIsOpenedAndSubscribedAgain) {
  OpenChart("AAPL");
  Start();
  for (const std::int32_t error : {10061, 11001, 10060, 10054}) {  // while it connects, then once it is open
    const MemoryTransport* const last = &Wire();
    Lose(error);
    Tick();
    ASSERT_NE(&Wire(), last) << error;
    Open();
    Tick();
    EXPECT_THAT(Sent(), ElementsAre(Subscription(R"("AAPL")", "id-1"))) << error;
  }
}

TEST_F(LiveForm, AConnectionLostWithinATickArmsTheDelayedExit) {
  // How the minute goes on after the loss.
  enum class Then { kInVain, kSubscribed, kNothingToSubscribe };
  for (const Then then : {Then::kSubscribed, Then::kNothingToSubscribe, Then::kInVain}) {
    OpenChart("AAPL");
    StartOpen();
    OpenChart("MSFT");
    store->SaveSetting("Quenmark", "QX", "QXPapeis", "MSFT");
    store->SaveSetting("Quenmark", "QX", "HrLM", "2024-03-15 10:30:00");
    // The bars for the sibling tool are asked for before the charts are compared.
    server.Put("/v1/markets/timesales", {.body = kBar, .delay = 30ms});
    [[maybe_unused]] const auto call = loop.CallAt(0, clock.Monotonic(), [&] { Lose(10054); });
    Tick();
    Sent();
    EXPECT_EQ(store->GetSetting("Quenmark", "QX", "QXPapResp"), "@!@MSFT-1029-10-12-9.5-11-700-1-1| 20240315103350");
    store->DeleteSetting("Quenmark", "QX", "QXPapeis");
    if (then == Then::kInVain) {
      EXPECT_THROW(loop.Sleep(61s), ProgramEnded);
      continue;
    }
    loop.Sleep(30s);
    if (then == Then::kNothingToSubscribe) store->DeleteSection(kApp, "GrafAbertPapel");
    Open();
    Tick();
    EXPECT_EQ(Sent().size(), then == Then::kSubscribed ? 1U : 0U);
    EXPECT_NO_THROW(loop.Sleep(61s));
  }
}

}  // namespace
}  // namespace quenmark::test
