#include "platform/socket_api.h"

#include "platform/winsock_errors.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

namespace quenmark::platform {
namespace {

enum class OptionKind { kValue, kReadOnly, kBuffer, kMilliseconds, kLinger, kDoNotLinger, kError };

struct OptionRow {
  std::int32_t level;  // Winsock's
  std::int32_t name;
  int systemLevel;
  int systemName;
  OptionKind kind;
};

constexpr OptionRow kOptions[] = {
    {kSolSocket, 0x0001, SOL_SOCKET, SO_DEBUG, OptionKind::kValue},
    {kSolSocket, 0x0002, SOL_SOCKET, SO_ACCEPTCONN, OptionKind::kReadOnly},
    {kSolSocket, 0x0004, SOL_SOCKET, SO_REUSEADDR, OptionKind::kValue},
    {kSolSocket, 0x0008, SOL_SOCKET, SO_KEEPALIVE, OptionKind::kValue},
    {kSolSocket, 0x0010, SOL_SOCKET, SO_DONTROUTE, OptionKind::kValue},
    {kSolSocket, 0x0020, SOL_SOCKET, SO_BROADCAST, OptionKind::kValue},
    {kSolSocket, 0x0080, SOL_SOCKET, SO_LINGER, OptionKind::kLinger},
    {kSolSocket, ~0x0080, SOL_SOCKET, SO_LINGER, OptionKind::kDoNotLinger},
    {kSolSocket, 0x0100, SOL_SOCKET, SO_OOBINLINE, OptionKind::kValue},
    {kSolSocket, 0x1001, SOL_SOCKET, SO_SNDBUF, OptionKind::kBuffer},
    {kSolSocket, 0x1002, SOL_SOCKET, SO_RCVBUF, OptionKind::kBuffer},
    {kSolSocket, 0x1003, SOL_SOCKET, SO_SNDLOWAT, OptionKind::kReadOnly},
    {kSolSocket, 0x1004, SOL_SOCKET, SO_RCVLOWAT, OptionKind::kValue},
    {kSolSocket, 0x1005, SOL_SOCKET, SO_SNDTIMEO, OptionKind::kMilliseconds},
    {kSolSocket, 0x1006, SOL_SOCKET, SO_RCVTIMEO, OptionKind::kMilliseconds},
    {kSolSocket, 0x1007, SOL_SOCKET, SO_ERROR, OptionKind::kError},
    {kSolSocket, 0x1008, SOL_SOCKET, SO_TYPE, OptionKind::kReadOnly},
    {6, 1, IPPROTO_TCP, TCP_NODELAY, OptionKind::kValue},
    {6, 3, IPPROTO_TCP, TCP_KEEPIDLE, OptionKind::kValue},
    {6, 16, IPPROTO_TCP, TCP_KEEPCNT, OptionKind::kValue},
    {6, 17, IPPROTO_TCP, TCP_KEEPINTVL, OptionKind::kValue},
    {0, 3, IPPROTO_IP, IP_TOS, OptionKind::kValue},
    {0, 4, IPPROTO_IP, IP_TTL, OptionKind::kValue},
    {0, 10, IPPROTO_IP, IP_MULTICAST_TTL, OptionKind::kValue},
    {0, 11, IPPROTO_IP, IP_MULTICAST_LOOP, OptionKind::kValue},
};

struct CommandRow {
  std::int32_t command;  // Winsock's
  unsigned long systemCommand;
};

constexpr CommandRow kCommands[] = {
    {kIoBytesToRead, FIONREAD},
    {kIoNonBlocking, FIONBIO},
    {0x40047307, SIOCATMARK},
};

struct FlagRow {
  std::int32_t flag;  // Winsock's
  int systemFlag;
};

constexpr FlagRow kFlags[] = {
    {kMessageOutOfBand, MSG_OOB},
    {kMessagePeek, MSG_PEEK},
    {4, MSG_DONTROUTE},
    {8, MSG_WAITALL},
};

const OptionRow* FindOption(std::int32_t level, std::int32_t name) {
  const auto* found = std::find_if(std::begin(kOptions), std::end(kOptions),
                                   [&](const OptionRow& row) { return row.level == level && row.name == name; });
  return found == std::end(kOptions) ? nullptr : found;
}

// Nothing when a flag has no counterpart.
std::optional<int> SystemFlags(std::int32_t flags) {
  int result = MSG_DONTWAIT | MSG_NOSIGNAL;
  for (const FlagRow& row : kFlags) {
    if ((flags & row.flag) != 0) result |= row.systemFlag;
    flags &= ~row.flag;
  }
  if (flags != 0) return std::nullopt;
  return result;
}

SocketResult Outcome(std::int64_t result) {
  if (result < 0) return SocketResult::Failure(WinsockErrorOf(errno));
  return {static_cast<std::int32_t>(result), 0};
}

std::size_t CountLimit(std::size_t size) {
  return std::min(size, static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max()));
}

sockaddr_in RecordOf(const InetAddress& address) {
  sockaddr_in record{};
  record.sin_family = AF_INET;
  record.sin_port = htons(address.port);
  std::memcpy(&record.sin_addr, address.host.data(), address.host.size());
  return record;
}

InetAddress AddressOf(const sockaddr_in& record) {
  InetAddress address;
  address.port = ntohs(record.sin_port);
  std::memcpy(address.host.data(), &record.sin_addr, address.host.size());
  return address;
}

const sockaddr* Generic(const sockaddr_in& record) {
  return reinterpret_cast<const sockaddr*>(&record);
}

template <typename Call>
SocketResult NameOf(Call call, SocketHandle handle, InetAddress& address) {
  sockaddr_in record{};
  socklen_t size = sizeof(record);
  const SocketResult result = Outcome(call(handle, reinterpret_cast<sockaddr*>(&record), &size));
  if (result.Ok()) address = AddressOf(record);
  return result;
}

}  // namespace

SocketResult SystemSocketApi::Open(std::int32_t type) {
  if (type < 1 || type > 3) return SocketResult::Failure(10044);
  return Outcome(socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

SocketResult SystemSocketApi::Close(SocketHandle handle) {
  return Outcome(close(handle));
}

SocketResult SystemSocketApi::Duplicate(SocketHandle handle) {
  return Outcome(fcntl(handle, F_DUPFD_CLOEXEC, 0));
}

SocketResult SystemSocketApi::Bind(SocketHandle handle, const InetAddress& address) {
  int type = 0;
  socklen_t size = sizeof(type);
  if (getsockopt(handle, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_STREAM) {
    const int reuse = 1;
    setsockopt(handle, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
  }
  const sockaddr_in record = RecordOf(address);
  return Outcome(bind(handle, Generic(record), sizeof(record)));
}

SocketResult SystemSocketApi::Listen(SocketHandle handle, std::int32_t backlog) {
  InetAddress own;
  if (SocketName(handle, own).Ok() && own.port == 0) return SocketResult::Failure(kWsaInvalid);
  return Outcome(listen(handle, std::clamp(backlog, 0, SOMAXCONN)));
}

SocketResult SystemSocketApi::Connect(SocketHandle handle, const InetAddress& address) {
  if (address.port == 0 || address.host == InetAddress{}.host) return SocketResult::Failure(kWsaAddressNotAvailable);
  const sockaddr_in record = RecordOf(address);
  return Outcome(connect(handle, Generic(record), sizeof(record)));
}

SocketResult SystemSocketApi::Accept(SocketHandle handle, InetAddress* peer) {
  sockaddr_in record{};
  socklen_t size = sizeof(record);
  const SocketResult result =
      Outcome(accept4(handle, reinterpret_cast<sockaddr*>(&record), &size, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (result.Ok() && peer != nullptr) *peer = AddressOf(record);
  return result;
}

SocketResult SystemSocketApi::ShutDown(SocketHandle handle, std::int32_t how) {
  constexpr std::array<int, 3> kDirections = {SHUT_RD, SHUT_WR, SHUT_RDWR};
  if (how < 0 || how > 2) return SocketResult::Failure(kWsaInvalid);
  return Outcome(shutdown(handle, kDirections[static_cast<std::size_t>(how)]));
}

SocketResult SystemSocketApi::Receive(SocketHandle handle, std::span<std::uint8_t> buffer, std::int32_t flags) {
  const std::optional<int> systemFlags = SystemFlags(flags);
  if (!systemFlags) return SocketResult::Failure(kWsaNotSupported);
  return Outcome(recv(handle, buffer.data(), CountLimit(buffer.size()), *systemFlags));
}

SocketResult SystemSocketApi::ReceiveFrom(SocketHandle handle, std::span<std::uint8_t> buffer, std::int32_t flags,
                                          std::optional<InetAddress>& sender) {
  const std::optional<int> systemFlags = SystemFlags(flags);
  if (!systemFlags) return SocketResult::Failure(kWsaNotSupported);
  sockaddr_in record{};
  iovec part{buffer.data(), CountLimit(buffer.size())};
  msghdr message{};
  message.msg_name = &record;
  message.msg_namelen = sizeof(record);
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  const SocketResult result = Outcome(recvmsg(handle, &message, *systemFlags));
  if (!result.Ok()) return result;
  if (message.msg_namelen == sizeof(record)) sender = AddressOf(record);
  return (message.msg_flags & MSG_TRUNC) != 0 ? SocketResult::Failure(kWsaMessageSize) : result;
}

SocketResult SystemSocketApi::Send(SocketHandle handle, std::span<const std::uint8_t> data, std::int32_t flags) {
  const std::optional<int> systemFlags = SystemFlags(flags);
  if (!systemFlags) return SocketResult::Failure(kWsaNotSupported);
  return Outcome(send(handle, data.data(), CountLimit(data.size()), *systemFlags));
}

SocketResult SystemSocketApi::SendTo(SocketHandle handle, std::span<const std::uint8_t> data, std::int32_t flags,
                                     const InetAddress& address) {
  const std::optional<int> systemFlags = SystemFlags(flags);
  if (!systemFlags) return SocketResult::Failure(kWsaNotSupported);
  const sockaddr_in record = RecordOf(address);
  return Outcome(sendto(handle, data.data(), CountLimit(data.size()), *systemFlags, Generic(record), sizeof(record)));
}

SocketResult SystemSocketApi::GetOption(SocketHandle handle, std::int32_t level, std::int32_t name) {
  const OptionRow* row = FindOption(level, name);
  if (row == nullptr) return SocketResult::Failure(kWsaNoProtocolOption);
  const auto read = [&](auto& value) {
    socklen_t size = sizeof(value);
    return Outcome(getsockopt(handle, row->systemLevel, row->systemName, &value, &size));
  };
  if (row->kind == OptionKind::kMilliseconds) {
    timeval time{};
    SocketResult result = read(time);
    const std::int64_t milliseconds = std::int64_t{time.tv_sec} * 1000 + time.tv_usec / 1000;
    if (result.Ok()) result.value = static_cast<std::int32_t>(std::min<std::int64_t>(milliseconds, INT32_MAX));
    return result;
  }
  if (row->kind == OptionKind::kLinger || row->kind == OptionKind::kDoNotLinger) {
    linger value{};
    SocketResult result = read(value);
    if (!result.Ok()) return result;
    const bool on = value.l_onoff != 0;
    result.value =
        row->kind == OptionKind::kDoNotLinger ? !on : (on ? 1 : 0) | (std::min(value.l_linger, 0x7FFF) << 16);
    return result;
  }
  int value = 0;
  SocketResult result = read(value);
  if (!result.Ok()) return result;
  if (row->kind == OptionKind::kError) value = WinsockErrorOf(value);
  // The kernel doubles what is asked for, for its own book-keeping.
  if (row->kind == OptionKind::kBuffer) value /= 2;
  result.value = value;
  return result;
}

SocketResult SystemSocketApi::SetOption(SocketHandle handle, std::int32_t level, std::int32_t name,
                                        std::int32_t value) {
  const OptionRow* row = FindOption(level, name);
  if (row == nullptr) return SocketResult::Failure(kWsaNoProtocolOption);
  const auto write = [&](const auto& record) {
    return Outcome(setsockopt(handle, row->systemLevel, row->systemName, &record, sizeof(record)));
  };
  switch (row->kind) {
    case OptionKind::kReadOnly:
    case OptionKind::kError:
      return SocketResult::Failure(kWsaNoProtocolOption);
    case OptionKind::kMilliseconds: {
      if (value < 0) return SocketResult::Failure(kWsaInvalid);
      return write(timeval{value / 1000, (value % 1000) * 1000});
    }
    case OptionKind::kLinger:
      return write(linger{(value & 0xFFFF) != 0, static_cast<int>(static_cast<std::uint32_t>(value) >> 16)});
    case OptionKind::kDoNotLinger:
      return write(linger{value == 0, 0});
    case OptionKind::kValue:
    case OptionKind::kBuffer:
      break;
  }
  return write(int{value});
}

SocketResult SystemSocketApi::IoControl(SocketHandle handle, std::int32_t command, std::int32_t& argument) {
  const auto* row = std::find_if(std::begin(kCommands), std::end(kCommands),
                                 [&](const CommandRow& entry) { return entry.command == command; });
  if (row == std::end(kCommands)) return SocketResult::Failure(kWsaNotSupported);
  int value = argument;
  const SocketResult result = Outcome(ioctl(handle, row->systemCommand, &value));
  if (result.Ok()) argument = value;
  return result;
}

SocketResult SystemSocketApi::PeerName(SocketHandle handle, InetAddress& address) {
  return NameOf(getpeername, handle, address);
}

SocketResult SystemSocketApi::SocketName(SocketHandle handle, InetAddress& address) {
  return NameOf(getsockname, handle, address);
}

SocketResult SystemSocketApi::Poll(SocketHandle handle) {
  pollfd entry{handle, POLLIN | POLLOUT, 0};
  const SocketResult result = Outcome(poll(&entry, 1, 0));
  if (!result.Ok()) return result;
  if ((entry.revents & POLLNVAL) != 0) return SocketResult::Failure(kWsaNotSocket);
  std::int32_t ready = 0;
  if ((entry.revents & POLLIN) != 0) ready |= kPollRead;
  if ((entry.revents & POLLOUT) != 0) ready |= kPollWrite;
  if ((entry.revents & (POLLHUP | POLLERR)) != 0) ready |= kPollHangUp;
  return {ready, 0};
}

SocketResult SystemSocketApi::HostName(std::string& name) {
  std::array<char, 256> buffer{};
  const SocketResult result = Outcome(gethostname(buffer.data(), buffer.size()));
  if (result.Ok()) name.assign(buffer.data(), strnlen(buffer.data(), buffer.size()));
  return result;
}

}  // namespace quenmark::platform
