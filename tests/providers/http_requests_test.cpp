#include "providers/http_requests.h"

#include "platform/number_text.h"
#include "platform/run_time_error.h"
#include "tests/support/feeder_fixture.h"

#include <filesystem>
#include <fstream>

namespace quenmark::test {
namespace {

using namespace std::chrono_literals;
using providers::ApiRequest;

constexpr const char* kBars = R"({"series":{"data":[{"time":"2024-03-15T10:29:00","price":10.5,"volume":7}]}})";
constexpr const char* kBarsPath =
    "markets/timesales?symbol=aapl&interval=1min&start=2024-03-15 10:00&session_filter=all";
constexpr const char* kCacheKey = "markets/timesales?symbol=aapl&interval=1";

class Requests : public FeederFixture {
 protected:
  Requests() {
    context.apiBase = server.Address("/v1/");
    context.accessToken = "token";
  }
  HttpSeen Last() const { return server.Seen().back(); }
  std::string Cached(const std::string& prefix) { return store->GetSetting(kApp, "TIntra", prefix + kCacheKey); }

  HttpServer server;
};

TEST_F(Requests, GetCarriesTheTokenAndACacheBuster) {
  server.Put("/v1/markets/quotes", {.body = "answer"});
  for (const std::string asked : {"markets/quotes", "markets/quotes?symbols=A B"}) {
    std::string path = asked;
    EXPECT_EQ(ApiRequest(context, path), "answer");
    EXPECT_EQ(Last().method, "GET");
    EXPECT_EQ(Last().headers.at("accept"), "application/json");
    EXPECT_EQ(Last().headers.at("authorization"), "Bearer token");
    const std::string buster = (asked.find('?') == std::string::npos ? "?" : "&") + std::string("randombit=");
    ASSERT_TRUE(path.starts_with(asked + buster)) << path;
    const auto drawn = platform::ParseNumber(path.substr((asked + buster).size()));
    ASSERT_TRUE(drawn) << path;
    EXPECT_TRUE(*drawn >= 0 && *drawn < 1) << path;
  }
  EXPECT_TRUE(Last().target.starts_with("/v1/markets/quotes?symbols=A%20B&randombit=")) << Last().target;
  server.Put("/elsewhere", {.body = "there"});
  EXPECT_EQ(ApiRequest(context, server.Address("/elsewhere")), "there");
}

TEST_F(Requests, FailuresBecomeResults) {
  server.Put("/v1/denied", {.status = 401, .body = "no"});
  server.Put("/v1/cut", {.body = "0123456789", .cutAfter = 40});
  EXPECT_EQ(ApiRequest(context, "denied"), "not_auth401|no");
  EXPECT_EQ(ApiRequest(context, "missing").substr(0, 12), "not_auth404|");
  EXPECT_EQ(ApiRequest(context, "cut").substr(0, 10), "not_auth0|");
  for (const char* base : {"", "no address", "ftp://localhost/", "http://127.0.0.1:1/"}) {
    context.apiBase = base;
    EXPECT_EQ(ApiRequest(context, "x?secret=1").substr(0, 10), "not_auth0|") << base;
  }
}

TEST_F(Requests, SessionsAndBodiesArePosted) {
  server.Put("/v1/markets/events/session", {.body = "session"});
  server.Put("/v1/orders", {.body = "order"});
  EXPECT_EQ(ApiRequest(context, "markets/events/session"), "session");
  EXPECT_EQ(Last().method, "POST");
  EXPECT_EQ(Last().headers.at("content-length"), "0");
  EXPECT_EQ(ApiRequest(context, "orders", "side=buy"), "order");
  EXPECT_EQ(Last().body, "side=buy");
}

TEST_F(Requests, SandboxRefusesPostsWithoutSendingThem) {
  server.Put("/sandbox/v1/markets/quotes", {.body = "quotes"});
  context.apiBase = server.Address("/sandbox/v1/");
  for (const char* path : {"markets/events/session", "accounts/events/session"}) {
    EXPECT_EQ(ApiRequest(context, path), "not_auth000|not available in sandbox");
  }
  EXPECT_EQ(ApiRequest(context, "orders", "side=buy"), "not_auth000|not available in sandbox");
  EXPECT_TRUE(server.Seen().empty());
  EXPECT_EQ(ApiRequest(context, "markets/quotes"), "quotes");
}

TEST_F(Requests, MinuteBarsAreKeptForFifteenSecondsOfADay) {
  server.Put("/v1/markets/timesales", {.body = R"({"series":null})"});
  EXPECT_EQ(ApiRequest(context, kBarsPath), R"({"series":null})");
  EXPECT_EQ(Cached("Q-"), "");
  server.Put("/v1/markets/timesales", {.body = kBars});
  const auto asksAfter = [&](std::chrono::seconds time) {
    clock.JumpWall(time);
    const std::size_t before = server.Seen().size();
    EXPECT_EQ(ApiRequest(context, kBarsPath), kBars);
    return server.Seen().size() > before;
  };
  EXPECT_TRUE(asksAfter(0s));
  EXPECT_EQ(Cached("Q-T@"), "20240315037800");
  EXPECT_FALSE(asksAfter(14s));
  EXPECT_TRUE(asksAfter(1s));
  EXPECT_TRUE(asksAfter(13h + 29min + 40s));  // 23:59:55
  EXPECT_TRUE(asksAfter(10s));
}

TEST_F(Requests, TodaysFileOfTheSymbolGoesFirst) {
  std::filesystem::create_directory(folder.File("data"));
  server.Put("/v1/markets/timesales", {.body = "network"});
  constexpr const char* kRecord = R"("time":"100100","timestamp":0,"price":150.25,)";
  using Row = std::pair<const char*, const char*>;
  for (const auto& [text, result] :
       {Row{"1000|1|15000@1001|2|15025", kRecord}, Row{"1000|1|15000@1001|2|15025|9@", kRecord},
        Row{"1001|2|15025", kRecord}, Row{"no records", "network"}, Row{"1001|2", "not_auth0|Subscript out of range"},
        Row{"1001|2|price", "not_auth0|Type mismatch"}}) {
    std::ofstream(folder.File("data/AAPL_HJ_1")) << text;
    store->DeleteSection(kApp, "TIntra");
    EXPECT_EQ(ApiRequest(context, kBarsPath), result) << text;
  }
}

TEST_F(Requests, StationRequestEndsTheProgramOnAnyOtherStatus) {
  server.Put("/v1/empty", {.body = ""});
  server.Put("/v1/broken", {.status = 500, .body = "no"});
  EXPECT_EQ(providers::StationRequest(context, "empty"), "");
  EXPECT_EQ(Last().target, "/v1/empty");  // no cache-buster
  EXPECT_THROW(providers::StationRequest(context, "broken"), ProgramEnded);
  EXPECT_EQ(store->GetSetting("Quenmark", "API", "SID"), "ask_new_session");
  context.apiBase = "http://127.0.0.1:1/";
  EXPECT_THROW(providers::StationRequest(context, "x"), platform::RunTimeError);
}

TEST_F(Requests, VendorPostGoesOverTlsWhateverIsAsked) {
  HttpServer secure(HttpServer::Security::kTls);
  secure.Put("/gmt/", {.status = 500, .body = "TZM240|"});
  const auto trusting = TrustingClient(secure);
  providers::Context own = ContextOf(*trusting);
  std::string address = secure.Address("/gmt/");
  address.erase(address.find("https"), 5).insert(0, "http");
  EXPECT_EQ(providers::VendorPost(own, address, "one\r\ntwo"), "TZM240|");
  const HttpSeen seen = secure.Seen().back();
  EXPECT_EQ(seen.method, "POST");
  EXPECT_EQ(seen.headers.at("authorization"), "Basic one#|two");
  EXPECT_EQ(seen.headers.at("accept-encoding"), "compress, gzip");
  EXPECT_EQ(seen.headers.at("content-type"), "application/json; charset=UTF-8");
  // Nobody trusts this certificate here.
  EXPECT_EQ(providers::VendorPost(context, address, "@").substr(0, 4), "err-");
  EXPECT_EQ(providers::BuildUserAgent(), "test_providers/" QUENMARK_VERSION " (N; en-GB; DAEMON)");
}

}  // namespace
}  // namespace quenmark::test
