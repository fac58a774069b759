// A connection whose far end is the test.
#pragma once

#include "websocket/transport.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace quenmark::test {

class MemoryTransport final : public websocket::Transport, public std::enable_shared_from_this<MemoryTransport> {
 public:
  explicit MemoryTransport(std::weak_ptr<websocket::TransportEvents> sink) : m_events(std::move(sink)) {}

  // --- the test's side ---
  std::string host;
  std::int32_t port = 0;
  bool tls = false;
  std::uint32_t features = 0;
  bool refusesConnect = false;
  bool refusesSends = false;
  std::size_t unsent = 0;
  bool closed = true;
  bool hasSocket = false;
  std::vector<std::string> calls;  // closing steps, in order
  std::function<void()> onRead;    // runs within every read
  std::function<void()> onSend;    // runs within every send
  std::size_t totalRead = 0;

  void Raise(const std::function<void(websocket::TransportEvents&)>& event) {
    const auto self = shared_from_this();
    if (const auto events = m_events.lock()) event(*events);
  }
  void Establish() {
    closed = false;
    hasSocket = true;
    Raise([](auto& events) { events.OnConnect(); });
  }
  // Bytes arrive; each piece is one read. The event is raised as long as a reading handler leaves some behind.
  void Deliver(std::vector<std::string> pieces) {
    for (std::string& piece : pieces) {
      if (!piece.empty()) m_incoming.push_back(std::move(piece));
    }
    for (std::size_t before = totalRead - 1; hasSocket && !m_incoming.empty() && totalRead != before;) {
      before = totalRead;
      Raise([](auto& events) { events.OnReceive(); });
    }
  }
  void Deliver(std::string bytes) { Deliver(std::vector<std::string>{std::move(bytes)}); }
  std::string TakeSent() { return std::exchange(m_sent, {}); }

  // --- the component's side ---
  bool Connect(const std::string& toHost, std::int32_t toPort, bool useTls, std::uint32_t localFeatures) override {
    host = toHost;
    port = toPort;
    tls = useTls;
    features = localFeatures;
    return !refusesConnect;
  }
  bool IsClosed() const override { return closed; }
  bool HasSocket() const override { return hasSocket; }
  std::int64_t AvailableBytes() override {
    return m_incoming.empty() ? 0 : static_cast<std::int64_t>(m_incoming.front().size());
  }
  bool Receive(websocket::ReceiveBuffer& buffer, std::size_t atMost) override {
    if (m_incoming.empty()) return false;
    std::string& piece = m_incoming.front();
    const std::size_t count = std::min(atMost, piece.size());
    const auto room = buffer.Prepare(count);
    std::copy_n(piece.begin(), count, room.begin());
    buffer.Commit(count);
    totalRead += count;
    piece.erase(0, count);
    if (piece.empty()) m_incoming.pop_front();
    if (onRead) onRead();
    return true;
  }
  bool SendArray(websocket::BytesView bytes) override {
    if (onSend) onSend();
    if (refusesSends || closed) return false;
    m_sent.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return true;
  }
  bool SendText(std::string_view text) override {
    return SendArray({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  }
  std::size_t UnsentBytes() const override { return unsent; }
  void Close_() override { calls.push_back("Close_"); }
  void ShutDown() override { calls.push_back("ShutDown"); }
  void CloseSocket() override {
    calls.push_back("CloseSocket");
    closed = true;
    hasSocket = false;
  }
  std::string RemoteHostName() const override { return host; }
  std::string GetErrorDescription(std::int32_t errorCode) const override {
    return errorCode == 10061 ? "Connection refused." : "";
  }

 private:
  std::weak_ptr<websocket::TransportEvents> m_events;
  std::deque<std::string> m_incoming;
  std::string m_sent;
};

}  // namespace quenmark::test
