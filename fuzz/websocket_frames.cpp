// The byte stream of a server, cut into reads as the input says: the component raises the same events for the stream as
// a whole and in pieces, keeps its memory bounded, and never sends anything but whole frames.
#include "platform/clock.h"
#include "platform/message_loop.h"
#include "websocket/limits.h"
#include "websocket/websocket.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

using namespace quenmark;
using namespace quenmark::websocket;

namespace {

constexpr std::string_view kAnswer =
    "HTTP/1.1 101 x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Extensions: permessage-deflate\r\nSec-WebSocket-Accept: YWNjZXB0\r\n\r\n";

class FuzzTransport final : public Transport {
 public:
  explicit FuzzTransport(std::weak_ptr<TransportEvents> events) : m_events(std::move(events)) {}

  void Establish() {
    m_open = true;
    if (const auto events = m_events.lock()) events->OnConnect();
  }
  void Deliver(BytesView piece) {
    if (!m_open) return;
    m_piece = piece;
    if (const auto events = m_events.lock()) events->OnReceive();
  }
  // The socket is free again, and the peer goes.
  void End() {
    m_congested = false;
    if (const auto events = m_events.lock()) events->OnSend();
    if (const auto events = m_open ? m_events.lock() : nullptr) events->OnClose();
  }

  bool Connect(const std::string&, std::int32_t, bool, std::uint32_t) override { return true; }
  bool IsClosed() const override { return !m_open; }
  bool HasSocket() const override { return m_open; }
  std::int64_t AvailableBytes() override { return static_cast<std::int64_t>(m_piece.size()); }
  bool Receive(ReceiveBuffer& buffer, std::size_t atMost) override {
    const BytesView part = m_piece.first(std::min(atMost, m_piece.size()));
    m_piece = m_piece.subspan(part.size());
    Bytes bytes(part.begin(), part.end());
    buffer.Take(bytes);
    return true;
  }
  bool SendArray(BytesView bytes) override {
    if (bytes.size() < 6 || (bytes[1] & 0x80) == 0) std::abort();
    m_congested = !m_congested;
    return true;
  }
  bool SendText(std::string_view) override { return true; }
  std::size_t UnsentBytes() const override { return m_congested ? kMaxUnsentAtPong + 1 : 0; }
  void Close_() override {}
  void ShutDown() override {}
  void CloseSocket() override { m_open = false; }
  std::string RemoteHostName() const override { return "host"; }
  std::string GetErrorDescription(std::int32_t) const override { return {}; }

 private:
  std::weak_ptr<TransportEvents> m_events;
  BytesView m_piece;
  bool m_open = false;
  bool m_congested = false;
};

// What the owner sees of the stream in reads of `step` bytes (0: all at once).
std::string Events(BytesView stream, std::size_t step, bool useCompression) {
  static platform::SystemClock clock;
  static platform::MessageLoop loop{clock};
  std::shared_ptr<FuzzTransport> wire;
  std::string log;
  WebsocketServices services;
  services.makeTransport = [&wire](std::weak_ptr<TransportEvents> events) {
    return wire = std::make_shared<FuzzTransport>(std::move(events));
  };
  services.random = [](std::span<std::uint8_t> out) { std::fill(out.begin(), out.end(), std::uint8_t{0x5A}); };
  services.sha1 = [](std::string_view) { return std::string("accept"); };
  WebsocketEvents events;
  events.OnMessage = [&log](const MessageData& data, std::int32_t type) {
    log += 'm' + std::to_string(type);
    log += data.Text();
  };
  events.OnClose = [&log](std::int32_t code, const std::string& reason) { log += 'c' + std::to_string(code) + reason; };
  events.OnError = [&log](std::int32_t code, const std::string& text) { log += 'e' + std::to_string(code) + text; };
  events.OnPong = [&log](const std::string& data) { log += 'p' + data; };
  Websocket socket(loop, std::move(services), std::move(events));
  socket.SetUseCompression(useCompression);
  socket.Connect("ws://host/");
  const auto first = wire;
  first->Establish();
  first->Deliver({reinterpret_cast<const std::uint8_t*>(kAnswer.data()), kAnswer.size()});
  if (socket.readyState() != kStateOpen) std::abort();
  if (step == 0) step = std::max<std::size_t>(stream.size(), 1);
  for (; !stream.empty(); stream = stream.subspan(std::min(step, stream.size()))) {
    first->Deliver(stream.first(std::min(step, stream.size())));
  }
  first->End();
  if (socket.isBusy() || socket.readyState() != kStateClosed) std::abort();
  return log;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const BytesView stream(data + 1, size - 1);
  const bool useCompression = (data[0] & 1) != 0;
  const std::string whole = Events(stream, 0, useCompression);
  if (Events(stream, 1 + data[0] / 2u, useCompression) != whole) std::abort();
  return 0;
}
