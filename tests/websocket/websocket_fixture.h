// A component on memory transports: what it raises is written down line by line, what it sends is decoded here, apart
// from the code under test.
#pragma once

#include "platform/message_loop.h"
#include "platform/store_text.h"
#include "tests/support/manual_clock.h"
#include "tests/websocket/memory_transport.h"
#include "websocket/websocket.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::test {

using namespace std::string_literals;

inline std::string Sha1Digest(std::string_view text) {
  std::string digest(SHA_DIGEST_LENGTH, '\0');
  SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(),
       reinterpret_cast<unsigned char*>(digest.data()));
  return digest;
}

struct SentFrame {
  int first = 0;  // first byte
  std::string payload;
  std::string raw;

  bool operator==(const SentFrame& other) const { return first == other.first && payload == other.payload; }
  friend void PrintTo(const SentFrame& frame, std::ostream* out) {
    *out << fmt::format("{:02x} {} bytes {}", frame.first, frame.payload.size(), frame.payload.substr(0, 40));
  }
};

// Every frame of a client's byte stream, unmasked. Fails the test on anything that is not a whole masked frame.
inline std::vector<SentFrame> DecodeClientFrames(std::string_view bytes) {
  std::vector<SentFrame> frames;
  const auto at = [&bytes](std::size_t index) { return static_cast<unsigned char>(bytes.at(index)); };
  while (!bytes.empty()) {
    EXPECT_EQ(at(1) & 0x80, 0x80);
    std::size_t length = at(1) & 0x7F;
    std::size_t offset = 2;
    if (length >= 126) {
      const std::size_t width = length == 126 ? 2 : 8;
      length = 0;
      for (std::size_t i = 0; i < width; ++i) length = length << 8 | at(offset++);
    }
    SentFrame frame{at(0), std::string(length, '\0'), {}};
    for (std::size_t i = 0; i < length; ++i)
      frame.payload[i] = static_cast<char>(at(offset + 4 + i) ^ at(offset + i % 4));
    offset += 4 + length;
    frame.raw = bytes.substr(0, offset);
    bytes.remove_prefix(offset);
    frames.push_back(std::move(frame));
  }
  return frames;
}

// A server's frame; a `width` of 2 or 8 forces an extended length.
inline std::string ServerFrame(int first, std::string_view payload, std::size_t width = 0) {
  const std::size_t length = payload.size();
  if (width == 0 && length > 125) width = length > 65535 ? 8 : 2;
  std::string frame(1, static_cast<char>(first));
  frame += static_cast<char>(width == 0 ? length : width == 2 ? 126 : 127);
  for (std::size_t i = width; i-- > 0;) frame += static_cast<char>(static_cast<std::uint64_t>(length) >> (8 * i));
  return frame.append(payload);
}

class WebsocketFixture : public testing::Test {
 protected:
  using Log = std::vector<std::string>;

  WebsocketFixture() { Make(); }

  void Make() {
    websocket::WebsocketServices services;
    services.makeTransport = [this](std::weak_ptr<websocket::TransportEvents> events) {
      wires.push_back(std::make_shared<MemoryTransport>(std::move(events)));
      wires.back()->refusesConnect = refuseConnects;
      return wires.back();
    };
    services.random = [this](std::span<std::uint8_t> out) {
      for (std::uint8_t& byte : out)
        byte = static_cast<std::uint8_t>((m_random = m_random * 1664525 + 1013904223) >> 24);
    };
    services.sha1 = Sha1Digest;
    websocket::WebsocketEvents events;
    events.OnMessage = [this](const websocket::MessageData& data, std::int32_t type) {
      Note([&] { return fmt::format("message {} {}", type, data.Text()); });
    };
    events.OnConnect = [this](const std::string& host, const std::string& ip, const std::string& port) {
      Note([&] { return fmt::format("connect {} {} {}", host, ip, port); });
    };
    events.OnReConnect = [this](const std::string& url) { Note([&] { return "reconnect " + url; }); };
    events.OnClose = [this](std::int32_t code, const std::string& reason) {
      Note([&] { return fmt::format("close {} {}", code, reason); });
    };
    events.OnError = [this](std::int32_t code, const std::string& text) {
      Note([&] { return fmt::format("error {} {}", code, text); });
    };
    events.OnPong = [this](const std::string& data) { Note([&] { return "pong " + data; }); };
    events.onProgress = [this](std::int32_t sent, std::int32_t total, bool& cancel) {
      Note([&] { return fmt::format("progress {}/{}", sent, total); });
      cancel = cancelSends;
    };
    socket = std::make_unique<websocket::Websocket>(loop, std::move(services), std::move(events));
  }

  MemoryTransport& Wire() { return *wires.back(); }

  // The 101 that fits the request just sent.
  std::string Answer(const std::string& request, const std::string& headers = "") {
    const std::string name = "Sec-WebSocket-Key: ";
    const std::size_t start = request.find(name) + name.size();
    const std::string key = request.substr(start, request.find("\r\n", start) - start);
    return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: " +
           platform::EncodeBase64(Sha1Digest(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11")) + "\r\n" + headers + "\r\n";
  }
  // Connects and has the request answered; the events of that are not written down.
  void Open(const std::string& headers = "") {
    socket->Connect("ws://host/path");
    Wire().Establish();
    Wire().Deliver(Answer(Wire().TakeSent(), headers));
    log.clear();
  }
  std::vector<SentFrame> Sent() { return DecodeClientFrames(Wire().TakeSent()); }

  ManualClock clock;
  platform::MessageLoop loop{clock};
  std::vector<std::shared_ptr<MemoryTransport>> wires;
  bool refuseConnects = false;
  bool cancelSends = false;
  Log log;
  std::function<void(const std::string& line)> onEvent;  // runs inside the handler
  std::unique_ptr<websocket::Websocket> socket;

 private:
  // What a handler was given stays as it is whatever the handler does.
  void Note(const std::function<std::string()>& format) {
    const std::string line = format();
    log.push_back(line);
    if (onEvent) onEvent(line);
    EXPECT_EQ(format(), line);
  }

  std::uint32_t m_random = 1;
};

}  // namespace quenmark::test
