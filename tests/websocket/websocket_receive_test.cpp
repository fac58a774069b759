// Frames to events.
#include "tests/websocket/websocket_fixture.h"
#include "websocket/limits.h"

namespace quenmark::test {
namespace {

using testing::ElementsAre;

class WebsocketReceive : public WebsocketFixture {};

const std::string kClosed = "close 1000 Normal Closure.";
const std::string kTooLarge = "error 1009 A Message was To Large or Corrupted.";

const std::string kNoInflation = "error 1011 Orvaline was unable to decompress incoming data.";
const SentFrame kCloseFrame = {0x88, ""};

struct Scenario {
  const char* name;
  std::string bytes;
  std::vector<std::string> events;
  std::int32_t state = 1;
  std::vector<SentFrame> sent = {};
};

std::vector<Scenario> Scenarios() {
  const std::string big(70000, 'b');
  const std::string many(300, 'z');
  const std::string packed = Deflated(many);
  return {
      {"text", ServerFrame(0x81, "h\xC3\xB6"), {"message 1 h\xC3\xB6"}},
      {"malformed text", ServerFrame(0x81, "a\xFF"), {"message 1 a\xEF\xBF\xBD"}},
      {"empty text", ServerFrame(0x81, ""), {"message 1 "}},
      {"bytes", ServerFrame(0x82, "\xFF\x01"), {"message 2 \xFF\x01"}},
      {"lengths",
       ServerFrame(0x82, std::string(125, 'a')) + ServerFrame(0x82, std::string(126, 'a')) + ServerFrame(0x82, "x", 2) +
           ServerFrame(0x82, "y", 8) + ServerFrame(0x82, big),
       {"message 2 " + std::string(125, 'a'), "message 2 " + std::string(126, 'a'), "message 2 x", "message 2 y",
        "message 2 " + big}},
      {"other opcodes", ServerFrame(0x83, "\xC3") + ServerFrame(0xFF, "x"), {"message 3 \xC3", "message 15 x"}},
      {"ping", ServerFrame(0x89, "data") + ServerFrame(0x89, ""), {}, 1, {{0x8A, "data"}, {0x8A, ""}}},
      {"pong", ServerFrame(0x8A, "\xC3\xBC") + ServerFrame(0x8A, ""), {"pong \xC3\xBC", "pong "}},
      {"three fragments with control frames between them",
       ServerFrame(0x01, "one ") + ServerFrame(0x00, "two ") + ServerFrame(0x89, "p1") + ServerFrame(0x89, "p2") +
           ServerFrame(0x8A, "q") + ServerFrame(0x80, "three") + ServerFrame(0x81, "next"),
       {"pong q", "message 1 one two three", "message 1 next"},
       1,
       {{0x8A, "p1"}, {0x8A, "p2"}}},
      {"fragments without an end", ServerFrame(0x01, "a") + ServerFrame(0x00, "b"), {}},
      {"a character cut by a fragment", ServerFrame(0x01, "\xC3") + ServerFrame(0x80, "\xBC"), {"message 1 \xC3\xBC"}},
      {"a new message within another goes on with it",
       ServerFrame(0x02, "a") + ServerFrame(0x81, "b") + ServerFrame(0x80, "c"),
       {"message 2 abc"}},
      {"a ping in fragments", ServerFrame(0x09, "a") + ServerFrame(0x80, "b"), {}, 1, {{0x8A, "ab"}}},
      {"close without a code", ServerFrame(0x88, ""), {kClosed}, 0},
      {"close with one byte", ServerFrame(0x88, "\x03"), {kClosed}, 0},
      {"close with a code", ServerFrame(0x88, "\x03\xE8"), {kClosed}, 0},
      {"close with a reason", ServerFrame(0x88, "\x03\xE9 bye\x80"), {"close 1001  bye\xE2\x82\xAC"}, 0},
      {"close with a code above 32767",
       ServerFrame(0x88, "\xFF\xFE"),
       {"close -2 Error code not recognized. Means nothing to WebSocket Protocol."},
       0},
      {"close within a message",
       ServerFrame(0x01, "a") + ServerFrame(0x88, "\x03\xE8"),
       {"close 1006 A Close frame was unexpectedly encountered while recieving data."},
       0},
      {"nothing after a close", ServerFrame(0x88, "") + ServerFrame(0x81, "x"), {kClosed}, 0},
      {"continuation of nothing",
       ServerFrame(0x80, "x") + ServerFrame(0x81, "y"),
       {"error 1002 Invalid opCode recieved. (0)"},
       3,
       {kCloseFrame}},
      {"a masked frame", "\x81\x81KEYSx", {"error 1002 There was a Protocol Error."}, 0},
      {"2 GB", LongHeader(0x82, 0x7FFFFFFF), {kTooLarge}, 0},
      {"negative as 32 bits", LongHeader(0x82, 0xFFFFFFFF), {kTooLarge}, 0},
      {"more than 32 bits", LongHeader(0x82, 0x100000000), {kTooLarge}, 0},
      {"one byte above the limit", LongHeader(0x82, 0x4000001), {kTooLarge}, 0},
      {"at the limit", LongHeader(0x82, 0x4000000), {}},
      {"fragments above the limit", ServerFrame(0x02, "a") + LongHeader(0x80, 0x4000000), {kTooLarge}, 0},
      {"compressed",
       ServerFrame(0xC1, packed) + ServerFrame(0xC2, packed + "\0\0\xFF\xFF"s) +
           ServerFrame(0x41, packed.substr(0, 3)) + ServerFrame(0x80, packed.substr(3)) + ServerFrame(0x81, "plain") +
           ServerFrame(0xC1, "") + ServerFrame(0xC3, "raw"),
       {"message 1 " + many, "message 2 " + many, "message 1 " + many, "message 1 plain", "message 1 ",
        "message 3 raw"}},
      {"what does not inflate", ServerFrame(0xC1, "\xFF\xFF\xFF"), {kNoInflation}, 3, {kCloseFrame}},
      {"fragments that do not inflate",
       ServerFrame(0x41, "\xFF\xFF\xFF") + ServerFrame(0x80, ""),
       {kNoInflation},
       3,
       {kCloseFrame}},
  };
}

// Whole, byte by byte, and cut in two at every offset.
TEST_F(WebsocketReceive, EveryFrameInPieces) {
  for (const Scenario& scenario : Scenarios()) {
    const std::size_t size = scenario.bytes.size();
    for (std::size_t cut = size > 1000 ? size : 0; cut <= size + 1; ++cut) {
      SCOPED_TRACE(fmt::format("{} at {}", scenario.name, cut));
      OpenCompressed();
      const auto wire = wires.back();
      if (cut <= size) {
        wire->Deliver(scenario.bytes.substr(0, cut));
        wire->Deliver(scenario.bytes.substr(cut));
      } else {
        for (const char byte : scenario.bytes) wire->Deliver(std::string(1, byte));
      }
      ASSERT_EQ(log, scenario.events);
      ASSERT_EQ(DecodeClientFrames(wire->TakeSent()), scenario.sent);
      ASSERT_EQ(socket->readyState(), scenario.state);
    }
  }
}

TEST_F(WebsocketReceive, WhileClosingOnlyACloseFrameCounts) {
  Open();
  socket->Disconnect();
  Wire().TakeSent();
  Wire().Deliver(ServerFrame(0x81, "a") + ServerFrame(0x89, "p") + ServerFrame(0x02, "b") + ServerFrame(0x89, "q") +
                 ServerFrame(0x80, "c") + ServerFrame(0x88, "\x03\xE8"));
  EXPECT_THAT(log, ElementsAre(kClosed));
  EXPECT_EQ(Wire().TakeSent(), "");
}

TEST_F(WebsocketReceive, PingsBehindACongestedSendAreAnsweredByOnePong) {
  Open();
  const auto room = [this](std::size_t unsent) {
    Wire().unsent = unsent;
    Wire().Raise([](auto& events) { events.OnSend(); });
  };
  Wire().unsent = websocket::kMaxUnsentAtPong + 1;
  Wire().Deliver(ServerFrame(0x89, "1") + ServerFrame(0x01, "a") + ServerFrame(0x89, "2") + ServerFrame(0x80, ""));
  room(websocket::kMaxUnsentAtPong + 1);
  EXPECT_THAT(log, ElementsAre("message 1 a"));
  EXPECT_EQ(Wire().TakeSent(), "");
  room(websocket::kMaxUnsentAtPong);
  room(0);
  EXPECT_THAT(Sent(), ElementsAre(SentFrame{0x8A, "2"}));
  room(websocket::kMaxUnsentAtPong + 1);
  Wire().Deliver(ServerFrame(0x89, "3"));
  socket->Disconnect();
  room(0);
  EXPECT_THAT(Sent(), ElementsAre(SentFrame{0x88, ""}));  // nothing behind the close frame
}

TEST_F(WebsocketReceive, CompressedWithoutTheWishIsHandedOutAsItCame) {
  Open("Sec-WebSocket-Extensions: permessage-deflate\r\n");
  Wire().Deliver(ServerFrame(0xC2, "\xF2\x48"));
  EXPECT_THAT(log, ElementsAre("message 2 \xF2\x48"));
}

TEST_F(WebsocketReceive, NestedReceivesKeepTheOrder) {
  const std::string big(300000, 'x');  // makes the buffer move
  for (const bool compressed : {false, true}) {
    OpenCompressed();
    const auto text = [&](std::string_view data) {
      return compressed ? ServerFrame(0xC1, Deflated(data)) : ServerFrame(0x81, data);
    };
    std::vector<bool> busy;
    onEvent = [&](const std::string& line) {
      busy.push_back(socket->isBusy());
      if (line == "message 1 a") Wire().Deliver(text("c") + ServerFrame(0x82, big) + ServerFrame(0x01, "d"));
      if (line == "message 1 c") Wire().Deliver(ServerFrame(0x80, "e"));
    };
    Wire().Deliver(text("a") + text("b"));
    EXPECT_THAT(log, ElementsAre("message 1 a", "message 1 b", "message 1 c", "message 2 " + big, "message 1 de"));
    EXPECT_EQ(busy, std::vector<bool>(5, true));
    EXPECT_FALSE(socket->isBusy());
    onEvent = nullptr;
  }
}

TEST_F(WebsocketReceive, WhatAHandlerHasClosedStaysClosed) {
  OpenCompressed();
  onEvent = [&](const std::string&) {
    socket->Disconnect();
    socket->Disconnect();
  };
  Wire().Deliver(ServerFrame(0xC1, "\xFF\xFF\xFF"));
  EXPECT_EQ(socket->readyState(), 0);
}

// The connection ends while the handler of the first message waits, or while the loop runs amid a long read.
TEST_F(WebsocketReceive, WhatWasReadBeforeTheEndIsToldBeforeIt) {
  const std::string away = ServerFrame(0x88, "\x03\xE9 bye");
  const std::string error = "error 1016 Event Type: Recieve/Read 10054:  Description: ";
  const struct {
    std::string behind;
    bool fails;
    Log events;
    std::string then = {};  // in the handler of b
  } rows[] = {
      {ServerFrame(0x81, "b") + away, false, {"message 1 b", "close 1001  bye"}},
      {ServerFrame(0x81, "b") + away, true, {"message 1 b", "close 1001  bye"}},
      {ServerFrame(0x01, "b") + ServerFrame(0x80, "c") + "\x81\x09half", false, {"message 1 bc", kClosed}},
      {ServerFrame(0x81, "b"), true, {"message 1 b", error}},
      {ServerFrame(0x81, "b") + away, false, {"message 1 b"}, "connect"},
      {ServerFrame(0x81, "b") + away, true, {"message 1 b"}, "drop"},
      {ServerFrame(0x81, "b"), false, {"message 1 b", kClosed}, "disconnect"},
  };
  for (const bool amidRead : {false, true}) {
    for (const auto& row : rows) {
      SCOPED_TRACE(fmt::format("{} {} {}", row.events.back(), row.then, amidRead));
      Open();
      const auto wire = wires.back();
      const auto end = [&] {
        wire->Raise([&](auto& events) { row.fails ? events.OnError(10054, 1) : events.OnClose(); });
      };
      const platform::WindowId window = loop.CreateHiddenWindow("end", [&](const platform::Message&) { end(); });
      onEvent = [&](const std::string& line) {
        if (line == "message 1 a" && !amidRead) end();
        if (line != "message 1 b") return;
        if (row.then == "connect") socket->Connect("ws://fresh/");
        if (row.then == "drop") socket.reset();
        if (row.then == "disconnect") socket->Disconnect();
      };
      wire->onRead = [&] {
        if (!amidRead) return;
        clock.Advance(std::chrono::milliseconds(2500));
        loop.Post({window, platform::kMessageUser, 0, 0});
      };
      wire->Deliver(ServerFrame(0x81, "a") + row.behind);
      Log expected = row.events;
      expected.insert(expected.begin(), "message 1 a");
      EXPECT_EQ(log, expected);
      loop.DestroyWindow(window);
      if (!socket) Make();
      const bool failed = row.events.back() == error;  // waits for the server's close frame
      EXPECT_EQ(socket->readyState(), row.then == "connect" ? 2 : failed ? 3 : 0);
      EXPECT_FALSE(socket->isBusy());
    }
  }
}

TEST_F(WebsocketReceive, NoMoreThanTheLimitIsReadBeforeItIsLookedAt) {
  Open();
  const std::string frame = ServerFrame(0x82, std::string(1000, 'x'));
  std::string stream;
  while (stream.size() < 3 * websocket::kMaxReadPerPass) stream += frame;
  std::size_t messages = 0;
  const std::size_t readBefore = Wire().totalRead;
  std::size_t readAtFirst = 0;
  onEvent = [&](const std::string&) {
    if (messages++ == 0) readAtFirst = Wire().totalRead - readBefore;
    log.clear();
  };
  Wire().Deliver(stream);
  EXPECT_EQ(readAtFirst, websocket::kMaxReadPerPass);
  EXPECT_EQ(messages, stream.size() / frame.size());
}

TEST_F(WebsocketReceive, ALongReadLetsTheLoopRun) {
  Open();
  int pumped = 0;
  const platform::WindowId window = loop.CreateHiddenWindow("other", [&](const platform::Message&) { ++pumped; });
  std::vector<int> seen;
  Wire().onRead = [&] {
    clock.Advance(std::chrono::milliseconds(1500));
    loop.Post({window, platform::kMessageUser, 0, 0});
    seen.push_back(pumped);
  };
  Wire().Deliver({"\x82\x05", "ab", "cd", "e"});
  EXPECT_THAT(seen, ElementsAre(0, 0, 2, 2));
  EXPECT_THAT(log, ElementsAre("message 2 abcde"));
}

// The close frame is met while the loop runs amid a long read; what the server sends behind it is not read any more.
TEST_F(WebsocketReceive, AConnectionThatEndsAmidALongReadIsNotReadFurther) {
  Open();
  const platform::WindowId window = loop.CreateHiddenWindow(
      "other", [&](const platform::Message&) { Wire().Raise([](auto& events) { events.OnReceive(); }); });
  onEvent = [&](const std::string&) { Wire().Deliver("late"); };
  Wire().onRead = [&] {
    clock.Advance(std::chrono::milliseconds(2500));
    loop.Post({window, platform::kMessageUser, 0, 0});
  };
  Wire().Deliver({ServerFrame(0x88, "").substr(0, 1), ServerFrame(0x88, "").substr(1)});
  EXPECT_THAT(log, ElementsAre(kClosed));
  EXPECT_EQ(socket->readyState(), 0);
}

}  // namespace
}  // namespace quenmark::test
