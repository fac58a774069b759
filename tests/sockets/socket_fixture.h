// What the socket tests share: a loop with the real clock, an owner that writes down events, waits for conditions.
#pragma once

#include "platform/message_loop.h"
#include "sockets/async_socket.h"
#include "tests/support/plain_socket.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace quenmark::test {

using sockets::cAsyncSocket;
using Events = std::vector<std::string>;

// Writes every event down as "OnError 10061 16", "OnResolve 127.0.0.1", "Before 1"… and then runs what the test set for
// it. BeforeNotify and AfterNotify are written down on request only.
class Recorder : public sockets::AsyncSocketEvents {
 public:
  Events events;
  bool notify = false;
  std::function<void(cAsyncSocket&, const std::string& event)> act;
  bool cancelNext = false;
  bool pendingHandled = false;
  int pendingCalls = 0;

  void OnResolve(cAsyncSocket& socket, std::string_view ipAddress) override {
    Note(socket, fmt::format("OnResolve {}", ipAddress));
  }
  void OnAccept(cAsyncSocket& socket) override { Note(socket, "OnAccept"); }
  void OnClose(cAsyncSocket& socket) override { Note(socket, "OnClose"); }
  void OnConnect(cAsyncSocket& socket) override { Note(socket, "OnConnect"); }
  void OnReceive(cAsyncSocket& socket) override { Note(socket, "OnReceive"); }
  void OnSend(cAsyncSocket& socket) override { Note(socket, "OnSend"); }
  void OnError(cAsyncSocket& socket, std::int32_t errorCode, std::int32_t eventMask) override {
    EXPECT_EQ(socket.LastError(), errorCode);
    Note(socket, fmt::format("OnError {} {}", errorCode, eventMask));
  }
  void OnMessagePending(cAsyncSocket& socket, bool& handled) override {
    ++pendingCalls;
    handled = pendingHandled;
    if (act) act(socket, "OnMessagePending");
  }
  void BeforeNotify(cAsyncSocket& socket, std::int32_t eventMask, bool& cancel) override {
    cancel = std::exchange(cancelNext, false);
    if (notify) Note(socket, fmt::format("Before {}", eventMask));
  }
  void AfterNotify(cAsyncSocket& socket, std::int32_t eventMask) override {
    if (notify) Note(socket, fmt::format("After {}", eventMask));
  }

  bool Saw(std::string_view event) const { return Count(event) > 0; }
  std::ptrdiff_t Count(std::string_view event) const { return std::count(events.begin(), events.end(), event); }
  bool SawBegin(std::string_view start) const {
    return std::any_of(events.begin(), events.end(), [&](const auto& event) { return event.starts_with(start); });
  }

 private:
  void Note(cAsyncSocket& socket, const std::string& event) {
    EXPECT_GE(socket.SocketHandle(), 0) << event << " after the close";
    events.push_back(event);
    if (act) act(socket, event);
  }
};

class SocketTest : public testing::Test {
 protected:
  using milliseconds = std::chrono::milliseconds;

  std::shared_ptr<cAsyncSocket> NewSocket() {
    auto socket = cAsyncSocket::New(m_loop, m_services);
    socket->SetEvents(m_recorder);
    return socket;
  }
  bool Wait(const std::function<bool()>& done) {
    return m_loop.WaitUntil(done, m_clock.Monotonic() + std::chrono::seconds{20});
  }
  bool WaitFor(std::string_view event) {
    return Wait([&] { return m_recorder->Saw(event); });
  }
  // Why m_socket's call did not succeed; 0: it did.
  std::int32_t ErrorOf(bool succeeded) const { return succeeded ? 0 : m_socket->LastError(); }
  // Lets everything that is on its way arrive.
  void Settle() { m_loop.Sleep(milliseconds{10}); }

  // `m_socket` with a connection to the plain `m_peer` that is still to be told.
  void StartPair() {
    m_listener = Descriptor(PlainListener());
    m_socket = NewSocket();
    ASSERT_TRUE(m_socket->Connect("127.0.0.1", PortOf(m_listener)));
    m_peer = Descriptor(PlainAccept(m_listener));
  }
  // The same, told; the events so far are forgotten.
  void ConnectPair() {
    StartPair();
    ASSERT_TRUE(WaitFor("OnSend"));
    m_recorder->events.clear();
  }
  // A listener of this side; its port.
  int Listen(cAsyncSocket& listener) {
    EXPECT_TRUE(listener.Create() && listener.Bind("127.0.0.1", 0) && listener.Listen());
    return PortOf(listener.SocketHandle());
  }
  // A datagram from m_peer to m_socket.
  void SendDatagram(std::string_view data) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(PortOf(m_socket->SocketHandle())));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(m_peer, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  }
  static std::string Pattern(std::size_t size) {
    std::string data(size, '\0');
    for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i * 7919) >> 3);
    return data;
  }
  static std::span<const std::uint8_t> Bytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
  }

  platform::SystemClock m_clock;
  platform::MessageLoop m_loop{m_clock};
  sockets::SocketServices m_services;
  std::shared_ptr<Recorder> m_recorder = std::make_shared<Recorder>();
  Descriptor m_listener;
  Descriptor m_peer;
  std::shared_ptr<cAsyncSocket> m_socket;
  std::array<std::uint8_t, 8> m_room{};  // for what is received
};

}  // namespace quenmark::test
