#include "platform/socket_api.h"

#include "platform/winsock_errors.h"
#include "tests/support/plain_socket.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace quenmark::platform {
namespace {

constexpr std::int32_t kSoLinger = 0x80;
constexpr std::int32_t kSoDoNotLinger = ~0x80;

class SocketApiTest : public testing::Test {
 protected:
  test::Descriptor Open(std::int32_t type = kSockStream) { return test::Descriptor(m_api.Open(type).value); }

  SystemSocketApi m_api;
  std::array<std::uint8_t, 4> m_room{};
};

TEST_F(SocketApiTest, OptionsUseTheWinsockNumbersAndUnits) {
  const test::Descriptor socket = Open();
  struct Row {
    std::int32_t level, name, value;
  };
  for (const Row& row : {Row{kSolSocket, 0x0008, 1}, Row{kSolSocket, 0x0004, 1}, Row{kSolSocket, kSoSendBuffer, 20'000},
                         Row{kSolSocket, kSoReceiveBuffer, 30'000}, Row{kSolSocket, kSoReceiveTimeout, 1500},
                         Row{kSolSocket, kSoSendTimeout, 2000}, Row{kSolSocket, kSoLinger, (7 << 16) | 1},
                         Row{kSolSocket, kSoDoNotLinger, 1}, Row{6, 1, 1}, Row{0, 4, 33}}) {
    ASSERT_TRUE(m_api.SetOption(socket, row.level, row.name, row.value).Ok()) << row.name;
    const SocketResult read = m_api.GetOption(socket, row.level, row.name);
    EXPECT_TRUE(read.Ok()) << row.name;
    EXPECT_EQ(read.value, row.value) << row.name;
  }
  EXPECT_EQ(m_api.GetOption(Open(kSockDatagram), kSolSocket, kSoType).value, kSockDatagram);
  EXPECT_EQ(m_api.SetOption(socket, kSolSocket, kSoType, 1).error, kWsaNoProtocolOption);
  EXPECT_EQ(m_api.SetOption(socket, kSolSocket, kSoReceiveTimeout, -1).error, kWsaInvalid);
  EXPECT_EQ(m_api.GetOption(-1, kSolSocket, kSoType).error, kWsaNotSocket);
}

TEST_F(SocketApiTest, RefusesWhatTheDesktopPlatformRefuses) {
  const test::Descriptor socket = Open();
  EXPECT_EQ(m_api.Connect(socket, {{127, 0, 0, 1}, 0}).error, kWsaAddressNotAvailable);
  EXPECT_EQ(m_api.ShutDown(socket, 3).error, kWsaInvalid);
  EXPECT_EQ(m_api.ShutDown(socket, kShutSend).error, kWsaNotConnected);
  EXPECT_EQ(m_api.Open(77).error, 10044);
  std::int32_t argument = 0;
  EXPECT_EQ(m_api.IoControl(socket, 12345, argument).error, kWsaNotSupported);
  EXPECT_EQ(m_api.Receive(socket, m_room, 0x4000).error, kWsaNotSupported);
  EXPECT_EQ(m_api.Send(socket, m_room, 0x4000).error, kWsaNotSupported);
}

TEST_F(SocketApiTest, ADatagramLargerThanTheBufferFillsItAndFails) {
  const test::Descriptor receiver(test::PlainSocket(kSockDatagram));
  const test::Descriptor sender = Open(kSockDatagram);
  const std::array<std::uint8_t, 10> data{1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  const auto port = static_cast<std::uint16_t>(test::PortOf(receiver));
  const test::Descriptor twin(m_api.Duplicate(receiver).value);  // a handle of the same socket
  EXPECT_NE(static_cast<int>(twin), static_cast<int>(receiver));
  EXPECT_EQ(m_api.Duplicate(-1).error, kWsaNotSocket);
  ASSERT_EQ(m_api.SendTo(sender, data, 0, {{127, 0, 0, 1}, port}).value, 10);
  std::optional<InetAddress> from;
  EXPECT_EQ(m_api.ReceiveFrom(twin, m_room, 0, from).error, kWsaMessageSize);
  EXPECT_EQ(m_room[3], 4);
  ASSERT_TRUE(from);
  EXPECT_EQ(from->port, test::PortOf(sender));
}

}  // namespace
}  // namespace quenmark::platform
