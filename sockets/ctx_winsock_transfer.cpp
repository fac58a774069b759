// Sending and receiving.
#include "platform/code_page_convert.h"
#include "platform/run_time_error.h"
#include "platform/winsock_errors.h"
#include "sockets/ctx_winsock.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

namespace quenmark::sockets {

using tls::Bytes;
using tls::BytesView;
using tls::cTlsSocket;

namespace {

constexpr std::int32_t kUnsupported = static_cast<std::int32_t>(0x80040000);
constexpr std::size_t kWorthCompacting = std::size_t{256} << 10;  // bytes sent in front of what waits
constexpr std::int64_t kLargestCount = std::numeric_limits<std::int32_t>::max();

struct DataType {
  std::string_view name;
  std::int32_t number;
};
constexpr DataType kDataTypes[] = {{"Empty", 0}, {"String", kTypeText}, {"Byte()", kTypeBytes},
                                   {"Long", 3},  {"Double", 5},         {"Boolean", 11}};
static_assert(std::size(kDataTypes) == std::variant_size_v<WinsockData>);

[[noreturn]] void RaiseUnsupported(std::string_view routine, const std::string& type) {
  throw platform::RunTimeError(kUnsupported, "Unsupported data type: " + type, fmt::format("ctxWinsock.{}", routine));
}

// Counts up while it lives.
class Counted {
 public:
  explicit Counted(int& count) : m_count(count) { ++m_count; }
  ~Counted() { --m_count; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

 private:
  int& m_count;
};

void Append(Bytes& to, BytesView bytes) {
  to.insert(to.end(), bytes.begin(), bytes.end());
}

}  // namespace

// --- Sending ---------------------------------------------------------------------------------------------------------

void ctxWinsock::SendData(const WinsockData& data) {
  const Keep keep(*this);
  const auto socket = pvSocket();
  if (socket == nullptr) return;
  if (const auto* text = std::get_if<std::string>(&data)) {
    Append(m_sendBuffer, cTlsSocket::ToTextArray(*text, platform::kCodePageSystem));
  } else if (const auto* bytes = std::get_if<Bytes>(&data)) {
    Append(m_sendBuffer, *bytes);
  } else {
    RaiseUnsupported("SendData", std::string(kDataTypes[data.index()].name));
  }
  if (!m_sendBuffer.empty()) pvSendStep();
}

// A step within a step, from a handler, leaves the sending to the outer one.
void ctxWinsock::pvSendStep() {
  if (m_sending > 0) return;
  const Keep keep(*this);
  const std::uint64_t generation = m_generation;
  {
    const Counted sending(m_sending);
    pvSendLoop(generation);
  }
  if (pvGoneSince(generation) || m_sendBuffer.empty() || m_sendPosition < m_sendBuffer.size()) return;
  if (!pvEverythingIsOut(*pvSocket())) return;  // OnSend follows
  pvClearSendBuffer();
  pvRaise(&WinsockEvents::SendComplete);
}

void ctxWinsock::pvSendLoop(std::uint64_t generation) {
  if (m_state == kStateClosed) pvRaiseConnect();
  const auto socket = pvGoneSince(generation) ? nullptr : pvSocket();
  while (socket != nullptr && !pvGoneSince(generation) && m_sendPosition < m_sendBuffer.size()) {
    const std::uint64_t epoch = m_sendEpoch;
    const std::uint64_t reports = m_reports;
    const std::int32_t sent = pvSendOnce(*socket);
    if (sent < 0) {
      // A fault of TLS has been reported by now.
      if (!socket->HasPendingEvent() && !pvGoneSince(generation) && m_reports == reports) {
        pvReport(pvFaultOf(socket->LastError()), false);
      }
      return;
    }
    if (pvGoneSince(generation)) return;
    if (epoch != m_sendEpoch) continue;
    m_sendPosition += static_cast<std::size_t>(sent);
    pvRaise(&WinsockEvents::SendProgress, m_sendDropped + static_cast<std::int64_t>(m_sendPosition),
            static_cast<std::int64_t>(m_sendBuffer.size() - m_sendPosition));
    if (epoch == m_sendEpoch && m_sendPosition >= kWorthCompacting && m_sendPosition * 2 >= m_sendBuffer.size() &&
        m_sendPosition < m_sendBuffer.size()) {
      m_sendBuffer.erase(m_sendBuffer.begin(), m_sendBuffer.begin() + static_cast<std::ptrdiff_t>(m_sendPosition));
      m_sendDropped += static_cast<std::int64_t>(std::exchange(m_sendPosition, 0));
    }
  }
}

std::int32_t ctxWinsock::pvSendOnce(cTlsSocket& socket) {
  const BytesView rest = BytesView(m_sendBuffer).subspan(m_sendPosition);
  if (m_protocol == kProtocolUdp) {
    const Bytes datagram(rest.begin(), rest.end());  // messages run while a name is looked up
    return socket.Send(datagram, m_remoteHost, m_remotePort);
  }
  if (socket.UseTls() && !tls::TlsIsStarted(socket.Engine())) {
    // Nothing is taken before the transport is connected: the handshake would begin with a clean slate.
    socket.Socket()->SetLastError(platform::kWsaNotConnected);
    return -1;
  }
  const std::int32_t sent = socket.Send(rest, m_remoteHost, m_remotePort);
  if (sent > 0) m_tlsSubmitted += sent;
  return sent;
}

// A TLS socket takes everything at once and sends it by and by.
bool ctxWinsock::pvEverythingIsOut(const cTlsSocket& socket) const {
  return !socket.UseTls() || m_tlsSubmitted > kLargestCount || socket.LastSendBytes() >= m_tlsSubmitted;
}

// --- Receiving -------------------------------------------------------------------------------------------------------

std::int32_t ctxWinsock::pvWantedType(const WinsockData& data, std::int32_t type, std::string_view routine) {
  if (type == kTypeOfVariable) type = kDataTypes[data.index()].number;
  if (type != kTypeText && type != kTypeBytes) RaiseUnsupported(routine, fmt::format("{}", type));
  return type;
}

void ctxWinsock::pvPut(WinsockData& data, std::int32_t type, Bytes bytes) {
  if (type == kTypeBytes) {
    data = std::move(bytes);
  } else {
    data = cTlsSocket::FromTextArray(bytes, platform::kCodePageSystem);
  }
}

Bytes ctxWinsock::pvReadSocket(std::int32_t maxLen) {
  const auto socket = pvSocket();
  if (socket == nullptr) return {};
  // A connection that is only offered is not notified of until somebody takes it, or reads from it.
  if (m_incoming != nullptr && maxLen >= 0) socket->Socket()->AsyncSelect(platform::kFdAll);
  Bytes bytes;
  if (maxLen < 0 && socket->AvailableBytes() < 1) return bytes;
  {
    const Counted reading(m_reads);
    (void)socket->SyncReceiveArray(bytes, std::max(maxLen, 0), m_timeout);
  }
  if (m_reads == 0 && m_socket != nullptr) {
    m_socket->Socket()->SyncRequeueMsgQueue();  // before what the last receive call has set off
    if (maxLen >= 0 || m_closeWaits) pvPostAfterRead();
  }
  return bytes;
}

void ctxWinsock::GetData(WinsockData& data, std::int32_t type, std::int32_t maxLen) {
  type = pvWantedType(data, type, "GetData");
  const Keep keep(*this);
  Bytes bytes;
  if (m_receiveBuffer.empty()) {
    bytes = pvReadSocket(maxLen);
  } else if (maxLen < 0 || static_cast<std::size_t>(maxLen) >= m_receiveBuffer.size()) {
    bytes.swap(m_receiveBuffer);
  } else {
    const auto end = m_receiveBuffer.begin() + maxLen;
    bytes.assign(m_receiveBuffer.begin(), end);
    m_receiveBuffer.erase(m_receiveBuffer.begin(), end);
  }
  pvPut(data, type, std::move(bytes));
}

void ctxWinsock::PeekData(WinsockData& data, std::int32_t type, std::int32_t maxLen) {
  type = pvWantedType(data, type, "PeekData");
  const Keep keep(*this);
  Bytes bytes = pvReadSocket(maxLen);
  Append(m_receiveBuffer, bytes);
  pvPut(data, type, std::move(bytes));
}

// What a read has left behind is told when its caller has had the data, and so is what the reads of a request's handler
// have left to whoever took the connection.
void ctxWinsock::pvPostAfterRead() {
  if (m_window == 0) {
    m_window = m_loop.CreateHiddenWindow({}, [weak = weak_from_this()](const platform::Message&) {
      if (const auto control = weak.lock()) control->pvAfterRead();
    });
  }
  m_loop.Post({m_window, platform::kMessageUser, 0, 0});
}

// Events that arrived during the wait, a DataArrival for what TLS has decrypted beyond the bytes taken, and the end.
void ctxWinsock::pvAfterRead() {
  if (m_socket == nullptr || m_reads > 0) return;
  const Keep keep(*this, 1);
  const std::uint64_t generation = m_generation;
  const auto socket = m_socket;
  const bool isOpen = !socket->UseTls() || socket->Engine().handshakesCompleted > 0;
  if (m_accepted && m_state == kStateClosed && isOpen) pvRaiseConnect();
  if (!pvGoneSince(generation)) socket->Socket()->SyncProcessMsgQueue();
  if (pvGoneSince(generation)) return;
  if (m_closeWaits) return pvEndConnection();
  if (m_state != kStateConnected || !socket->UseTls()) return;
  const std::int32_t available = socket->AvailableBytes();
  if (available > 0) pvRaise(&WinsockEvents::DataArrival, available);
}

}  // namespace quenmark::sockets
