// A component on memory transports: what it raises is written down line by line, what it sends is decoded here, apart
// from the code under test.
#pragma once

#include "platform/message_loop.h"
#include "platform/store_text.h"
#include "tests/support/manual_clock.h"
#include "tests/websocket/memory_transport.h"
#include "websocket/deflate.h"
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

inline websocket::BytesView View(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

inline std::string Sha1Digest(std::string_view text) {
  std::string digest(SHA_DIGEST_LENGTH, '\0');
  SHA1(View(text).data(), text.size(), reinterpret_cast<unsigned char*>(digest.data()));
  return digest;
}

// The 101 that fits the request.
inline std::string UpgradeAnswer(const std::string& request, const std::string& headers = "") {
  const std::string name = "Sec-WebSocket-Key: ";
  const std::size_t start = request.find(name) + name.size();
  const std::string key = request.substr(start, request.find("\r\n", start) - start);
  return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: " +
         platform::EncodeBase64(Sha1Digest(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11")) + "\r\n" + headers + "\r\n";
}

struct SentFrame {
  int first = 0;  // first byte
  std::string payload;
  std::string key = {};  // of the mask; not compared

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
    SentFrame frame{at(0), std::string(length, '\0'), std::string(bytes.substr(offset, 4))};
    for (std::size_t i = 0; i < length; ++i)
      frame.payload[i] = static_cast<char>(at(offset + 4 + i) ^ at(offset + i % 4));
    bytes.remove_prefix(offset + 4 + length);
    frames.push_back(std::move(frame));
  }
  return frames;
}

// A server's frame header with an extended length of 8 bytes.
inline std::string LongHeader(int first, std::uint64_t length) {
  std::string header{static_cast<char>(first), 127};
  for (int shift = 56; shift >= 0; shift -= 8) header += static_cast<char>(length >> shift);
  return header;
}

// A server's frame; a `width` of 2 or 8 forces an extended length.
inline std::string ServerFrame(int first, std::string_view payload, std::size_t width = 0) {
  const std::size_t length = payload.size();
  if (width == 8 || length > 65535) return LongHeader(first, length).append(payload);
  std::string frame(1, static_cast<char>(first));
  if (width == 2 || length > 125) frame += {126, static_cast<char>(length >> 8)};
  frame += static_cast<char>(length);
  return frame.append(payload);
}

// A compressed payload as a server sends it.
inline std::string Deflated(std::string_view text) {
  websocket::cZipArchive archive;
  websocket::Bytes out;
  EXPECT_TRUE(CompressMessage(archive, View(text), out));
  return {out.begin(), out.end()};
}

// Handlers that pass every event on as a line of text, made when it is asked for.
using Line = std::function<std::string()>;
inline websocket::WebsocketEvents LineHandlers(const std::function<void(const Line&)>& note) {
  websocket::WebsocketEvents events;
  events.OnMessage = [note](const websocket::MessageData& data, std::int32_t type) {
    note([&] { return fmt::format("message {} {}", type, data.Text()); });
  };
  events.OnConnect = [note](const std::string& host, const std::string& ip, const std::string& port) {
    note([&] { return fmt::format("connect {} {} {}", host, ip, port); });
  };
  events.OnReConnect = [note](const std::string& url) { note([&] { return "reconnect " + url; }); };
  events.OnClose = [note](std::int32_t code, const std::string& reason) {
    note([&] { return fmt::format("close {} {}", code, reason); });
  };
  events.OnError = [note](std::int32_t code, const std::string& text) {
    note([&] { return fmt::format("error {} {}", code, text); });
  };
  events.OnPong = [note](const std::string& data) { note([&] { return "pong " + data; }); };
  return events;
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
    websocket::WebsocketEvents events = LineHandlers([this](const Line& line) { Note(line); });
    events.onProgress = [this](std::int32_t sent, std::int32_t total, bool& cancel) {
      Note([&] { return fmt::format("progress {}/{}", sent, total); });
      cancel = cancelSends;
    };
    socket = std::make_unique<websocket::Websocket>(loop, std::move(services), std::move(events));
  }

  MemoryTransport& Wire() { return *wires.back(); }

  // Connects and has the request answered; the events of that are not written down.
  void Open(const std::string& headers = "") {
    socket->Connect("ws://host/path");
    Wire().Establish();
    Wire().Deliver(UpgradeAnswer(Wire().TakeSent(), headers));
    log.clear();
  }
  void OpenCompressed() {
    socket->SetUseCompression(true);
    Open("Sec-WebSocket-Extensions: permessage-deflate; server_no_context_takeover\r\n");
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
  void Note(const Line& format) {
    const std::string line = format();
    log.push_back(line);
    if (onEvent) onEvent(line);
    EXPECT_EQ(format(), line);
  }

  std::uint32_t m_random = 1;
};

}  // namespace quenmark::test
