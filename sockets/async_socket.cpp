#include "sockets/async_socket.h"

#include "platform/winsock_errors.h"

#include <chrono>
#include <utility>

namespace quenmark::sockets {

using platform::InetAddress;
using platform::SocketResult;

std::shared_ptr<cAsyncSocket> cAsyncSocket::New(platform::MessageLoop& loop, const SocketServices& services) {
  return std::make_shared<cAsyncSocket>(NotificationHelper::Of(loop, services));
}

cAsyncSocket::cAsyncSocket(std::shared_ptr<NotificationHelper> helper) : m_helper(std::move(helper)) {}

cAsyncSocket::~cAsyncSocket() {
  pvDropResolution();
  pvInternalClose();
}

// --- Results ---------------------------------------------------------------------------------------------------------

bool cAsyncSocket::pvSucceed() {
  m_lastError = 0;
  return true;
}

bool cAsyncSocket::pvFail(std::int32_t code) {
  m_lastError = code;
  return false;
}

bool cAsyncSocket::pvResult(const SocketResult& result) {
  m_lastError = result.error;
  return result.Ok();
}

bool cAsyncSocket::pvHasHandle() {
  return m_handle != platform::kInvalidSocket || pvFail(platform::kWsaNotSocket);
}

// --- Properties ------------------------------------------------------------------------------------------------------

std::int32_t cAsyncSocket::SockOpt(std::int32_t optionName, std::int32_t level) {
  if (!pvHasHandle()) return 0;
  const bool isError = level == platform::kSolSocket && optionName == platform::kSoError;
  const SocketResult result =
      isError ? m_helper->Notifier().PendingError(m_handle) : m_helper->Api().GetOption(m_handle, level, optionName);
  return pvResult(result) ? result.value : 0;
}

bool cAsyncSocket::SetSockOpt(std::int32_t optionName, std::int32_t value, std::int32_t level) {
  return pvHasHandle() && pvResult(m_helper->Api().SetOption(m_handle, level, optionName, value));
}

std::int32_t cAsyncSocket::AvailableBytes() {
  if (!pvHasHandle()) return -1;
  const SocketResult result = m_helper->Notifier().Available(m_handle);
  return pvResult(result) ? result.value : -1;
}

std::int32_t cAsyncSocket::BlockingMode() {
  if (!pvHasHandle()) return -1;
  if (m_helper->Notifier().IsSelected(m_handle)) {
    pvFail(platform::kWsaInvalid);
    return -1;
  }
  return pvResult(m_helper->Api().GetOption(m_handle, platform::kSolSocket, platform::kSoType)) ? 0 : -1;
}

bool cAsyncSocket::HasPendingEvent() const {
  return m_lastError == platform::kWsaWouldBlock;
}

// --- Opening and closing ---------------------------------------------------------------------------------------------

bool cAsyncSocket::Create(std::int32_t socketPort, std::int32_t socketType, std::int32_t eventMask,
                          std::string_view socketAddress) {
  if (m_handle != platform::kInvalidSocket) return pvFail(platform::kWsaAlready);
  if (!m_helper->HasWindow()) return pvFail(platform::kWsaNotInitialised);
  const SocketResult opened = m_helper->Api().Open(socketType);
  if (!pvResult(opened)) return false;
  if (!pvOpen(opened.value, socketType, eventMask)) {
    m_helper->Api().Close(opened.value);
    return false;
  }
  const Keep keep(*this);
  const std::uint64_t generation = m_generation;
  if (socketPort != 0 && !Bind(socketAddress, socketPort)) {
    // A handler that ran during the lookup may have put another handle here.
    if (m_generation == generation) pvInternalClose();
    return false;
  }
  return pvSucceed();
}

bool cAsyncSocket::Attach(platform::SocketHandle socketHandle, std::int32_t eventMask) {
  if (m_handle != platform::kInvalidSocket) return pvFail(platform::kWsaAlready);
  if (!m_helper->HasWindow()) return pvFail(platform::kWsaNotInitialised);
  const SocketResult type = m_helper->Api().GetOption(socketHandle, platform::kSolSocket, platform::kSoType);
  return pvResult(type) && pvOpen(socketHandle, type.value, eventMask);
}

// Registers and selects; on failure the handle stays open and belongs to the caller.
bool cAsyncSocket::pvOpen(platform::SocketHandle handle, std::int32_t type, std::int32_t eventMask) {
  m_slot = m_helper->Register(shared_from_this());
  if (m_slot < 0) return pvFail(platform::kWsaTooManySockets);
  m_handle = handle;
  m_type = type;
  ++m_generation;
  m_helper->Notifier().Forget(handle);  // what is left of a detached socket that had the number
  if (!AsyncSelect(eventMask)) {
    pvRelease();
    return false;
  }
  return true;
}

// Parts with the handle.
void cAsyncSocket::pvRelease() {
  m_helper->Unregister(std::exchange(m_slot, -1));
  m_handle = platform::kInvalidSocket;
  ++m_generation;
  m_pendingEvents.clear();
}

void cAsyncSocket::pvInternalClose() {
  const platform::SocketHandle handle = m_handle;
  if (handle == platform::kInvalidSocket) return;
  m_helper->Notifier().Forget(handle);
  pvRelease();
  m_helper->Api().Close(handle);
}

platform::SocketHandle cAsyncSocket::Detach() {
  if (!pvHasHandle()) return platform::kInvalidSocket;
  pvDropResolution();
  const platform::SocketHandle handle = m_handle;
  pvRelease();
  pvSucceed();
  return handle;
}

bool cAsyncSocket::Close_() {
  pvDropResolution();
  if (m_handle == platform::kInvalidSocket) return pvSucceed();
  m_helper->Notifier().ShutDown(m_handle, platform::kShutSend);
  pvInternalClose();
  return pvSucceed();
}

bool cAsyncSocket::Accept(std::shared_ptr<cAsyncSocket>& connectedSocket, std::string_view socketAddress,
                          std::int32_t socketPort) {
  const Keep keep(*this);
  InetAddress address;
  if (socketPort != 0 && !pvToAddress(socketAddress, socketPort, true, address)) return false;
  if (!pvHasHandle()) return false;
  const SocketResult accepted = m_helper->Notifier().Accept(m_handle, socketPort != 0 ? &address : nullptr);
  if (!pvResult(accepted)) return false;
  const std::shared_ptr<cAsyncSocket> target =
      connectedSocket != nullptr ? connectedSocket : std::make_shared<cAsyncSocket>(m_helper);
  if (!target->Attach(accepted.value)) {
    const std::int32_t error = target->LastError();
    m_helper->Api().Close(accepted.value);
    return pvFail(error);
  }
  connectedSocket = target;
  return pvSucceed();
}

bool cAsyncSocket::Bind(std::string_view socketAddress, std::int32_t socketPort) {
  const Keep keep(*this);
  InetAddress address;
  if (!pvHasHandle() || !pvToAddress(socketAddress, socketPort, true, address)) return false;
  return pvResult(m_helper->Api().Bind(m_handle, address));
}

bool cAsyncSocket::Listen(std::int32_t connectionBacklog) {
  return pvHasHandle() && pvResult(m_helper->Notifier().Listen(m_handle, connectionBacklog));
}

bool cAsyncSocket::ShutDown(std::int32_t how) {
  return pvHasHandle() && pvResult(m_helper->Notifier().ShutDown(m_handle, how));
}

// --- Connecting ------------------------------------------------------------------------------------------------------

bool cAsyncSocket::Connect(std::string_view hostAddress, std::int32_t hostPort) {
  if (hostPort < 0 || hostPort > 0xFFFF) return pvFail(platform::kWsaInvalid);
  if (m_handle == platform::kInvalidSocket && !Create()) return false;
  pvDropResolution();
  InetAddress address;
  if (!pvToAddress(hostAddress, hostPort, false, address)) return pvStartResolution(hostAddress, hostPort);
  if (pvIsDatagram()) return PostEvent(platform::kFdConnect);
  return pvConnectTo(address);
}

bool cAsyncSocket::pvConnectTo(const InetAddress& address) {
  const SocketResult result = m_helper->Notifier().Connect(m_handle, address);
  if (result.Ok()) return PostEvent(platform::kFdConnect);
  return result.error == platform::kWsaWouldBlock ? pvSucceed() : pvResult(result);
}

bool cAsyncSocket::pvStartResolution(std::string_view name, std::int32_t port) {
  m_resolution = std::make_unique<Resolution>();
  m_resolution->port = port;
  m_resolution->lookup = m_helper->Resolver().Start(name, m_resolution->host, m_helper->Window(), kMessageResolved);
  if (m_resolution->lookup == 0) {
    m_resolution.reset();
    return pvFail(platform::kWsaNoBuffers);
  }
  return pvSucceed();
}

void cAsyncSocket::pvDropResolution() {
  if (m_resolution == nullptr) return;
  m_helper->Resolver().Cancel(m_resolution->lookup);
  m_resolution.reset();
}

// --- Addresses -------------------------------------------------------------------------------------------------------

bool cAsyncSocket::pvToAddress(std::string_view hostAddress, std::int32_t port, bool allowLookup,
                               InetAddress& address) {
  if (port < 0 || port > 0xFFFF) return pvFail(platform::kWsaInvalid);
  address = {{}, static_cast<std::uint16_t>(port)};
  if (hostAddress.empty()) return true;
  if (const auto host = platform::ParseHost(hostAddress)) {
    address.host = *host;
    return true;
  }
  return allowLookup ? pvLookUp(hostAddress, address) : pvFail(platform::kWsaInvalid);
}

// Waits for the lookup while messages run; the socket may be closed meanwhile.
bool cAsyncSocket::pvLookUp(std::string_view name, InetAddress& address) {
  const Keep keep(*this);
  const std::uint64_t generation = m_generation;
  platform::MessageLoop& loop = m_helper->Loop();
  platform::HostEntry host;
  const platform::LookupHandle lookup = m_helper->Resolver().Start(name, host, 0, 0);
  while (lookup != 0 && !host.finished && !pvClosedSince(generation)) {
    if (!loop.DispatchOneDuringWait()) loop.WaitForWork(std::chrono::seconds{1});
  }
  m_helper->Resolver().Cancel(lookup);
  if (pvClosedSince(generation)) return pvFail(platform::kWsaInterrupted);
  if (host.addresses.empty()) return pvFail(platform::kWsaInvalid);
  address.host = host.addresses.front();
  return true;
}

bool cAsyncSocket::pvDestination(std::string_view hostAddress, std::int32_t hostPort,
                                 std::optional<InetAddress>& destination) {
  if (hostAddress.empty() || !pvIsDatagram()) return true;
  return pvToAddress(hostAddress, hostPort, true, destination.emplace());
}

// --- Control ---------------------------------------------------------------------------------------------------------

bool cAsyncSocket::AsyncSelect(std::int32_t eventMask) {
  if (!pvHasHandle()) return false;
  return pvResult(m_helper->Notifier().Select(m_handle, m_helper->Window(), SocketMessage(m_slot), eventMask));
}

bool cAsyncSocket::IOCtl(std::int32_t command, std::int32_t& argument) {
  if (!pvHasHandle()) return false;
  if (command == platform::kIoBytesToRead) {
    const std::int32_t available = AvailableBytes();
    if (available >= 0) argument = available;
    return available >= 0;
  }
  const bool makesBlocking = command == platform::kIoNonBlocking && argument == 0;
  if (makesBlocking && m_helper->Notifier().IsSelected(m_handle)) return pvFail(platform::kWsaInvalid);
  return pvResult(m_helper->Api().IoControl(m_handle, command, argument));
}

bool cAsyncSocket::GetPeerName(std::string& peerAddress, std::int32_t& peerPort) {
  InetAddress address;
  if (!pvHasHandle() || !pvResult(m_helper->Api().PeerName(m_handle, address))) return false;
  peerAddress = platform::HostText(address.host);
  peerPort = address.port;
  return true;
}

bool cAsyncSocket::GetSockName(std::string& socketAddress, std::int32_t& socketPort) {
  InetAddress address;
  if (!pvHasHandle() || !pvResult(m_helper->Api().SocketName(m_handle, address))) return false;
  socketAddress = platform::HostText(address.host);
  socketPort = address.port;
  return true;
}

bool cAsyncSocket::GetLocalHost(std::string& hostName, std::string& hostAddress,
                                std::vector<platform::AdapterAddress>& adaptersInfo) {
  std::string name;
  if (!pvResult(m_helper->Api().HostName(name))) return false;
  InetAddress address;
  if (!pvToAddress(name, 0, true, address)) return false;
  hostName = name;
  hostAddress = platform::HostText(address.host);
  adaptersInfo = platform::AdapterAddresses();
  return pvSucceed();
}

std::string cAsyncSocket::GetErrorDescription(std::int32_t errorCode) {
  return std::string(platform::WinsockErrorText(errorCode));
}

bool cAsyncSocket::PostEvent(std::int32_t eventMask, bool immediate) {
  if (!pvHasHandle()) return false;
  if (immediate) {
    pvDispatch(eventMask);
    return true;
  }
  return m_helper->Post(m_slot, m_handle, eventMask) ? pvSucceed() : pvFail(platform::kWsaNoBuffers);
}

}  // namespace quenmark::sockets
