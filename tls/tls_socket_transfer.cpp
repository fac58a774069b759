// Receiving and sending, at once and with waiting.
#include "platform/code_page.h"
#include "platform/winsock_errors.h"
#include "tls/tls_socket.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

namespace quenmark::tls {

using platform::kFdConnect;
using platform::kFdRead;
using platform::kFdWrite;
using platform::MonotonicTime;

namespace {

constexpr std::int32_t kDefaultTimeout = 5000;                    // ms
constexpr std::size_t kSmallestSendBuffer = 4096;                 // bytes; no socket has less room
constexpr std::size_t kWorthCompacting = std::size_t{256} << 10;  // bytes sent in front of what waits
constexpr std::size_t kKeptCapacity = std::size_t{4} << 20;       // bytes of output buffer that outlive their use

}  // namespace

// --- Receiving -------------------------------------------------------------------------------------------------------

std::int32_t cTlsSocket::AvailableBytes() {
  if (!m_useTls) return m_oSocket->AvailableBytes();
  return static_cast<std::int32_t>(std::min<std::size_t>(pvPlainLength(), std::numeric_limits<std::int32_t>::max()));
}

// Appends up to `limit` bytes of the plaintext, all of it by exchange where that is possible.
bool cTlsSocket::pvTakePlain(Bytes& buffer, std::size_t limit) {
  const std::size_t count = std::min(limit, pvPlainLength());
  if (count == 0) return false;
  if (buffer.empty() && m_plainTaken == 0 && count == m_plain.size()) {
    buffer.swap(m_plain);
  } else {
    const auto start = m_plain.begin() + static_cast<std::ptrdiff_t>(m_plainTaken);
    buffer.insert(buffer.end(), start, start + static_cast<std::ptrdiff_t>(count));
    m_plainTaken += count;
  }
  if (m_plainTaken < m_plain.size()) return true;
  m_plain.clear();
  m_plainTaken = 0;
  pvRearm();
  return true;
}

bool cTlsSocket::ReceiveArray(Bytes& buffer, std::string* hostAddress, std::int32_t* hostPort) {
  if (!m_useTls) return m_oSocket->ReceiveArray(buffer, hostAddress, hostPort);
  const Keep keep(*this);
  buffer.clear();
  if (pvPlainLength() == 0) {
    if (TlsIsClosed(m_context)) return pvFailClosed();
    if (!pvOnReceive(Reader::kOwner)) return false;
  }
  pvTakePlain(buffer, std::numeric_limits<std::size_t>::max());
  return true;
}

bool cTlsSocket::ReceiveText(std::string& text, std::string* hostAddress, std::int32_t* hostPort,
                             std::int32_t codePage) {
  Bytes buffer;
  const bool done = ReceiveArray(buffer, hostAddress, hostPort);
  text = FromTextArray(buffer, codePage);
  return done;
}

// --- Sending ---------------------------------------------------------------------------------------------------------

std::int32_t cTlsSocket::LastSendBytes() const {
  if (!m_useTls) return m_oSocket->LastSendBytes();
  return static_cast<std::int32_t>(std::min<std::int64_t>(m_lastSendBytes, std::numeric_limits<std::int32_t>::max()));
}

// Hands the records to the transport as far as it takes them. False when it failed; the rest waits for room otherwise.
bool cTlsSocket::pvOnSend() {
  if (m_context.busy) return true;  // the engine has the buffer
  const std::size_t waiting = m_out.size() - m_sendPosition;
  std::size_t piece = kSmallestSendBuffer;
  if (waiting > piece) {
    piece = std::max(piece, static_cast<std::size_t>(std::max(m_oSocket->SockOpt(platform::kSoSendBuffer), 0)));
  }
  while (m_sendPosition < m_out.size()) {
    const BytesView rest = BytesView(m_out).subspan(m_sendPosition);
    const std::int32_t sent = m_oSocket->Send(rest.first(std::min(rest.size(), piece)));
    if (sent < 0) {
      if (!m_oSocket->HasPendingEvent()) return false;
      if (m_sendPosition >= kWorthCompacting && m_sendPosition >= rest.size()) {
        m_out.erase(m_out.begin(), m_out.begin() + static_cast<std::ptrdiff_t>(m_sendPosition));
        m_sendPosition = 0;
      }
      return true;
    }
    m_sendPosition += static_cast<std::size_t>(sent);
  }
  m_out.clear();
  m_sendPosition = 0;
  if (m_out.capacity() > kKeptCapacity) m_out.shrink_to_fit();
  if (pvEstablished() && m_unsent.empty()) m_lastSendBytes = m_plainSubmitted;
  return true;
}

bool cTlsSocket::SendArray(BytesView buffer, std::string_view hostAddress, std::int32_t hostPort) {
  if (!m_useTls) return m_oSocket->SendArray(buffer, hostAddress, hostPort);
  if (TlsIsClosed(m_context)) return pvFailClosed();
  m_plainSubmitted += static_cast<std::int64_t>(buffer.size());
  if (!pvEstablished() || m_context.busy) {
    m_unsent.insert(m_unsent.end(), buffer.begin(), buffer.end());
    return true;
  }
  if (TlsSend(m_context, buffer, m_out)) return pvOnSend();
  const Keep keep(*this);
  pvOnSend();
  pvRaiseEngineError(kFdWrite);
  return false;
}

bool cTlsSocket::SendText(std::string_view text, std::string_view hostAddress, std::int32_t hostPort,
                          std::int32_t codePage) {
  return SendArray(ToTextArray(text, codePage), hostAddress, hostPort);
}

std::int32_t cTlsSocket::Send(BytesView data, std::string_view hostAddress, std::int32_t hostPort) {
  if (!m_useTls) return m_oSocket->Send(data, hostAddress, hostPort);
  data = data.first(std::min<std::size_t>(data.size(), std::numeric_limits<std::int32_t>::max()));
  return SendArray(data, hostAddress, hostPort) ? static_cast<std::int32_t>(data.size()) : -1;
}

// --- With waiting ----------------------------------------------------------------------------------------------------

std::int32_t cTlsSocket::pvTimeout(std::int32_t timeout, std::int32_t optionName) {
  if (timeout == 0) timeout = m_oSocket->SockOpt(optionName);
  return timeout == 0 ? kDefaultTimeout : timeout;
}

// Milliseconds until then, at least 1; 0 when the time has come, -1 when there is no limit.
std::int32_t cTlsSocket::pvRemaining(MonotonicTime deadline) const {
  if (deadline == MonotonicTime::max()) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - m_loop.TheClock().Monotonic()).count();
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(left, 0, std::numeric_limits<std::int32_t>::max()));
}

bool cTlsSocket::pvTakeFired(std::int32_t eventMask) {
  const bool fired = (m_firedEvents & eventMask) != 0 || ((eventMask & kFdRead) != 0 && pvPlainLength() > 0);
  if (fired) m_firedEvents &= ~eventMask;
  return fired;
}

bool cTlsSocket::SyncWaitForEvent(std::int32_t timeout, std::int32_t eventMask) {
  if (!m_useTls || (eventMask & (kFdRead | kFdWrite | kFdConnect)) == 0) {
    return m_oSocket->SyncWaitForEvent(timeout, eventMask);
  }
  struct Waiting {
    explicit Waiting(int& count) : waits(count) { ++waits; }
    ~Waiting() { --waits; }
    int& waits;
  };
  const Keep keep(*this);
  const Waiting waiting(m_waits);
  const std::uint64_t generation = m_generation;
  const MonotonicTime deadline =
      timeout > 0 ? m_loop.TheClock().Monotonic() + std::chrono::milliseconds{timeout} : MonotonicTime::max();
  for (;;) {
    m_oSocket->SyncProcessMsgQueue();
    if (pvTakeFired(eventMask)) return true;
    if (m_context.state == State::kClosed) return pvFailClosed();
    if (m_transportError != 0) return pvFail(m_transportError);
    if (pvGoneSince(generation)) return pvFail(platform::kWsaInterrupted);
    const std::int32_t left = pvRemaining(deadline);
    if (left == 0) return pvFail(platform::kTimeoutResult);
    if (m_oSocket->SyncWaitForEvent(left, platform::kFdAll)) continue;
    const std::int32_t error = m_oSocket->LastError();
    m_oSocket->SyncProcessMsgQueue();
    if (pvTakeFired(eventMask)) return true;
    if (m_context.state == State::kClosed) return pvFailClosed();
    return pvFail(m_transportError != 0 ? m_transportError : error);
  }
}

bool cTlsSocket::SyncConnect(std::string_view hostAddress, std::int32_t hostPort, std::int32_t timeout, bool useTls,
                             std::uint32_t localFeatures, std::weak_ptr<ClientCertificateOwner> clientCertCallback,
                             std::string_view alpnProtocols) {
  const Keep keep(*this);
  return Connect(hostAddress, hostPort, useTls, localFeatures, std::move(clientCertCallback), alpnProtocols) &&
         SyncWaitForEvent(timeout == 0 ? kDefaultTimeout : timeout, kFdConnect);
}

bool cTlsSocket::SyncStartTls(std::string_view remoteHostName, std::int32_t timeout, std::uint32_t localFeatures,
                              std::weak_ptr<ClientCertificateOwner> clientCertCallback,
                              std::string_view alpnProtocols) {
  const Keep keep(*this);
  return StartTls(remoteHostName, localFeatures, std::move(clientCertCallback), alpnProtocols) &&
         SyncWaitForEvent(timeout == 0 ? kDefaultTimeout : timeout, kFdConnect);
}

bool cTlsSocket::SyncSendArray(BytesView buffer, std::int32_t timeout, std::string_view hostAddress,
                               std::int32_t hostPort) {
  if (!m_useTls) return m_oSocket->SyncSendArray(buffer, timeout, hostAddress, hostPort);
  const Keep keep(*this);
  timeout = pvTimeout(timeout, platform::kSoSendTimeout);
  if (!SendArray(buffer, hostAddress, hostPort)) return false;
  const MonotonicTime deadline =
      timeout > 0 ? m_loop.TheClock().Monotonic() + std::chrono::milliseconds{timeout} : MonotonicTime::max();
  while (!pvDrained()) {
    const std::int32_t left = pvRemaining(deadline);
    if (left == 0) return pvFail(platform::kTimeoutResult);
    if (!SyncWaitForEvent(left, kFdWrite | kFdConnect)) return false;
  }
  m_oSocket->SetLastError(0);
  return true;
}

bool cTlsSocket::SyncSendText(std::string_view text, std::int32_t timeout, std::string_view hostAddress,
                              std::int32_t hostPort, std::int32_t codePage) {
  return SyncSendArray(ToTextArray(text, codePage), timeout, hostAddress, hostPort);
}

bool cTlsSocket::SyncReceiveArray(Bytes& buffer, std::int32_t needLen, std::int32_t timeout, std::string* hostAddress,
                                  std::int32_t* hostPort) {
  if (!m_useTls) return m_oSocket->SyncReceiveArray(buffer, needLen, timeout, hostAddress, hostPort);
  const Keep keep(*this);
  buffer.clear();
  timeout = pvTimeout(timeout, platform::kSoReceiveTimeout);
  const MonotonicTime deadline =
      timeout > 0 ? m_loop.TheClock().Monotonic() + std::chrono::milliseconds{timeout} : MonotonicTime::max();
  const std::size_t needed = needLen > 0 ? static_cast<std::size_t>(needLen) : 1;
  const std::size_t limit = needLen > 0 ? needed : std::numeric_limits<std::size_t>::max();
  for (;;) {
    if (pvPlainLength() == 0 && !TlsIsClosed(m_context) && !pvOnReceive(Reader::kOwner)) return false;
    pvTakePlain(buffer, limit - buffer.size());
    if (buffer.size() >= needed) return true;
    if (TlsIsClosed(m_context)) return pvFailClosed();
    const std::int32_t left = pvRemaining(deadline);
    if (left == 0) return pvFail(platform::kTimeoutResult);
    if (!SyncWaitForEvent(left, kFdRead)) return false;
  }
}

bool cTlsSocket::SyncReceiveText(std::string& text, std::int32_t needLen, std::int32_t timeout,
                                 std::string* hostAddress, std::int32_t* hostPort, std::int32_t codePage) {
  const Keep keep(*this);
  if (!m_useTls) {
    text = m_oSocket->SyncReceiveText(needLen, timeout, hostAddress, hostPort, codePage);
    return m_oSocket->LastError() == 0;
  }
  timeout = pvTimeout(timeout, platform::kSoReceiveTimeout);
  const MonotonicTime deadline =
      timeout > 0 ? m_loop.TheClock().Monotonic() + std::chrono::milliseconds{timeout} : MonotonicTime::max();
  Bytes all;
  Bytes part;
  bool done = false;
  for (;;) {
    const std::int32_t left = pvRemaining(deadline);
    done = left == 0 ? pvFail(platform::kTimeoutResult) : SyncReceiveArray(part, 0, left);
    all.insert(all.end(), part.begin(), part.end());
    part.clear();
    if (!done || needLen <= 0) break;
    // No code page yields more than two units for a byte; converting earlier would be for nothing.
    if (all.size() * 2 < static_cast<std::size_t>(needLen)) continue;
    if (platform::Utf16Length(FromTextArray(all, codePage)) >= static_cast<std::size_t>(needLen)) break;
  }
  text = FromTextArray(all, codePage);
  return done;
}

}  // namespace quenmark::tls
