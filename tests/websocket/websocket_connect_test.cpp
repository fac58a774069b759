// Connecting, the handshake, redirects, closing, and what handlers may do meanwhile.
#include "tests/websocket/websocket_fixture.h"
#include "websocket/limits.h"

namespace quenmark::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class WebsocketConnect : public WebsocketFixture {
 protected:
  void ExpectEnded() {
    EXPECT_EQ(socket->readyState(), 0);
    EXPECT_FALSE(Wire().hasSocket);
    onEvent = nullptr;
  }
};

const std::string kBadAddress = "Invalid Connection Data or URL Parsing Error.";

TEST_F(WebsocketConnect, BecomesOpen) {
  EXPECT_EQ(socket->readyState(), 0);
  EXPECT_EQ(socket->ChunkSize(), 4096);
  EXPECT_FALSE(socket->UseCompression());
  const std::string headers[] = {"X-One: 1", "X-Two: 2"};
  socket->Connect("wss://host/p", " 444 ", " a ,b", "", headers);
  EXPECT_EQ(socket->readyState(), 2);
  EXPECT_EQ(socket->Status().text, "Connecting...");
  EXPECT_EQ(wires.size(), 2u);
  EXPECT_EQ(Wire().host, "host");
  EXPECT_EQ(Wire().port, 444);
  EXPECT_TRUE(Wire().tls);
  EXPECT_EQ(Wire().features, 15u);
  Wire().Raise([](auto& events) { events.OnResolve("192.0.2.1"); });
  Wire().Establish();
  const std::string request = Wire().TakeSent();
  EXPECT_THAT(request, HasSubstr("Host: host\r\n"));
  EXPECT_THAT(request, HasSubstr("\r\nX-One: 1\r\nX-Two: 2\r\nOrigin: https://host/p\r\n"));
  EXPECT_THAT(request, HasSubstr("Sec-WebSocket-Protocol: a, b\r\n"));
  EXPECT_THAT(request, Not(HasSubstr("xtensions")));
  Wire().Deliver(UpgradeAnswer(request, "Sec-WebSocket-Protocol: b\r\n") + ServerFrame(0x81, "at once"));
  EXPECT_THAT(log, ElementsAre("connect host 192.0.2.1 444", "message 1 at once"));
  EXPECT_EQ(socket->readyState(), 1);
  EXPECT_EQ(socket->Protocols(), "b");
  EXPECT_EQ(socket->Status().text, "Connected!");
}

TEST_F(WebsocketConnect, NoConnection) {
  socket->Connect("ws://h", "8080", "p", "e");
  refuseConnects = true;
  socket->Connect("ws://host/", "", "p");
  EXPECT_THAT(log, ElementsAre("error 1011 " + kBadAddress, "error 1011 Unable to connect."));
  EXPECT_EQ(socket->readyState(), 0);
  EXPECT_EQ(socket->Protocols(), "");
  EXPECT_EQ(socket->Status().text, "Error");
  EXPECT_EQ(wires.size(), 2u);
}

TEST_F(WebsocketConnect, ReConnectKeepsWhatConnectWasGiven) {
  const std::string headers[] = {"X-One: 1"};
  socket->Connect("ws://host:8080/p?q=1", "", "proto", "", headers);
  socket->ReConnect("wss://other/n");
  EXPECT_EQ(Wire().host, "other");
  EXPECT_EQ(Wire().port, 8080);
  EXPECT_TRUE(Wire().tls);
  Wire().Establish();
  const std::string request = Wire().TakeSent();
  EXPECT_THAT(request, HasSubstr("GET /n HTTP/1.1\r\nHost: other\r\n"));
  EXPECT_THAT(request, HasSubstr("X-One: 1\r\nOrigin: https://other/n\r\n"));
  EXPECT_THAT(request, HasSubstr("Sec-WebSocket-Protocol: proto\r\n"));
  socket->ReConnect();
  Wire().Establish();
  const std::string second = Wire().TakeSent();
  EXPECT_THAT(second, HasSubstr("GET /n HTTP/1.1\r\n"));
  EXPECT_NE(second, request);  // the key is its own
  socket->ReConnect("http://x/y");
  EXPECT_THAT(log, ElementsAre("error 1011 " + kBadAddress + " (http://x/y)"));
  socket->ReConnect();
  EXPECT_EQ(log.back(), "error 1011 Unable to connect.");
}

TEST_F(WebsocketConnect, RequestThatCannotBeSent) {
  socket->Connect("ws://host/");
  Wire().refusesSends = true;
  Wire().Establish();
  EXPECT_THAT(log, ElementsAre("error 1011 Couldnt send handshake to server."));
  EXPECT_EQ(socket->readyState(), 3);
}

TEST_F(WebsocketConnect, CompressionIsOfferedAndMissed) {
  socket->SetUseCompression(true);
  socket->Connect("ws://host/", "", "", "x-foo");
  Wire().Establish();
  const std::string request = Wire().TakeSent();
  EXPECT_THAT(request,
              HasSubstr("Sec-Websocket-Extensions: x-foo, permessage-deflate; server_no_context_takeover\r\n"));
  onEvent = [&, once = true](const std::string&) mutable {  // what comes meanwhile is no answer
    if (std::exchange(once, false)) Wire().Deliver(ServerFrame(0x81, "meanwhile"));
  };
  Wire().Deliver(UpgradeAnswer(request, "Sec-WebSocket-Extensions: x-foo\r\n"));
  EXPECT_THAT(log,
              ElementsAre("error 1010 The server does not support deflate compression. Data will be sent uncompressed.",
                          "connect host  80", "message 1 meanwhile"));
  EXPECT_FALSE(socket->UseCompression());
  EXPECT_EQ(socket->Extensions(), "x-foo");
  socket->Send("hi");
  EXPECT_THAT(Sent(), ElementsAre(SentFrame{0x81, "hi"}));
}

TEST_F(WebsocketConnect, AnswersThatFail) {
  const struct {
    std::string answer;
    std::vector<std::string> events;
    std::int32_t state;
    bool sendsClose;
  } rows[] = {
      {"HTTP/1.1 10", {"error 1007 Cannot connect! Incoming Header Data Corrupted. Please try again."}, 0, false},
      {"H", {}, 2, false},
      {"nothing of HTTP\r\n\r\n", {}, 2, false},
      {"no line end here\n\n", {"error 1007 Invalid Data was Received."}, 3, true},
      {"HTTP/1.1 404 No\r\n\r\n", {"error 1002 404: Resource Not Found."}, 3, true},
      {"HTTP/1.1 305 No\r\n\r\n",
       {"close 1014 The server requires a proxy but the configuration is incorrect."},
       3,
       true},
      {"HTTP/1.1 302 No\r\nLocation: /a\r\n\r\n",
       {"error 1014 A redirect by the server could not be processed."},
       0,
       false},
      {"HTTP/1.1 101 x\r\n\r\n", {"error 1002 Invalid handshake recieved. Upgrade header not present."}, 0, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.answer);
    socket->Connect("ws://host/");
    Wire().Establish();
    Wire().TakeSent();
    log.clear();
    Wire().Deliver(row.answer);
    EXPECT_EQ(log, row.events);
    EXPECT_EQ(socket->readyState(), row.state);
    EXPECT_EQ(Sent(), std::vector<SentFrame>(row.sendsClose ? 1 : 0, SentFrame{0x88, ""}));
    EXPECT_EQ(Wire().closed, row.state == 0);
  }
}

TEST_F(WebsocketConnect, RedirectsAreFollowedTenTimes) {
  socket->Connect("ws://host/");
  for (int i = 0; i <= websocket::kMaxRedirects; ++i) {
    Wire().Establish();
    const auto old = wires.back();
    old->Deliver(fmt::format("HTTP/1.1 302 Found\r\nLocation: https://h{}/n\r\n\r\n", i));
    if (i == websocket::kMaxRedirects) break;
    EXPECT_EQ(log.back(), fmt::format("reconnect wss://h{}/n", i));
    EXPECT_EQ(socket->readyState(), 2);
    EXPECT_EQ(Wire().host, fmt::format("h{}", i));
    EXPECT_NE(old, wires.back());
    EXPECT_THAT(old->calls, ElementsAre("Close_", "CloseSocket"));
  }
  EXPECT_EQ(log.size(), 11u);
  EXPECT_EQ(log.back(), "error 1014 A redirect by the server could not be processed.");
  EXPECT_EQ(socket->readyState(), 0);
  socket->Connect("ws://host/");  // counts from the start again
  Wire().Establish();
  Wire().Deliver("HTTP/1.1 302 Found\r\nLocation: ws://again/n\r\n\r\n");
  EXPECT_EQ(log.back(), "reconnect ws://again/n");
}

TEST_F(WebsocketConnect, SocketErrors) {
  const struct {
    std::int32_t mask;
    std::string text;
  } rows[] = {{1, "Recieve/Read"}, {2, "Send/Write"}, {4, "OOB Out-Of-Band"}, {8, "Accept"},
              {16, "Connect"},     {32, "Close"},     {63, "Unknown/All"},    {32768, "Unknown (32768)"}};
  for (const auto& row : rows) {
    Open();
    Wire().Raise([&](auto& events) { events.OnError(10061, row.mask); });
    EXPECT_THAT(log, ElementsAre("error 1016 Event Type: " + row.text + " 10061:  Description: Connection refused."));
    EXPECT_EQ(socket->readyState(), 3);
    EXPECT_THAT(Sent(), ElementsAre(SentFrame{0x88, ""}));
  }
  Open();
  Wire().closed = true;
  Wire().Raise([](auto& events) { events.OnError(1, 16); });
  EXPECT_EQ(socket->readyState(), 0);
}

// The error that sending the close frame raises does not start another one.
TEST_F(WebsocketConnect, AnErrorWithinClosingClosesTheSocket) {
  Open();
  Wire().onSend = [this] { Wire().Raise([](auto& events) { events.OnError(10054, 2); }); };
  socket->Disconnect();
  EXPECT_EQ(log.size(), 1u);
  EXPECT_EQ(socket->readyState(), 0);
}

TEST_F(WebsocketConnect, EndsOfAConnection) {
  const std::string closed = "close 1000 Normal Closure.";
  const struct {
    std::function<void()> end;
    Log events;
    std::size_t closeFrames;
    std::int32_t state;
  } rows[] = {
      {[this] { socket->Disconnect(); }, {}, 1, 3},
      {[this] {
         socket->Disconnect();
         socket->Disconnect();
       },
       {},
       2,
       0},
      {[this] {
         Wire().closed = true;  // the socket is still there
         socket->Disconnect();
       },
       {closed},
       0,
       0},
      {[this] { Wire().Raise([](auto& events) { events.OnClose(); }); }, {closed}, 0, 0},
      {[this] { socket->ShutDown(); }, {}, 0, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    Open("Sec-WebSocket-Protocol: p\r\n");
    row.end();
    EXPECT_EQ(log, row.events);
    EXPECT_EQ(Sent(), std::vector<SentFrame>(row.closeFrames, SentFrame{0x88, ""}));
    EXPECT_EQ(socket->readyState(), row.state);
    EXPECT_EQ(Wire().calls, row.state == 0 ? (Log{"Close_", "ShutDown", "CloseSocket"}) : Log());
  }
  EXPECT_EQ(socket->Protocols(), "");  // after a ShutDown
}

TEST_F(WebsocketConnect, ADisconnectWhileConnectingSendsNoRequest) {
  socket->Connect("ws://host/");
  socket->Disconnect();
  Wire().Establish();
  EXPECT_EQ(Wire().TakeSent(), "");
}

// Whatever is going on: a handler that connects anew or lets go of the component has the last word.
TEST_F(WebsocketConnect, AHandlerMayConnectAnewOrDestroyTheComponent) {
  const std::function<void()> causes[] = {
      [this] { Wire().Raise([](auto& events) { events.OnClose(); }); },
      [this] { Wire().Raise([](auto& events) { events.OnError(10054, 1); }); },
      [this] { Wire().Deliver(ServerFrame(0x88, "")); },
      [this] { Wire().Deliver(ServerFrame(0x80, "") + "\x81\x01"); },
      [this] { Wire().Deliver(LongHeader(0x81, ~0ULL)); },
      [this] {
        Wire().Deliver({ServerFrame(0x81, "a") + ServerFrame(0x81, "b"), ServerFrame(0x81, "c")});
      },
      [this] { Wire().Deliver(ServerFrame(0x8A, "p") + ServerFrame(0x81, "b")); },
      [this] { Wire().Deliver(ServerFrame(0x01, "a") + ServerFrame(0x80, "b")); },
      [this] { Wire().Deliver(ServerFrame(0x01, "a") + ServerFrame(0x8A, "p") + ServerFrame(0x80, "b")); },
      [this] { socket->Send(std::string(10000, 'x')); },
      [this] { socket->Connect("bad"); },
      [this] {
        socket->ReConnect();
        Wire().Raise([](auto& events) { events.OnResolve("192.0.2.1"); });
        Wire().Establish();
        Wire().Deliver(UpgradeAnswer(Wire().TakeSent()));
      },
  };
  for (std::size_t i = 0; i < 2 * std::size(causes); ++i) {
    const bool destroys = i % 2 == 1;
    SCOPED_TRACE(fmt::format("cause {} destroys {}", i / 2, destroys));
    Open();
    bool again = true;
    onEvent = [&](const std::string&) {
      if (destroys) return socket.reset();
      if (std::exchange(again, false)) socket->Connect("ws://fresh/");
    };
    causes[i / 2]();
    onEvent = nullptr;
    if (!destroys) {
      EXPECT_FALSE(again);
      EXPECT_EQ(socket->readyState(), 2);
      EXPECT_EQ(Wire().host, "fresh");
      EXPECT_EQ(Wire().TakeSent(), "");
      EXPECT_THAT(Wire().calls, IsEmpty());
      continue;
    }
    EXPECT_TRUE(Wire().closed);
    Wire().Raise([](auto& events) { events.OnClose(); });
    EXPECT_EQ(log.size(), 1u);
    Make();
  }
}

// Neither by itself nor while an event of its own is still being handled.
TEST_F(WebsocketConnect, ATransportThatWasLetGoIsNotHeard) {
  for (const bool inHandler : {false, true}) {
    Open();
    const auto old = wires.back();
    const auto replace = [&] {
      socket->Connect("ws://host/");
      EXPECT_FALSE(old->hasSocket);
      old->hasSocket = true;
      old->Raise([](auto& events) { events.OnClose(); });
      old->Raise([](auto& events) { events.OnError(10054, 1); });
      old->Deliver(ServerFrame(0x81, "late"));
    };
    if (inHandler) {
      onEvent = [&](const std::string&) { replace(); };
      Wire().Deliver(ServerFrame(0x81, "now"));
    } else {
      replace();
    }
    EXPECT_EQ(log, Log(inHandler ? 1 : 0, "message 1 now"));
    EXPECT_EQ(socket->readyState(), 2);
    EXPECT_THAT(Wire().calls, IsEmpty());
  }
}

// The handler waits, and meanwhile the server goes on and closes: the connection has ended already.
TEST_F(WebsocketConnect, AnEndIsToldOnceAlsoWhenItsHandlerWaits) {
  const std::string closeFrame = ServerFrame(0x88, "\x03\xE8");
  const struct {
    const char* name;
    bool open;
    std::string cause;
    std::string meanwhile;
  } rows[] = {
      {"an answer that is cut off", false, "HTTP/1.1 101 Swi", "answer"},
      {"an answer with a wrong key", false, "HTTP/1.1 101 S\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n\r\n",
       closeFrame},
      {"a redirect to nowhere", false, "HTTP/1.1 302 Found\r\n\r\n", "answer"},
      {"a frame that is too large", true, "\x81\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", closeFrame},
      {"a masked frame", true, "\x81\x81\x01\x02\x03\x04q", closeFrame},
      {"a close frame", true, closeFrame, closeFrame},
      {"a close frame among fragments", true, ServerFrame(0x01, "a") + closeFrame, closeFrame},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    socket->Connect("ws://host/");
    Wire().Establish();
    const std::string answer = UpgradeAnswer(Wire().TakeSent());
    if (row.open) Wire().Deliver(answer);
    log.clear();
    onEvent = [&](const std::string&) {
      if (log.size() > 5) return;
      Wire().Deliver(row.meanwhile == "answer" ? answer : row.meanwhile);
      Wire().Raise([](auto& events) { events.OnClose(); });
    };
    Wire().Deliver(row.cause);
    EXPECT_EQ(log.size(), 1u) << testing::PrintToString(log);
    ExpectEnded();
  }
}

// A TLS engine that has ended, while the transport below lives on and ends within the handler.
TEST_F(WebsocketConnect, AnEndOfTheEngineIsToldOnceAlsoWhenItsHandlerWaits) {
  const struct {
    const char* name;
    std::function<void()> cause;
    const char* told;
  } rows[] = {
      {"the owner disconnects", [&] { socket->Disconnect(); }, "close 1000 Normal Closure."},
      {"a fault of the engine", [&] { Wire().Raise([](auto& events) { events.OnError(10061, 1); }); },
       "error 1016 Event Type: Recieve/Read 10061:  Description: Connection refused."},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Open();
    Wire().closed = true;
    onEvent = [&](const std::string&) {
      if (log.size() < 3) Wire().Raise([](auto& events) { events.OnClose(); });
    };
    row.cause();
    EXPECT_THAT(log, ElementsAre(row.told));
    ExpectEnded();
  }
}

// The owner tidies up in the handler of the end; the transport below the TLS engine lives on.
TEST_F(WebsocketConnect, DisconnectInAHandlerOfTheEndTellsNoOther) {
  const std::string rows[] = {"the server's close_notify", "a close frame", "Disconnect"};
  for (const std::string& row : rows) {
    SCOPED_TRACE(row);
    Open();
    Wire().closed = true;
    onEvent = [&](const std::string&) {
      if (log.size() < 3) socket->Disconnect();
    };
    if (row == "Disconnect") {
      socket->Disconnect();
    } else if (row == "a close frame") {
      Wire().Deliver(ServerFrame(0x88, ""));
    } else {
      Wire().Raise([](auto& events) { events.OnClose(); });
    }
    EXPECT_THAT(log, ElementsAre("close 1000 Normal Closure."));
    ExpectEnded();
  }
}

// While a handler of the answer waits, the server sends what it has and ends.
TEST_F(WebsocketConnect, AnEndIsTakenUpBehindTheAnswer) {
  const struct {
    const char* name;
    std::string answer;  // empty: accepted
    bool broken;
    std::vector<std::string> told;
  } rows[] = {
      {"accepted without compression",
       "",
       false,
       {"error 1010 The server does not support deflate compression. Data will be sent uncompressed.",
        "connect host  80", "message 1 last words", "close 1000 Normal Closure."}},
      {"the same, then a reset",
       "",
       true,
       {"error 1010 The server does not support deflate compression. Data will be sent uncompressed.",
        "connect host  80", "message 1 last words", "error 1016 Event Type: Close 10054:  Description: "}},
      {"a redirect", "HTTP/1.1 302 Found\r\nLocation: ws://there/\r\n\r\n", false, {"reconnect ws://there/"}},
      {"a refusal",
       "HTTP/1.1 404 None\r\n\r\n",
       false,
       {"error 1002 404: Resource Not Found.", "close 1000 Normal Closure."}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    socket->SetUseCompression(true);
    socket->Connect("ws://host/");
    MemoryTransport& wire = Wire();
    wire.Establish();
    log.clear();
    const std::string answer = row.answer.empty() ? UpgradeAnswer(wire.TakeSent()) : row.answer;
    onEvent = [&](const std::string&) {
      if (log.size() > 1) return;
      if (row.answer.empty()) wire.Deliver(ServerFrame(0x81, "last words"));
      wire.Raise([&](auto& events) { row.broken ? events.OnError(10054, 32) : events.OnClose(); });
    };
    wire.Deliver(answer);
    EXPECT_EQ(log, row.told);
    onEvent = nullptr;
  }
}

}  // namespace
}  // namespace quenmark::test
