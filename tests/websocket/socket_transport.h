// A plain TCP connection on this system's socket class.
#pragma once

#include "platform/socket_notifier.h"
#include "sockets/async_socket.h"
#include "websocket/limits.h"
#include "websocket/transport.h"

#include <algorithm>
#include <memory>
#include <string>
#include <utility>

namespace quenmark::test {

class SocketTransport final : public websocket::Transport,
                              public sockets::AsyncSocketEvents,
                              public std::enable_shared_from_this<SocketTransport> {
 public:
  static std::shared_ptr<SocketTransport> New(platform::MessageLoop& loop,
                                              std::weak_ptr<websocket::TransportEvents> events) {
    auto transport = std::make_shared<SocketTransport>(loop, std::move(events));
    transport->m_socket->SetEvents(transport);
    return transport;
  }
  SocketTransport(platform::MessageLoop& loop, std::weak_ptr<websocket::TransportEvents> events)
      : m_events(std::move(events)), m_socket(sockets::cAsyncSocket::New(loop)) {}

  bool Connect(const std::string& host, std::int32_t port, bool useTls, std::uint32_t) override {
    return !useTls && m_socket->Connect(host, port);
  }
  bool IsClosed() const override { return !HasSocket(); }
  bool HasSocket() const override { return m_socket->SocketHandle() != platform::kInvalidSocket; }
  // A read that came back short has taken everything: what arrives later is an event of its own.
  std::int64_t AvailableBytes() override { return m_drained ? 0 : 1; }
  bool Receive(websocket::ReceiveBuffer& buffer, std::size_t atMost) override {
    const std::size_t wanted = std::min(atMost, websocket::kMinRead);
    const auto room = buffer.Prepare(wanted);  // more when the buffer has it
    const std::size_t asked = std::min(room.size(), atMost);
    const std::int32_t count = m_socket->Receive(room.first(asked));
    m_drained = count < static_cast<std::int32_t>(asked);
    if (count < 1) return false;
    buffer.Commit(static_cast<std::size_t>(count));
    return true;
  }
  bool SendArray(websocket::BytesView bytes) override {
    m_unsent.insert(m_unsent.end(), bytes.begin(), bytes.end());
    return Flush();
  }
  bool SendText(std::string_view text) override {
    return SendArray({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  }
  void Close_() override {}
  void ShutDown() override { m_socket->ShutDown(); }
  void CloseSocket() override { m_socket->Close_(); }
  std::string RemoteHostName() const override { return {}; }
  std::string GetErrorDescription(std::int32_t errorCode) const override {
    return sockets::cAsyncSocket::GetErrorDescription(errorCode);
  }

  void OnResolve(sockets::cAsyncSocket&, std::string_view ipAddress) override {
    if (const auto events = m_events.lock()) events->OnResolve(ipAddress);
  }
  void OnConnect(sockets::cAsyncSocket&) override {
    if (const auto events = m_events.lock()) events->OnConnect();
  }
  void OnReceive(sockets::cAsyncSocket&) override {
    m_drained = false;
    if (const auto events = m_events.lock()) events->OnReceive();
  }
  void OnClose(sockets::cAsyncSocket&) override {
    if (const auto events = m_events.lock()) events->OnClose();
  }
  void OnSend(sockets::cAsyncSocket&) override { Flush(); }
  void OnError(sockets::cAsyncSocket&, std::int32_t errorCode, std::int32_t eventMask) override {
    if (const auto events = m_events.lock()) events->OnError(errorCode, eventMask);
  }

 private:
  bool Flush() {
    while (m_sent < m_unsent.size()) {
      const std::int32_t count = m_socket->Send(websocket::BytesView(m_unsent).subspan(m_sent));
      if (count < 0) return m_socket->HasPendingEvent();
      m_sent += static_cast<std::size_t>(count);
    }
    m_unsent.clear();
    m_sent = 0;
    return true;
  }

  std::weak_ptr<websocket::TransportEvents> m_events;
  std::shared_ptr<sockets::cAsyncSocket> m_socket;
  websocket::Bytes m_unsent;  // from m_sent on
  std::size_t m_sent = 0;
  bool m_drained = true;
};

}  // namespace quenmark::test
