// The socket calls of the system as Winsock describes them: its error codes, its option, command and flag numbers.
#pragma once

#include "platform/socket_address.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace quenmark::platform {

using SocketHandle = std::int32_t;
inline constexpr SocketHandle kInvalidSocket = -1;

// Numbers of Winsock that callers pass.
inline constexpr std::int32_t kSockStream = 1;
inline constexpr std::int32_t kSockDatagram = 2;
inline constexpr std::int32_t kShutReceive = 0;
inline constexpr std::int32_t kShutSend = 1;
inline constexpr std::int32_t kShutBoth = 2;
inline constexpr std::int32_t kMessageOutOfBand = 1;
inline constexpr std::int32_t kMessagePeek = 2;
inline constexpr std::int32_t kSolSocket = 0xFFFF;
inline constexpr std::int32_t kSoAcceptConnections = 2;
inline constexpr std::int32_t kSoSendBuffer = 0x1001;
inline constexpr std::int32_t kSoReceiveBuffer = 0x1002;
inline constexpr std::int32_t kSoSendTimeout = 0x1005;
inline constexpr std::int32_t kSoReceiveTimeout = 0x1006;
inline constexpr std::int32_t kSoError = 0x1007;
inline constexpr std::int32_t kSoType = 0x1008;
inline constexpr std::int32_t kIoBytesToRead = 0x4004667F;                              // FIONREAD
inline constexpr std::int32_t kIoNonBlocking = static_cast<std::int32_t>(0x8004667EU);  // FIONBIO

// What a call answers: a count, handle or value, or -1 and the Winsock code.
struct SocketResult {
  std::int32_t value = 0;
  std::int32_t error = 0;

  bool Ok() const { return error == 0; }
  static SocketResult Failure(std::int32_t code) { return {-1, code}; }
};

// What Poll tells, as a set of bits.
inline constexpr std::int32_t kPollRead = 1;
inline constexpr std::int32_t kPollWrite = 2;
inline constexpr std::int32_t kPollHangUp = 4;  // both directions are shut, or an error waits

// No call waits: sockets made here do not block, and no call is made on a blocking one without the flag that says so.
class SocketApi {
 public:
  virtual ~SocketApi() = default;

  virtual SocketResult Open(std::int32_t type) = 0;
  virtual SocketResult Close(SocketHandle handle) = 0;
  // A second handle of the same socket.
  virtual SocketResult Duplicate(SocketHandle handle) = 0;
  // A stream socket may take a port whose former connections are still being wound up.
  virtual SocketResult Bind(SocketHandle handle, const InetAddress& address) = 0;
  // Refused on an unbound socket.
  virtual SocketResult Listen(SocketHandle handle, std::int32_t backlog) = 0;
  // kWsaWouldBlock: under way. The address or port 0 is refused.
  virtual SocketResult Connect(SocketHandle handle, const InetAddress& address) = 0;
  // `peer` may be null.
  virtual SocketResult Accept(SocketHandle handle, InetAddress* peer) = 0;
  virtual SocketResult ShutDown(SocketHandle handle, std::int32_t how) = 0;
  virtual SocketResult Receive(SocketHandle handle, std::span<std::uint8_t> buffer, std::int32_t flags) = 0;
  // For datagrams: one that is larger than the buffer fills it and fails with kWsaMessageSize. `sender` is set when the
  // system knows one.
  virtual SocketResult ReceiveFrom(SocketHandle handle, std::span<std::uint8_t> buffer, std::int32_t flags,
                                   std::optional<InetAddress>& sender) = 0;
  virtual SocketResult Send(SocketHandle handle, std::span<const std::uint8_t> data, std::int32_t flags) = 0;
  virtual SocketResult SendTo(SocketHandle handle, std::span<const std::uint8_t> data, std::int32_t flags,
                              const InetAddress& address) = 0;
  // Options of four bytes; time-outs in ms, SO_LINGER as seconds in the high half and the switch in the low one.
  virtual SocketResult GetOption(SocketHandle handle, std::int32_t level, std::int32_t name) = 0;
  virtual SocketResult SetOption(SocketHandle handle, std::int32_t level, std::int32_t name, std::int32_t value) = 0;
  virtual SocketResult IoControl(SocketHandle handle, std::int32_t command, std::int32_t& argument) = 0;
  virtual SocketResult PeerName(SocketHandle handle, InetAddress& address) = 0;
  virtual SocketResult SocketName(SocketHandle handle, InetAddress& address) = 0;
  // What is ready at this moment.
  virtual SocketResult Poll(SocketHandle handle) = 0;
  virtual SocketResult HostName(std::string& name) = 0;
};

// The machine's sockets. Without state; may be used from any thread.
class SystemSocketApi final : public SocketApi {
 public:
  SocketResult Open(std::int32_t type) override;
  SocketResult Close(SocketHandle handle) override;
  SocketResult Duplicate(SocketHandle handle) override;
  SocketResult Bind(SocketHandle handle, const InetAddress& address) override;
  SocketResult Listen(SocketHandle handle, std::int32_t backlog) override;
  SocketResult Connect(SocketHandle handle, const InetAddress& address) override;
  SocketResult Accept(SocketHandle handle, InetAddress* peer) override;
  SocketResult ShutDown(SocketHandle handle, std::int32_t how) override;
  SocketResult Receive(SocketHandle handle, std::span<std::uint8_t> buffer, std::int32_t flags) override;
  SocketResult ReceiveFrom(SocketHandle handle, std::span<std::uint8_t> buffer, std::int32_t flags,
                           std::optional<InetAddress>& sender) override;
  SocketResult Send(SocketHandle handle, std::span<const std::uint8_t> data, std::int32_t flags) override;
  SocketResult SendTo(SocketHandle handle, std::span<const std::uint8_t> data, std::int32_t flags,
                      const InetAddress& address) override;
  SocketResult GetOption(SocketHandle handle, std::int32_t level, std::int32_t name) override;
  SocketResult SetOption(SocketHandle handle, std::int32_t level, std::int32_t name, std::int32_t value) override;
  SocketResult IoControl(SocketHandle handle, std::int32_t command, std::int32_t& argument) override;
  SocketResult PeerName(SocketHandle handle, InetAddress& address) override;
  SocketResult SocketName(SocketHandle handle, InetAddress& address) override;
  SocketResult Poll(SocketHandle handle) override;
  SocketResult HostName(std::string& name) override;
};

}  // namespace quenmark::platform
