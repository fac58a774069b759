#include "platform/socket_notifier.h"

#include "platform/winsock_errors.h"
#include "tests/support/plain_socket.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <chrono>

namespace quenmark::platform {
namespace {

constexpr std::uint32_t kNumber = 2000;

class SocketNotifierTest : public testing::Test {
 protected:
  SocketNotifierTest() {
    m_window = m_loop.CreateHiddenWindow("notifier test", [this](const Message& message) {
      m_notifier.Taken(static_cast<SocketHandle>(message.wParam), static_cast<std::int32_t>(message.lParam));
      m_events.push_back(static_cast<std::int32_t>(message.lParam));
    });
  }
  ~SocketNotifierTest() override { m_notifier.Forget(m_socket); }

  void Connect() {
    m_listener = test::Descriptor(test::PlainListener());
    m_peer = test::Descriptor(test::PlainConnect(test::PortOf(m_listener)));
    m_socket = test::Descriptor(test::PlainAccept(m_listener));
    ASSERT_TRUE(m_notifier.Select(m_socket, m_window, kNumber, kFdAll).Ok());
    ASSERT_TRUE(Arrives(kFdWrite));
    m_events.clear();
  }
  bool Arrives(std::int32_t event) {
    const auto seen = [&] { return std::count(m_events.begin(), m_events.end(), event) > 0; };
    return m_loop.WaitUntil(seen, m_clock.Monotonic() + std::chrono::seconds{20});
  }

  SystemClock m_clock;
  MessageLoop m_loop{m_clock};
  SystemSocketApi m_api;
  SocketNotifier m_notifier{m_loop, m_api};
  WindowId m_window = 0;
  std::vector<std::int32_t> m_events;
  std::array<std::uint8_t, 10> m_room{};
  test::Descriptor m_listener;
  test::Descriptor m_peer;
  test::Descriptor m_socket;
};

TEST_F(SocketNotifierTest, ManySmallReceivesQueueOneRead) {
  Connect();
  test::PlainSend(m_peer, std::string(1000, 'x'));
  ASSERT_TRUE(Arrives(kFdRead));
  m_events.clear();
  for (int i = 0; i < 99; ++i) ASSERT_EQ(m_notifier.Receive(m_socket, m_room, 0).value, 10);
  m_loop.RunQueued();
  EXPECT_EQ(m_events, std::vector<std::int32_t>{kFdRead});
  ASSERT_EQ(m_notifier.Receive(m_socket, m_room, 0).value, 10);  // the last of them
  m_loop.RunQueued();
  EXPECT_EQ(m_events.size(), 1U);
  EXPECT_EQ(m_notifier.Select(-1, m_window, kNumber, kFdAll).error, kWsaNotSocket);
  EXPECT_EQ(m_notifier.Select(0x7FFFFFFF, m_window, kNumber, kFdAll).error, kWsaNotSocket);
  m_notifier.Forget(-1);
  m_notifier.Taken(-1, kFdRead);
}

TEST_F(SocketNotifierTest, APeekTellsAnew) {
  Connect();
  test::PlainSend(m_peer, "abc");
  ASSERT_TRUE(Arrives(kFdRead));
  m_events.clear();
  ASSERT_EQ(m_notifier.Receive(m_socket, m_room, kMessagePeek).value, 3);
  EXPECT_TRUE(Arrives(kFdRead));
}

// At the mark of urgent data the system's count is 0; what lies behind it is announced all the same.
TEST_F(SocketNotifierTest, UrgentDataIsAnEventOfItsOwnAndHidesNothing) {
  for (const bool urgentFirst : {false, true}) {
    for (const bool closes : {false, true}) {
      Connect();
      if (!urgentFirst) test::PlainSend(m_peer, "ab");
      ASSERT_EQ(send(m_peer, "!", 1, MSG_OOB), 1);
      test::PlainSend(m_peer, "cd");
      if (closes) m_peer.Close();
      ASSERT_TRUE(Arrives(kFdOutOfBand) && Arrives(kFdRead));
      ASSERT_EQ(m_notifier.Receive(m_socket, m_room, kMessageOutOfBand).value, 1);
      EXPECT_EQ(m_room[0], '!');
      if (!urgentFirst) {
        ASSERT_EQ(m_notifier.Receive(m_socket, m_room, 0).value, 2);
        m_events.clear();
        ASSERT_TRUE(Arrives(kFdRead));
      }
      EXPECT_GT(m_notifier.Available(m_socket).value, 0);
      EXPECT_EQ(std::count(m_events.begin(), m_events.end(), kFdClose), 0);
      EXPECT_EQ(m_notifier.Receive(m_socket, m_room, 0).value, 2);
      EXPECT_EQ(m_notifier.Available(m_socket).value, 0);
      if (!closes) test::PlainSend(m_peer, "ef");
      m_events.clear();
      EXPECT_TRUE(Arrives(closes ? kFdClose : kFdRead));
      m_notifier.Forget(m_socket);
    }
  }
}

TEST_F(SocketNotifierTest, UrgentDataIsToldOnceThoughMoreDataFollows) {
  Connect();
  ASSERT_EQ(send(m_peer, "!", 1, MSG_OOB), 1);
  test::PlainSend(m_peer, "a");
  ASSERT_TRUE(Arrives(kFdOutOfBand) && Arrives(kFdRead));
  test::PlainSend(m_peer, "b");
  m_loop.RunQueued();
  ASSERT_EQ(m_notifier.Receive(m_socket, m_room, kMessageOutOfBand).value, 1);
  ASSERT_EQ(m_notifier.Receive(m_socket, m_room, 0).value, 2);
  m_loop.RunQueued();
  EXPECT_EQ(std::count(m_events.begin(), m_events.end(), kFdOutOfBand), 1);
  m_events.clear();
  ASSERT_EQ(send(m_peer, "?", 1, MSG_OOB), 1);
  EXPECT_TRUE(Arrives(kFdOutOfBand));
}

TEST_F(SocketNotifierTest, AnErrorOfADatagramSocketDoesNotSilenceIt) {
  m_peer = test::Descriptor(test::PlainSocket(SOCK_DGRAM));
  m_socket = test::Descriptor(test::PlainSocket(SOCK_DGRAM));
  sockaddr_in own{};
  socklen_t size = sizeof(own);
  ASSERT_EQ(getsockname(m_socket, reinterpret_cast<sockaddr*>(&own), &size), 0);
  sockaddr_in other = own;
  other.sin_port = htons(static_cast<std::uint16_t>(test::PortOf(m_peer)));
  ASSERT_EQ(connect(m_socket, reinterpret_cast<const sockaddr*>(&other), size), 0);
  ASSERT_TRUE(m_notifier.Select(m_socket, m_window, kNumber, kFdAll).Ok());
  const auto peerSends = [&] { sendto(m_peer, "y", 1, 0, reinterpret_cast<const sockaddr*>(&own), size); };
  for (const bool dataFirst : {false, true}) {
    m_events.clear();
    if (dataFirst) peerSends();
    m_peer.Close();
    ASSERT_EQ(send(m_socket, "x", 1, 0), 1);
    ASSERT_TRUE(Arrives(kFdRead | (kWsaRefused << 16)));
    m_peer = test::Descriptor(socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_EQ(bind(m_peer, reinterpret_cast<const sockaddr*>(&other), size), 0);
    if (!dataFirst) peerSends();
    EXPECT_TRUE(Arrives(kFdRead));
    EXPECT_EQ(m_notifier.Receive(m_socket, m_room, 0).value, 1);
  }
}

// Shut for receiving, a datagram socket is readable for ever and gives empty answers for ever.
TEST_F(SocketNotifierTest, ADatagramSocketShutForReceivingIsQuiet) {
  for (const std::int32_t how : {kShutReceive, kShutBoth}) {
    m_socket = test::Descriptor(test::PlainSocket(SOCK_DGRAM));
    ASSERT_TRUE(m_notifier.Select(m_socket, m_window, kNumber, kFdAll).Ok());
    ASSERT_TRUE(Arrives(kFdWrite));
    m_notifier.ShutDown(m_socket, how);
    m_events.clear();
    for (int i = 0; i < 100; ++i) {
      m_loop.RunQueued();
      EXPECT_EQ(m_notifier.Available(m_socket).value, 0);
    }
    EXPECT_LE(m_events.size(), 1U);
    m_notifier.Forget(m_socket);
  }
}

// A connection that was made, ended and reset before the loop looks is told as made, its data first, whatever was
// called meanwhile.
TEST_F(SocketNotifierTest, ASendDoesNotTurnAConnectionThatWasMadeIntoAFailure) {
  for (const bool ends : {false, true}) {
    for (const bool sends : {false, true}) {
      m_listener = test::Descriptor(test::PlainListener());
      m_socket = test::Descriptor(m_api.Open(kSockStream).value);
      ASSERT_TRUE(m_notifier.Select(m_socket, m_window, kNumber, kFdAll).Ok());
      const auto port = static_cast<std::uint16_t>(test::PortOf(m_listener));
      ASSERT_EQ(m_notifier.Connect(m_socket, {{127, 0, 0, 1}, port}).error, kWsaWouldBlock);
      m_peer = test::Descriptor(test::PlainAccept(m_listener));
      test::PlainSend(m_peer, "abc");
      if (ends) {
        ASSERT_EQ(shutdown(m_peer, SHUT_WR), 0);
      }
      test::PlainReset(m_peer);
      std::array<std::uint8_t, 10> room{};
      for (int i = 0; sends && i < 2; ++i) {
        EXPECT_EQ(m_notifier.Send(m_socket, room, 0).error, kWsaConnectionReset);
      }
      m_events.clear();
      ASSERT_TRUE(Arrives(kFdRead)) << ends << sends;
      EXPECT_EQ(m_events, (std::vector<std::int32_t>{kFdConnect, kFdRead}));
      EXPECT_EQ(m_notifier.Receive(m_socket, room, 0).value, 3);
      EXPECT_TRUE(Arrives(kFdClose | (kWsaConnectionReset << 16)));
      m_notifier.Forget(m_socket);
    }
  }
}

}  // namespace
}  // namespace quenmark::platform
