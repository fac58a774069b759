// Properties, the connection and its events.
#include "sockets/ctx_winsock.h"

#include "platform/run_time_error.h"
#include "platform/winsock_errors.h"

#include <fmt/format.h>

#include <limits>
#include <utility>

namespace quenmark::sockets {

using tls::cTlsSocket;

namespace {

constexpr std::int32_t kDefaultTimeout = 5000;  // ms
constexpr std::int32_t kBacklog = 5;
constexpr std::int32_t kPlatformFault = static_cast<std::int32_t>(0x80070000);  // with the platform's code in it

constexpr std::string_view kLocalPort = "LocalPort";
constexpr std::string_view kProtocol = "Protocol";
constexpr std::string_view kRemoteHost = "RemoteHost";
constexpr std::string_view kRemotePort = "RemotePort";
constexpr std::string_view kTimeout = "Timeout";

}  // namespace

// The incoming socket of the ConnectionRequest in progress, for every control of the loop: whichever accepts it takes
// it over as it is.
struct ctxWinsock::IncomingSlot : std::enable_shared_from_this<IncomingSlot> {
  explicit IncomingSlot(platform::MessageLoop& owner) : loop(owner) {}
  ~IncomingSlot() { loop.DestroyWindow(window); }
  IncomingSlot(const IncomingSlot&) = delete;
  IncomingSlot& operator=(const IncomingSlot&) = delete;

  static std::shared_ptr<IncomingSlot> Of(platform::MessageLoop& loop) {
    constexpr std::string_view kName = "ctxWinsock incoming socket";
    if (const platform::WindowId found = loop.FindHiddenWindow(kName); found != 0) {
      if (auto slot = std::static_pointer_cast<IncomingSlot>(loop.WindowData(found))) return slot;
    }
    auto slot = std::make_shared<IncomingSlot>(loop);
    slot->window = loop.CreateHiddenWindow(kName, [](const platform::Message&) {});
    loop.SetWindowData(slot->window, slot->weak_from_this());
    return slot;
  }

  platform::MessageLoop& loop;
  platform::WindowId window = 0;
  std::shared_ptr<cTlsSocket> socket;
};

std::shared_ptr<ctxWinsock> ctxWinsock::New(platform::MessageLoop& loop,
                                            std::shared_ptr<tls::CertificateServices> certificates,
                                            const SocketServices& services) {
  return std::make_shared<ctxWinsock>(loop, std::move(certificates), services);
}

ctxWinsock::ctxWinsock(platform::MessageLoop& loop, std::shared_ptr<tls::CertificateServices> certificates,
                       SocketServices services)
    : m_loop(loop),
      m_certificates(std::move(certificates)),
      m_services(std::move(services)),
      m_shared(IncomingSlot::Of(loop)),
      m_timeout(kDefaultTimeout) {}

ctxWinsock::~ctxWinsock() {
  m_loop.DestroyWindow(m_window);
  pvRelease();
}

bool ctxWinsock::pvGoneSince(std::uint64_t generation) const {
  return m_generation != generation || weak_from_this().use_count() == m_keeps;
}

// --- State -----------------------------------------------------------------------------------------------------------

// A change of state empties both buffers; a connection that has just been accepted keeps what it was given to send.
void ctxWinsock::pvSetState(std::int32_t state, bool keepsUnsent) {
  if (std::exchange(m_state, state) == state) return;
  m_receiveBuffer.clear();
  if (!keepsUnsent) pvClearSendBuffer();
}

void ctxWinsock::pvClearSendBuffer() {
  m_sendBuffer.clear();
  m_sendPosition = 0;
  m_sendDropped = 0;
  ++m_sendEpoch;
}

void ctxWinsock::pvRaiseConnect() {
  pvSetState(kStateConnected, m_state == kStateClosed);
  if (!std::exchange(m_connectRaised, true)) pvRaise(&WinsockEvents::Connect);
}

// --- The socket ------------------------------------------------------------------------------------------------------

// nullptr when there is none and making one has failed, which is reported.
std::shared_ptr<cTlsSocket> ctxWinsock::pvSocket() {
  if (m_incoming != nullptr) return m_incoming;
  if (m_socket != nullptr) return m_socket;
  auto socket = cTlsSocket::New(m_loop, m_certificates, m_services);
  const bool datagrams = m_protocol == kProtocolUdp;
  if (socket->Create(0, datagrams ? platform::kSockDatagram : platform::kSockStream, platform::kFdAll, {})) {
    pvAdopt(socket);
    return socket;
  }
  pvReport(pvFaultOf(socket->LastError()), true);
  return nullptr;
}

void ctxWinsock::pvAdopt(std::shared_ptr<cTlsSocket> socket) {
  pvRelease();
  m_socket = std::move(socket);
  m_socket->SetEvents(std::shared_ptr<tls::TlsSocketEvents>(shared_from_this(), this));
}

void ctxWinsock::pvRelease() {
  ++m_generation;
  if (m_socket != nullptr) m_socket->SetEvents({});
  m_socket.reset();
  m_accepted = m_connectRaised = m_closeWaits = false;
  m_tlsSubmitted = 0;
}

// --- Properties ------------------------------------------------------------------------------------------------------

std::int32_t ctxWinsock::LocalPort() const {
  const auto& socket = m_incoming != nullptr ? m_incoming : m_socket;
  std::string address;
  std::int32_t port = 0;
  return socket != nullptr && socket->GetSockName(address, port) ? port : m_localPort;
}

void ctxWinsock::LocalPort(std::int32_t value) {
  if (m_localPort != value) {
    Close_();
    m_localPort = value;
  }
  pvRaise(&WinsockEvents::PropertyChanged, kLocalPort);
}

void ctxWinsock::Protocol(std::int32_t value) {
  if (m_protocol != value) {
    Close_();
    pvRelease();  // a socket that was made but is not in use may be of the wrong type
    m_protocol = value;
  }
  pvRaise(&WinsockEvents::PropertyChanged, kProtocol);
}

void ctxWinsock::RemoteHost(std::string_view value) {
  if (m_remoteHost != value) {
    m_remoteHost = std::string(value);
    pvClearSendBuffer();
  }
  pvRaise(&WinsockEvents::PropertyChanged, kRemoteHost);
}

std::int32_t ctxWinsock::RemotePort() const {
  const auto& socket = m_incoming != nullptr ? m_incoming : m_socket;
  std::string address;
  std::int32_t port = 0;
  return socket != nullptr && socket->GetPeerName(address, port) ? port : m_remotePort;
}

void ctxWinsock::RemotePort(std::int32_t value) {
  if (m_remotePort != value) {
    m_remotePort = value;
    pvClearSendBuffer();
  }
  pvRaise(&WinsockEvents::PropertyChanged, kRemotePort);
}

void ctxWinsock::Timeout(std::int32_t value) {
  m_timeout = value;
  pvRaise(&WinsockEvents::PropertyChanged, kTimeout);
}

platform::SocketHandle ctxWinsock::SocketHandle() {
  const auto socket = pvSocket();
  return socket == nullptr ? platform::kInvalidSocket : socket->SocketHandle();
}

std::string ctxWinsock::LocalHostName() {
  std::string name;
  std::string address;
  std::vector<platform::AdapterAddress> adapters;
  if (const auto socket = pvSocket()) socket->GetLocalHost(name, address, adapters);
  return name;
}

std::string ctxWinsock::LocalIP() {
  std::string name;
  std::string address;
  std::vector<platform::AdapterAddress> adapters;
  if (const auto socket = pvSocket()) socket->GetLocalHost(name, address, adapters);
  return address;
}

std::string ctxWinsock::RemoteHostIP() {
  std::string address;
  std::int32_t port = 0;
  if (const auto socket = pvSocket()) socket->GetPeerName(address, port);
  return address;
}

std::int32_t ctxWinsock::SockOpt(std::int32_t optionName, std::int32_t level) {
  const auto socket = pvSocket();
  return socket == nullptr ? 0 : socket->Socket()->SockOpt(optionName, level);
}

void ctxWinsock::SockOpt(std::int32_t optionName, std::int32_t level, std::int32_t value) {
  if (const auto socket = pvSocket()) socket->Socket()->SetSockOpt(optionName, value, level);
}

void ctxWinsock::ReadProperties(PropertyBag& bag) {
  m_localPort = bag.ReadNumber(kLocalPort, 0);
  m_protocol = bag.ReadNumber(kProtocol, kProtocolTcp);
  m_remoteHost = bag.ReadText(kRemoteHost, {});
  m_remotePort = bag.ReadNumber(kRemotePort, 0);
  m_timeout = bag.ReadNumber(kTimeout, kDefaultTimeout);
}

void ctxWinsock::WriteProperties(PropertyBag& bag) const {
  bag.WriteNumber(kLocalPort, m_localPort, 0);
  bag.WriteNumber(kProtocol, m_protocol, kProtocolTcp);
  bag.WriteText(kRemoteHost, m_remoteHost, {});
  bag.WriteNumber(kRemotePort, m_remotePort, 0);
  bag.WriteNumber(kTimeout, m_timeout, kDefaultTimeout);
}

// --- Faults ----------------------------------------------------------------------------------------------------------

ctxWinsock::Fault ctxWinsock::pvFaultOf(std::int32_t code) const {
  Fault fault{code, cTlsSocket::GetErrorDescription(code), code > 0 ? code | kPlatformFault : code, {}};
  // The numbers of the TLS engine are no codes of the platform; its own words are with the socket.
  if (fault.description.empty() && m_socket != nullptr) {
    const tls::SocketError last = m_socket->LastError();
    if (last.number == code) fault.description = last.description;
  }
  return fault;
}

ctxWinsock::Fault ctxWinsock::pvFaultOf(const tls::SocketError& error) {
  return {error.number, error.description, error.number, error.source};
}

void ctxWinsock::pvReport(const Fault& fault, bool raise) {
  const Keep keep(*this);
  ++m_reports;
  pvSetState(kStateError);
  bool cancelDisplay = false;
  pvRaise(&WinsockEvents::Error, static_cast<std::int16_t>(fault.number & 0xFFFF), fault.description, fault.scode,
          fault.source, std::string(), 0, cancelDisplay);
  if (raise && !cancelDisplay) throw platform::RunTimeError(fault.scode, fault.description, fault.source);
}

// --- Methods ---------------------------------------------------------------------------------------------------------

void ctxWinsock::Connect(std::string_view remoteHost, std::int32_t remotePort, std::uint32_t localFeatures) {
  const Keep keep(*this);
  const std::string host(remoteHost);  // may be a view of the property
  Close_();
  if (!host.empty()) m_remoteHost = host;
  if (remotePort != 0) m_remotePort = remotePort;
  pvSetState(kStateResolvingHost);
  const auto socket = pvSocket();
  if (socket == nullptr) return;
  m_connectRaised = false;
  if (!socket->Connect(m_remoteHost, m_remotePort, m_protocol == kProtocolTls, localFeatures)) {
    return pvReport(pvFaultOf(socket->LastError()), true);
  }
  pvSetState(kStateConnected);
}

void ctxWinsock::Listen(std::string_view certFiles, std::string_view pkcs12File, std::string_view password,
                        const std::vector<tls::Bytes>& certificates, tls::BytesView privateKey) {
  const Keep keep(*this);
  const auto socket = pvSocket();
  if (socket == nullptr) return;
  if (m_protocol == kProtocolTls && !socket->InitServerTls(certFiles, pkcs12File, password, certificates, privateKey)) {
    return pvReport(pvFaultOf(socket->LastError()), true);
  }
  if (!socket->Listen(kBacklog)) return pvReport(pvFaultOf(socket->LastError()), true);
  pvSetState(kStateListening);
}

void ctxWinsock::Bind(std::int32_t localPort, std::string_view localIp) {
  const Keep keep(*this);
  Close_();
  if (localPort != 0) m_localPort = localPort;
  const auto socket = pvSocket();
  if (socket == nullptr) return;
  if (!socket->Bind(localIp, m_localPort)) return pvReport(pvFaultOf(socket->LastError()), true);
  pvSetState(kStateOpen);
}

void ctxWinsock::Accept(std::int32_t requestId) {
  const Keep keep(*this);
  Close_();
  auto socket = m_shared->socket;
  if (socket != nullptr && requestId >= 0 && socket->SocketHandle() == requestId) {
    m_shared->socket.reset();
    pvAdopt(socket);
    m_accepted = true;
    // What has arrived since the connection was offered is notified now, and what a read by the request's handler has
    // seen of it is told.
    socket->Socket()->SyncRequeueMsgQueue();
    if (!socket->Socket()->AsyncSelect(platform::kFdAll)) return pvReport(pvFaultOf(socket->LastError()), true);
    m_closeWaits = socket->IsClosed();
    return pvPostAfterRead();
  }
  platform::SystemSocketApi systemApi;
  platform::SocketApi& api = m_services.api != nullptr ? *m_services.api : systemApi;
  const platform::SocketResult second = api.Duplicate(requestId);
  if (!second.Ok()) return pvReport(pvFaultOf(second.error), true);
  socket = cTlsSocket::New(m_loop, m_certificates, m_services);
  pvAdopt(socket);
  m_accepted = true;
  if (socket->Attach(second.value, platform::kFdAll)) return;
  api.Close(second.value);
  pvReport(pvFaultOf(socket->LastError()), true);
}

// An accepted connection is closed even before its first event; any other socket at state 0 is merely prepared.
void ctxWinsock::Close_() {
  const Keep keep(*this);
  if (m_socket != nullptr && (m_state != kStateClosed || m_accepted)) {
    pvSetState(kStateClosing);
    const auto socket = m_socket;
    pvRelease();
    socket->Close_();
  }
  pvSetState(kStateClosed);
}

// --- Events ----------------------------------------------------------------------------------------------------------

void ctxWinsock::OnResolve(cTlsSocket& socket, std::string_view /*ipAddress*/) {
  if (&socket == m_socket.get()) pvSetState(kStateHostResolved);
}

void ctxWinsock::OnConnect(cTlsSocket& socket) {
  if (&socket != m_socket.get()) return;
  const Keep keep(*this, 1);
  const std::uint64_t generation = m_generation;
  pvRaiseConnect();
  if (!pvGoneSince(generation) && !m_sendBuffer.empty()) pvSendStep();
}

void ctxWinsock::OnClose(cTlsSocket& socket) {
  if (&socket != m_socket.get()) return;
  m_closeWaits = true;
  if (m_reads > 0) return;  // the call that waits takes what it needs; the rest is offered when it has ended
  const Keep keep(*this, 1);
  pvEndConnection();
}

// Needs a Keep.
void ctxWinsock::pvEndConnection() {
  const std::uint64_t generation = m_generation;
  const auto socket = m_socket;
  m_closeWaits = false;
  // What TLS has decrypted and nobody has read comes before the end, for as long as the handler takes some of it.
  std::size_t before = std::numeric_limits<std::size_t>::max();
  for (std::int32_t available = 0; (available = socket->AvailableBytes()) > 0;) {
    const std::size_t unread = static_cast<std::size_t>(available) + m_receiveBuffer.size();
    if (unread >= before) break;
    before = unread;
    pvRaise(&WinsockEvents::DataArrival, available);
    if (pvGoneSince(generation)) return;
  }
  pvSetState(kStateClosing);
  pvRaise(&WinsockEvents::Close);
  if (pvGoneSince(generation)) return;
  pvRelease();
  socket->Close_();
  pvSetState(kStateClosed);
}

void ctxWinsock::OnAccept(cTlsSocket& socket) {
  if (&socket != m_socket.get()) return;
  const Keep keep(*this, 1);
  const std::uint64_t generation = m_generation;
  pvSetState(kStateConnectionPending);
  auto incoming = cTlsSocket::New(m_loop, m_certificates, m_services);
  if (!socket.Accept(incoming, {}, 0, m_protocol == kProtocolTls)) {
    return pvReport(pvFaultOf(socket.LastError()), false);
  }
  // Its notifications wait for the control that takes it.
  incoming->Socket()->AsyncSelect(0);
  const auto outerIncoming = std::exchange(m_incoming, incoming);
  const auto outerShared = std::exchange(m_shared->socket, incoming);
  pvRaise(&WinsockEvents::ConnectionRequest, incoming->SocketHandle());
  m_shared->socket = outerShared;
  m_incoming = outerIncoming;
  if (!pvGoneSince(generation)) pvSetState(kStateListening);
}

void ctxWinsock::OnReceive(cTlsSocket& socket) {
  if (&socket != m_socket.get()) return;
  const Keep keep(*this, 1);
  const std::uint64_t generation = m_generation;
  if (m_state == kStateClosed) pvRaiseConnect();
  if (pvGoneSince(generation)) return;
  if (m_reads > 0) return;  // the data is for the call that waits; it looks again when it has ended
  const std::int32_t available = socket.AvailableBytes();
  if (available > 0) pvRaise(&WinsockEvents::DataArrival, available);
}

void ctxWinsock::OnSend(cTlsSocket& socket) {
  if (&socket != m_socket.get()) return;
  const Keep keep(*this, 1);
  pvSendStep();
}

void ctxWinsock::OnError(cTlsSocket& socket, std::int32_t errorCode, std::int32_t /*eventMask*/) {
  if (&socket != m_socket.get()) return;
  const Keep keep(*this, 1);
  pvReport(pvFaultOf(errorCode), false);
}

}  // namespace quenmark::sockets
