// Receiving and sending, at once and with waiting.
#include "platform/code_page.h"
#include "platform/winsock_errors.h"
#include "sockets/async_socket.h"

#include <algorithm>
#include <chrono>
#include <limits>

namespace quenmark::sockets {

using platform::InetAddress;
using platform::kFdRead;
using platform::kFdWrite;
using platform::SocketResult;

namespace {

constexpr std::int32_t kDefaultTimeout = 5000;  // ms
constexpr std::int32_t kSmallestBuffer = 4096;  // bytes, where the socket does not tell its own

}  // namespace

// --- At once ---------------------------------------------------------------------------------------------------------

SocketResult cAsyncSocket::pvReceiveOnce(std::span<std::uint8_t> buffer, std::string* hostAddress,
                                         std::int32_t* hostPort, std::int32_t flags) {
  if (m_handle == platform::kInvalidSocket) return SocketResult::Failure(platform::kWsaNotSocket);
  platform::SocketNotifier& notifier = m_helper->Notifier();
  const bool senderWanted = hostAddress != nullptr && *hostAddress != kNoSender;
  if (!senderWanted && !pvIsDatagram()) return notifier.Receive(m_handle, buffer, flags);
  std::optional<InetAddress> sender;
  const SocketResult result = notifier.ReceiveFrom(m_handle, buffer, flags, sender);
  if (senderWanted && sender) {
    *hostAddress = platform::HostText(sender->host);
    if (hostPort != nullptr) *hostPort = sender->port;
  }
  return result;
}

std::int32_t cAsyncSocket::Receive(std::span<std::uint8_t> buffer, std::string* hostAddress, std::int32_t* hostPort,
                                   std::int32_t flags) {
  if (!pvHasHandle()) return -1;
  if (buffer.empty()) {
    m_helper->Notifier().Rearm(m_handle);
    pvSucceed();
    return 0;
  }
  const SocketResult result = pvReceiveOnce(buffer, hostAddress, hostPort, flags);
  return pvResult(result) ? result.value : -1;
}

bool cAsyncSocket::ReceiveArray(std::vector<std::uint8_t>& buffer, std::string* hostAddress, std::int32_t* hostPort,
                                std::int32_t flags) {
  const std::int32_t available = AvailableBytes();
  if (available < 1) {
    buffer.clear();
    return pvSucceed();
  }
  buffer.resize(static_cast<std::size_t>(available));
  std::size_t total = 0;
  while (total < buffer.size()) {
    const SocketResult result = pvReceiveOnce(std::span(buffer).subspan(total), hostAddress, hostPort, flags);
    if (result.Ok()) total += static_cast<std::size_t>(result.value);
    if (result.Ok() && result.value > 0 && !pvIsDatagram()) continue;
    buffer.resize(total);
    return pvResult(result);
  }
  return pvSucceed();
}

std::string cAsyncSocket::ReceiveText(std::string* hostAddress, std::int32_t* hostPort, std::int32_t codePage) {
  std::vector<std::uint8_t> buffer;
  ReceiveArray(buffer, hostAddress, hostPort);
  return FromTextArray(buffer, codePage);
}

std::int32_t cAsyncSocket::pvSendOnce(std::span<const std::uint8_t> data, const std::optional<InetAddress>& destination,
                                      std::int32_t flags) {
  m_lastSendBytes =
      static_cast<std::int32_t>(std::min<std::size_t>(data.size(), std::numeric_limits<std::int32_t>::max()));
  if (!pvHasHandle()) return -1;
  platform::SocketNotifier& notifier = m_helper->Notifier();
  const SocketResult result =
      destination ? notifier.SendTo(m_handle, data, flags, *destination) : notifier.Send(m_handle, data, flags);
  return pvResult(result) ? result.value : -1;
}

std::int32_t cAsyncSocket::Send(std::span<const std::uint8_t> data, std::string_view hostAddress, std::int32_t hostPort,
                                std::int32_t flags) {
  std::optional<InetAddress> destination;
  if (!pvHasHandle() || !pvDestination(hostAddress, hostPort, destination)) return -1;
  return pvSendOnce(data, destination, flags);
}

bool cAsyncSocket::SendArray(std::span<const std::uint8_t> buffer, std::string_view hostAddress, std::int32_t hostPort,
                             std::int32_t flags) {
  std::optional<InetAddress> destination;
  if (!pvHasHandle() || !pvDestination(hostAddress, hostPort, destination)) return false;
  while (!buffer.empty()) {
    const std::int32_t sent = pvSendOnce(buffer, destination, flags);
    if (sent < 0) return false;
    buffer = buffer.subspan(static_cast<std::size_t>(sent));
  }
  return pvSucceed();
}

bool cAsyncSocket::SendText(std::string_view text, std::string_view hostAddress, std::int32_t hostPort,
                            std::int32_t codePage) {
  return SendArray(ToTextArray(text, codePage), hostAddress, hostPort);
}

std::string cAsyncSocket::FromTextArray(std::span<const std::uint8_t> text, std::int32_t codePage) {
  return platform::TextFromBytes(text, codePage);
}

std::vector<std::uint8_t> cAsyncSocket::ToTextArray(std::string_view text, std::int32_t codePage) {
  return platform::BytesFromText(text, codePage);
}

// --- With waiting ----------------------------------------------------------------------------------------------------

std::int32_t cAsyncSocket::pvTimeout(std::int32_t timeout, std::int32_t optionName) {
  if (timeout == 0) timeout = SockOpt(optionName);
  return timeout == 0 ? kDefaultTimeout : timeout;
}

std::int32_t cAsyncSocket::pvElapsed(platform::MonotonicTime since) {
  const auto elapsed = m_helper->Loop().TheClock().Monotonic() - since;
  const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
  return static_cast<std::int32_t>(std::min<std::int64_t>(milliseconds, std::numeric_limits<std::int32_t>::max()));
}

bool cAsyncSocket::SyncConnect(std::string_view hostAddress, std::int32_t hostPort, std::int32_t timeout) {
  const Keep keep(*this);
  return Connect(hostAddress, hostPort) &&
         SyncWaitForEvent(timeout == 0 ? kDefaultTimeout : timeout, platform::kFdConnect);
}

bool cAsyncSocket::SyncReceiveArray(std::vector<std::uint8_t>& buffer, std::int32_t needLen, std::int32_t timeout,
                                    std::string* hostAddress, std::int32_t* hostPort, std::int32_t flags) {
  const Keep keep(*this);
  buffer.clear();
  if (!pvHasHandle()) return false;
  timeout = pvTimeout(timeout, platform::kSoReceiveTimeout);
  std::int32_t size = std::max(needLen, 0);
  if (size < 1) size = AvailableBytes();
  if (size < 1) size = SockOpt(platform::kSoReceiveBuffer);
  if (size < 1) size = kSmallestBuffer;
  buffer.resize(static_cast<std::size_t>(size));
  const platform::MonotonicTime start = m_helper->Loop().TheClock().Monotonic();
  std::size_t total = 0;
  for (;;) {
    const std::int32_t count = Receive(std::span(buffer).subspan(total), hostAddress, hostPort, flags);
    if (count < 0 && !HasPendingEvent()) break;
    if (count > 0) {
      total += static_cast<std::size_t>(count);
      if (needLen < 1 || total == buffer.size()) break;
    }
    const std::int32_t elapsed = pvElapsed(start);
    if (timeout > 0 && elapsed >= timeout) {
      m_lastError = platform::kTimeoutResult;
      break;
    }
    if (!SyncWaitForEvent(timeout > 0 ? timeout - elapsed : timeout, kFdRead)) break;
  }
  buffer.resize(total);
  return m_lastError == 0;
}

std::string cAsyncSocket::SyncReceiveText(std::int32_t needLen, std::int32_t timeout, std::string* hostAddress,
                                          std::int32_t* hostPort, std::int32_t codePage) {
  const Keep keep(*this);
  if (!pvHasHandle()) return {};
  timeout = pvTimeout(timeout, platform::kSoReceiveTimeout);
  const platform::MonotonicTime start = m_helper->Loop().TheClock().Monotonic();
  std::vector<std::uint8_t> all;
  std::vector<std::uint8_t> part;
  std::int32_t left = timeout;
  // No code page yields more than two units for a byte: with fewer bytes the text cannot be long enough, and converting
  // it would be for nothing.
  const auto needed = static_cast<std::size_t>(std::max(needLen, 0));
  std::size_t enough = (needed + 1) / 2;
  for (;;) {
    const bool received = SyncReceiveArray(part, 0, left, hostAddress, hostPort);
    all.insert(all.end(), part.begin(), part.end());
    if (!received || needLen <= 0) break;
    if (all.size() >= enough) {
      const std::size_t units = platform::Utf16Length(FromTextArray(all, codePage));
      if (units >= needed) break;
      enough = all.size() + (needed - units + 1) / 2;
    }
    if (timeout <= 0) continue;
    left = timeout - pvElapsed(start);
    if (left <= 0) {
      m_lastError = platform::kTimeoutResult;
      break;
    }
  }
  return FromTextArray(all, codePage);
}

bool cAsyncSocket::SyncReceive(std::span<std::uint8_t> buffer, std::int32_t& received, std::int32_t timeout,
                               std::string* hostAddress, std::int32_t* hostPort, std::int32_t flags) {
  const Keep keep(*this);
  received = 0;
  if (!pvHasHandle()) return false;
  timeout = pvTimeout(timeout, platform::kSoReceiveTimeout);
  if (buffer.empty()) return pvSucceed();
  do {
    received = std::max(Receive(buffer, hostAddress, hostPort, flags), 0);
    if (received > 0) return true;
    if (m_lastError != 0 && !HasPendingEvent()) return false;
  } while (SyncWaitForEvent(timeout, kFdRead));
  return false;
}

bool cAsyncSocket::SyncSend(std::span<const std::uint8_t> data, std::int32_t timeout, std::string_view hostAddress,
                            std::int32_t hostPort, std::int32_t flags) {
  const Keep keep(*this);
  std::optional<InetAddress> destination;
  if (!pvHasHandle() || !pvDestination(hostAddress, hostPort, destination)) return false;
  timeout = pvTimeout(timeout, platform::kSoSendTimeout);
  while (!data.empty()) {
    const std::int32_t sent = pvSendOnce(data, destination, flags);
    if (sent >= 0) {
      data = data.subspan(static_cast<std::size_t>(sent));
    } else if (!HasPendingEvent() || !SyncWaitForEvent(timeout, kFdWrite)) {
      return false;
    }
  }
  return pvSucceed();
}

bool cAsyncSocket::SyncSendArray(std::span<const std::uint8_t> buffer, std::int32_t timeout,
                                 std::string_view hostAddress, std::int32_t hostPort, std::int32_t flags) {
  return buffer.empty() ? pvSucceed() : SyncSend(buffer, timeout, hostAddress, hostPort, flags);
}

bool cAsyncSocket::SyncSendText(std::string_view text, std::int32_t timeout, std::string_view hostAddress,
                                std::int32_t hostPort, std::int32_t codePage) {
  return SyncSendArray(ToTextArray(text, codePage), timeout, hostAddress, hostPort);
}

}  // namespace quenmark::sockets
