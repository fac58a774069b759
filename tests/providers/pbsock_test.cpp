#include "providers/pbsock.h"

#include "platform/run_time_error.h"
#include "tests/support/feeder_fixture.h"
#include "tests/support/plain_socket.h"
#include "tests/support/trusted_server.h"
#include "tls/certificate_services.h"

#include <fmt/format.h>
#include <sys/socket.h>

namespace quenmark::test {
namespace {

using providers::FormEncoded;
using providers::ParseRawAnswer;
using providers::PBsock;

TEST(FormEncoding, LeavesPairsApart) {
  EXPECT_EQ(FormEncoded("a=1&b=x y"), "a=1&b=x%20y");
  EXPECT_EQ(FormEncoded("%3D-_.~\u00E9\u20AC\n"), "%253D%2D%5F%2E%7E%E9%80%0A");
}

TEST(RawAnswers, StatusAndBody) {
  struct Case {
    std::string received;
    std::int32_t status;
    std::string body;
  };
  for (const Case& each :
       {Case{"HTTP/1.1 200 OK\r\nA: b\r\n\r\nbody", 200, "body"}, Case{"HTTP/1.1 404 Not Found\r\n\r\n", 404, ""},
        Case{"HTTP/1.0 200 OK\r\n\r\nbody", 0, "body"},
        Case{"HTTP/1.1 200\r\nA: b c\r\n\r\nbody", 200, "body"},  // no reason
        Case{"HTTP/1.1 abc OK\r\n\r\nx", 0, "x"}, Case{"HTTP/1.1 99999999999 OK\r\n\r\nx", 0, "x"},
        Case{"HTTP/1.1 200 OK\r\nA: b\r\n", 200, ""}, Case{"", 0, ""}}) {
    const auto answer = ParseRawAnswer(each.received);
    EXPECT_EQ(answer.statusCode, each.status) << each.received;
    EXPECT_EQ(answer.body, each.body) << each.received;
  }
}

class Requester : protected TrustedServer, public FeederFixture {
 protected:
  // The certificates of the test's server are made now, not when the test's clock stands.
  std::unique_ptr<PBsock> New(bool trusted = true) {
    auto services = trusted ? tls::MakeCertificateServices(loop, &now) : tls::MakeCertificateServices(loop);
    return std::make_unique<PBsock>(context, services, [this](std::int32_t& code, std::string& text) {
      ++closed;
      status = code;
      body = text;
      requester.reset();
    });
  }
  void Start(const std::string& address, bool trusted = true) {
    requester = New(trusted);
    requester->hOpen("GET", address);
    requester->setRequestHeader("X-Time", "10:30:00");
    requester->hSend();
  }
  // Starts a request and waits until it has arrived where it gets no answer.
  void StartInVain() {
    server.Put("/news/", {.after = "/never"});
    platform::Timer pump(loop, std::chrono::milliseconds{2}, [] {});
    pump.SetEnabled(true);
    Start(server.Address("/news/"));
    ASSERT_TRUE(Wait([this] { return server.Seen().size() == 1; }));
  }
  bool Wait(const std::function<bool()>& done) {
    return loop.WaitUntil(done, clock.Monotonic() + std::chrono::minutes{2});
  }
  bool Closed() {
    return Wait([this] { return closed > 0; });
  }

  platform::SystemClock now;
  std::unique_ptr<PBsock> requester;
  int closed = 0;
  std::int32_t status = -1;
  std::string body;
};

TEST_F(Requester, SendsOneRequestAndHandsOverTheAnswer) {
  server.Put("/news/", {.raw = "HTTP/1.1 200 OK\r\nA: b\r\n\r\n" + std::string(300'000, 'x') + "\xE9"});
  requester = New();
  requester->hOpen("POST", server.Address("/news/?id=7&t=a//b"));
  requester->setRequestHeader("X-Time", "10:30:00");
  EXPECT_THROW(requester->setRequestHeader("X-Bad", "a\r\nX-Worse: b"), platform::RunTimeError);
  requester->hSend("first");
  requester->hSend("a=1&b=x y");
  ASSERT_TRUE(Closed());
  EXPECT_EQ(status, 200);
  EXPECT_EQ(body, std::string(300'000, 'x') + "\u00E9");
  loop.Sleep(std::chrono::minutes{1});
  EXPECT_EQ(closed, 1);
  ASSERT_EQ(server.Seen().size(), 1u);
  const HttpSeen seen = server.Seen()[0];
  EXPECT_EQ(seen.method, "POST");
  EXPECT_EQ(seen.target, "/news/?id=7&t=a//b");
  EXPECT_EQ(seen.body, "a=1&b=x%20y");
  EXPECT_EQ(seen.headers, (std::map<std::string, std::string>{{"host", fmt::format("localhost:{}", server.Port())},
                                                              {"x-time", "10:30:00"},
                                                              {"content-length", "11"},
                                                              {"connection", "close"}}));
}

TEST_F(Requester, FallsBackWhenTheSocketFails) {
  server.Put("/news/", {.status = 201, .body = "by other means"});
  Start(server.Address("/news/?id=1"), false);  // the server is not trusted by the socket
  ASSERT_TRUE(Closed());
  EXPECT_EQ(status, 201);
  EXPECT_EQ(body, "by other means");
  ASSERT_EQ(server.Seen().size(), 1u);
  EXPECT_EQ(server.Seen()[0].target, "/news/?id=1");
  EXPECT_EQ(server.Seen()[0].headers.at("x-time"), "10");
  loop.Sleep(std::chrono::minutes{1});
  EXPECT_EQ(closed, 1);
}

TEST_F(Requester, FailuresOfTheFallbackAreStatusZero) {
  HttpServer plain;
  const Descriptor taken(PlainSocket(SOCK_STREAM));  // bound, but nobody listens
  for (const std::string& address : {fmt::format("https://localhost:{}/x", PortOf(taken)),
                                     fmt::format("https://127.0.0.1:{}/x", plain.Port()),  // no TLS
                                     std::string("https://localhost:0/x"), std::string("https://localhost:x/x"),
                                     std::string("https://no-slash"), std::string("nothing")}) {
    closed = 0;
    status = -1;
    Start(address);
    ASSERT_TRUE(Closed()) << address;
    EXPECT_EQ(status, 0) << address;
    EXPECT_EQ(body, "");
  }
}

TEST_F(Requester, NoAnswerWithinHalfAMinuteIsAnError) {
  StartInVain();
  clock.Advance(std::chrono::milliseconds{28'000});
  loop.RunQueued();
  EXPECT_EQ(closed, 0);
  EXPECT_EQ(server.Seen().size(), 1u);
  server.Put("/news/", {.body = "at last"});
  clock.Advance(std::chrono::milliseconds{2'001});
  ASSERT_TRUE(Closed());
  EXPECT_EQ(status, 200);
  EXPECT_EQ(body, "at last");
  EXPECT_EQ(closed, 1);
}

TEST_F(Requester, AnswersAreLimitedInSize) {
  store->SaveSetting("Quenmark", "Hosts", "AnswerLimit", "10000");
  server.Put("/news/", {.body = std::string(20'000, 'x'), .endless = true});
  Start(server.Address("/news/"));
  ASSERT_TRUE(Closed());
  EXPECT_EQ(status, 0);
  EXPECT_EQ(body, "");
}

TEST_F(Requester, DroppedAtAnyMomentItSaysNothing) {
  server.Put("/news/", {.raw = "HTTP/1.1 200 OK\r\n\r\nbody"});
  Start(server.Address("/news/"));
  requester.reset();  // before it begins
  loop.Sleep(std::chrono::milliseconds{10});
  EXPECT_TRUE(server.Seen().empty());
  StartInVain();
  requester.reset();  // while it waits
  loop.Sleep(std::chrono::minutes{1});
  EXPECT_EQ(closed, 0);
  EXPECT_EQ(server.Seen().size(), 1u);
}

}  // namespace
}  // namespace quenmark::test
