// What goes out.
#include "tests/websocket/websocket_fixture.h"

#include <limits>
#include <set>

namespace quenmark::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using websocket::FrameOptions;
using websocket::SendData;

class WebsocketSend : public WebsocketFixture {
 protected:
  static std::string Inflated(const std::string& payload) {
    websocket::cZipArchive archive;
    std::string text;
    EXPECT_TRUE(DecompressMessage(archive, View(payload), text));
    return text;
  }
};

TEST_F(WebsocketSend, TextAndBytes) {
  Open();
  socket->Send("hi");
  socket->Send(websocket::Bytes{0xFF, 0x00});
  socket->Send("\xC3\xBC\xF0\x9F\x98\x80", true);
  socket->Send("a\xFFz");
  socket->Send("");
  socket->Send(websocket::Bytes{});
  socket->Ping("p");
  socket->Ping();
  EXPECT_THAT(Sent(), ElementsAre(SentFrame{0x81, "hi"}, SentFrame{0x82, "\xFF\0"s},
                                  SentFrame{0x82, "\xFC\x00\x3D\xD8\x00\xDE"s}, SentFrame{0x81, "a\xEF\xBF\xBDz"},
                                  SentFrame{0x89, "p"}, SentFrame{0x89, ""}));
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(WebsocketSend, Fragments) {
  Open();
  const std::string data = std::string(4088, 'a') + std::string(4088, 'b') + std::string(1824, 'c');
  onEvent = [this](const std::string&) { EXPECT_TRUE(socket->isBusy()); };
  socket->Send(data);
  EXPECT_FALSE(socket->isBusy());
  EXPECT_THAT(Sent(), ElementsAre(SentFrame{0x01, std::string(4088, 'a')}, SentFrame{0x00, std::string(4088, 'b')},
                                  SentFrame{0x80, std::string(1824, 'c')}));
  EXPECT_THAT(log, ElementsAre("progress 4088/10000", "progress 8176/10000", "progress 10000/10000"));
  log.clear();
  socket->Send(data.substr(0, 4088));  // just fits
  EXPECT_EQ(Sent().size(), 1u);
  socket->Send(data.substr(0, 2 * 4088));
  const auto frames = Sent();
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_NE(frames[0].key, frames[1].key);
  EXPECT_THAT(log, ElementsAre("progress 4088/8176", "progress 8176/8176"));
}

TEST_F(WebsocketSend, ChunkSize) {
  Open();
  socket->SetChunkSize(3e9);
  EXPECT_THAT(log, ElementsAre("error 1011 Chunk size to large. Maximum supported chunk size is &H7FFFFFFF "
                               "(2,147,483,647) bytes."));
  EXPECT_EQ(socket->ChunkSize(), 4096);
  for (const double size : {100.0, -1.0, std::numeric_limits<double>::quiet_NaN()}) {
    socket->SetChunkSize(size);
    socket->Send("x");
    EXPECT_EQ(socket->ChunkSize(), 4096);
  }
  Wire().TakeSent();
  socket->SetChunkSize(126);
  socket->Send(std::string(119, 'x'));
  EXPECT_THAT(Sent(), ElementsAre(SentFrame{0x01, std::string(118, 'x')}, SentFrame{0x80, "x"}));
}

TEST_F(WebsocketSend, CancelLeavesTheMessageUnfinished) {
  Open();
  cancelSends = true;
  socket->Send(std::string(10000, 'x'));
  EXPECT_EQ(Sent().size(), 1u);
  EXPECT_THAT(log, ElementsAre("progress 4088/10000"));
  EXPECT_FALSE(socket->isBusy());
}

TEST_F(WebsocketSend, NothingFollowsAnEndOfTheConnection) {
  const std::string aborted = "error 1011 Data send aborted. Websocket is not connected.";
  const std::function<void()> ends[] = {[this] { socket->Disconnect(); }, [this] { socket->ShutDown(); },
                                        [this] { socket->Connect("ws://other/"); }};
  for (const auto& end : ends) {
    Open();
    const auto wire = wires.back();
    onEvent = [&](const std::string& line) {
      if (line == "progress 4088/10000") end();
    };
    socket->Send(std::string(10000, 'x'));
    onEvent = nullptr;
    EXPECT_THAT(log, ElementsAre("progress 4088/10000", aborted));
    const auto frames = DecodeClientFrames(wire->TakeSent());
    EXPECT_EQ(frames.front().first, 0x01);
    EXPECT_TRUE(frames.size() == 1 || frames[1].first == 0x88);
    EXPECT_LE(frames.size(), 2u);
  }
}

TEST_F(WebsocketSend, Refusals) {
  Open();
  socket->Send(SendData());
  socket->Send(websocket::Bytes{1}, true);
  socket->SendAdvanced(SendData(), 1, {});
  FrameOptions options;
  options.utf8Encode = true;
  socket->SendAdvanced(websocket::Bytes{1}, 2, options);
  socket->SendAdvanced("x", -1, {});
  options.compress = true;
  socket->SendAdvanced("x", 1, options);
  EXPECT_THAT(
      log, ElementsAre(
               "error 1003 Data in the Send() function contains an unsupported data type. Only Byte Arrays and Strings "
               "are supported.",
               "error 1003 You have specified the NoUTF8Conversion flag but data is not a String type.",
               "error 1003 Data in the SendAdvanced() function contains an unsupported data type. Only Byte Arrays and "
               "Strings are supported.",
               "error 1003 You have specified the UTF8 Encode flag in the SendAdvanced() procedure, but data is not a "
               "String type.",
               "error 1007 Invalid opcode specified in the SendAdvanced() procedure!",
               "error 1011 Unable to compress data! You have specified the compression flag in SendAdvanced() but the "
               "compression option was not enabled by the server."));
  EXPECT_EQ(Wire().TakeSent(), "");
  EXPECT_FALSE(socket->isBusy());
}

TEST_F(WebsocketSend, RefusalsWhenClosed) {
  socket->Send("x");
  socket->SendAdvanced("x", 1, {});
  socket->SendAdvanced("x", 16, {});
  EXPECT_THAT(log, ElementsAre("error 1011 Cant send data. Websocket is not connected.",
                               "error 1011 SendAdvanced(): Cant send data. Websocket is not connected.",
                               "error 1007 Invalid opcode specified in the SendAdvanced() procedure!"));
}

TEST_F(WebsocketSend, Advanced) {
  Open();
  FrameOptions options;
  socket->SendAdvanced("\xC3\xBC", 2, options);
  options.utf8Encode = true;
  socket->SendAdvanced("\xC3\xBC", 1, options);
  options.fin = false;
  options.rsv1 = options.rsv2 = options.rsv3 = true;
  socket->SendAdvanced("x", 15, options);
  socket->SendAdvanced("", 1, FrameOptions());
  options = FrameOptions();
  options.compress = true;  // nothing to compress
  socket->SendAdvanced("", 1, options);
  EXPECT_THAT(Sent(), ElementsAre(SentFrame{0x82, "\xFC\0"s}, SentFrame{0x81, "\xC3\xBC"}, SentFrame{0x7F, "x"},
                                  SentFrame{0x81, ""}, SentFrame{0x81, ""}));
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(WebsocketSend, Compressed) {
  OpenCompressed();
  const std::string text(300, 'z');
  socket->Send(text);
  socket->Send("");
  FrameOptions options;
  options.utf8Encode = options.compress = true;
  socket->SendAdvanced(text, 1, options);
  socket->Ping("p");
  const auto frames = Sent();
  ASSERT_EQ(frames.size(), 4u);
  EXPECT_EQ(frames[0].first, 0xC1);
  EXPECT_LT(frames[0].payload.size(), 20u);
  EXPECT_EQ(Inflated(frames[0].payload), text);
  EXPECT_EQ(frames[1], (SentFrame{0xC1, "\0"s}));
  EXPECT_EQ(frames[2].first, 0xC1);
  EXPECT_EQ(Inflated(frames[2].payload), text);
  EXPECT_EQ(frames[3], (SentFrame{0x89, "p"}));
}

TEST_F(WebsocketSend, CompressedInFragments) {
  OpenCompressed();
  std::string text;
  for (int i = 0; i < 4000; ++i) text += fmt::format("{} ", i * 7919 % 10007);
  socket->Send(text);
  const auto frames = Sent();
  ASSERT_GT(frames.size(), 2u);
  EXPECT_EQ(frames.front().first, 0x41);
  EXPECT_EQ(frames.back().first, 0x80);
  std::string payload;
  for (const SentFrame& frame : frames) payload += frame.payload;
  EXPECT_EQ(Inflated(payload), text);
  EXPECT_EQ(log.back(), fmt::format("progress {0}/{0}", payload.size()));
}

TEST_F(WebsocketSend, SwitchingCompressionOff) {
  OpenCompressed();
  socket->SetUseCompression(false);
  socket->Send("x");
  EXPECT_THAT(Sent(), ElementsAre(SentFrame{0x81, "x"}));
  FrameOptions options;
  options.compress = true;
  socket->SendAdvanced("x", 1, options);
  EXPECT_THAT(log, ElementsAre("error 1011 Orvaline was unable to compress outgoing data.",
                               "error 1011 SendAdvanced(): Websocket was unable to compress data!"));
  EXPECT_FALSE(socket->isBusy());
  socket->SetUseCompression(true);
  socket->Send("x");
  EXPECT_EQ(Sent().front().first, 0xC1);
}

}  // namespace
}  // namespace quenmark::test
