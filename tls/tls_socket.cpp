// The connection: opening, certificates, closing, what passes through.
#include "tls/tls_socket.h"

#include "platform/winsock_errors.h"

#include <utility>

namespace quenmark::tls {

namespace {

constexpr std::size_t kReadSize = std::size_t{128} * 1024;  // bytes asked of the transport at once
constexpr std::string_view kClass = "cTlsSocket.";

}  // namespace

std::shared_ptr<cTlsSocket> cTlsSocket::New(platform::MessageLoop& loop,
                                            std::shared_ptr<CertificateServices> certificates,
                                            const sockets::SocketServices& services) {
  auto socket = std::make_shared<cTlsSocket>(loop, std::move(certificates), services);
  const std::shared_ptr<sockets::AsyncSocketEvents> events(socket, socket.get());
  socket->m_oSocket->SetEvents(events);
  return socket;
}

cTlsSocket::cTlsSocket(platform::MessageLoop& loop, std::shared_ptr<CertificateServices> certificates,
                       const sockets::SocketServices& services)
    : m_loop(loop), m_certificates(std::move(certificates)), m_oSocket(sockets::cAsyncSocket::New(loop, services)) {}

cTlsSocket::~cTlsSocket() = default;

// --- Results ---------------------------------------------------------------------------------------------------------

SocketError cTlsSocket::LastError() const {
  SocketError error;
  error.description = TlsGetLastError(m_context, error.number, error.source);
  if (m_context.lastError.number != 0) return error;  // also where the number told is 0
  const std::int32_t code = m_oSocket->LastError();
  return {code, code == 0 ? std::string() : GetErrorDescription(code), code == 0 ? "" : "cAsyncSocket"};
}

bool cTlsSocket::pvFail(const CertificateError& error) {
  m_context.lastError = {error.number, error.description, error.source, kNoAlert};
  return false;
}

bool cTlsSocket::pvFail(std::int32_t socketError) {
  if (!m_context.busy) m_context.lastError = {};
  m_oSocket->SetLastError(socketError);
  return false;
}

bool cTlsSocket::pvFailClosed() {
  if (m_context.lastError.number == 0) {
    m_oSocket->SetLastError(m_transportError != 0 ? m_transportError : platform::kWsaNotConnected);
  }
  return false;
}

// --- Passing through -------------------------------------------------------------------------------------------------

std::string cTlsSocket::GetErrorDescription(std::int32_t errorCode) {
  return sockets::cAsyncSocket::GetErrorDescription(errorCode);
}

bool cTlsSocket::Create(std::int32_t socketPort, std::int32_t socketType, std::int32_t eventMask,
                        std::string_view socketAddress) {
  return m_oSocket->Create(socketPort, socketType, eventMask, socketAddress);
}

bool cTlsSocket::Attach(platform::SocketHandle socketHandle, std::int32_t eventMask) {
  return m_oSocket->Attach(socketHandle, eventMask);
}

platform::SocketHandle cTlsSocket::Detach() {
  return m_oSocket->Detach();
}

bool cTlsSocket::Bind(std::string_view socketAddress, std::int32_t socketPort) {
  return m_oSocket->Bind(socketAddress, socketPort);
}

bool cTlsSocket::Listen(std::int32_t connectionBacklog) {
  return m_oSocket->Listen(connectionBacklog);
}

bool cTlsSocket::GetPeerName(std::string& peerAddress, std::int32_t& peerPort) {
  return m_oSocket->GetPeerName(peerAddress, peerPort);
}

bool cTlsSocket::GetSockName(std::string& socketAddress, std::int32_t& socketPort) {
  return m_oSocket->GetSockName(socketAddress, socketPort);
}

bool cTlsSocket::GetLocalHost(std::string& hostName, std::string& hostAddress,
                              std::vector<platform::AdapterAddress>& adaptersInfo) {
  return m_oSocket->GetLocalHost(hostName, hostAddress, adaptersInfo);
}

std::string cTlsSocket::FromTextArray(std::span<const std::uint8_t> text, std::int32_t codePage) {
  return sockets::cAsyncSocket::FromTextArray(text, codePage);
}

std::vector<std::uint8_t> cTlsSocket::ToTextArray(std::string_view text, std::int32_t codePage) {
  return sockets::cAsyncSocket::ToTextArray(text, codePage);
}

// --- Starting --------------------------------------------------------------------------------------------------------

// A clean slate; what the owner has set, its certificates and key included, stays.
void cTlsSocket::pvForgetConnection() {
  Context fresh;
  fresh.services = m_context.services;
  fresh.localCertificates = std::move(m_context.localCertificates);
  fresh.localPrivateKey = std::move(m_context.localPrivateKey);
  m_context = std::move(fresh);
  m_established = m_readWaits = m_closeWaits = m_closeRaised = m_peerClosedCleanly = m_untold = false;
  m_transportError = m_firedEvents = 0;
  m_ending = {};
  m_validatedCertificate.clear();
  m_plainSubmitted = m_lastSendBytes = 0;
  m_plain.clear();
  m_unsent.clear();
  m_out.clear();
  m_plainTaken = m_sendPosition = 0;
}

std::uint32_t cTlsSocket::pvCompleteFeatures(std::uint32_t features) const {
  return (features & kFeatureAllVersions) == 0 ? features | kFeatureAllVersions : features;
}

// The same callback again leaves the roots alone: the handshake of a connection is started with what Connect was given.
void cTlsSocket::pvSetCallback(std::weak_ptr<ClientCertificateOwner> callback) {
  const auto given = callback.lock();
  if (given != nullptr && given != m_clientCertCallback.lock()) m_rootStore.reset();
  m_clientCertCallback = std::move(callback);
}

bool cTlsSocket::Connect(std::string_view hostAddress, std::int32_t hostPort, bool useTls, std::uint32_t localFeatures,
                         std::weak_ptr<ClientCertificateOwner> clientCertCallback, std::string_view alpnProtocols) {
  if (m_context.busy || m_validating) return pvFail(platform::kWsaAlready);
  const std::string host(hostAddress);  // may be a view of the stored name
  // The engine may be that of a connection whose transport the owner has closed and made anew.
  std::string peer;
  std::int32_t port = 0;
  if (TlsIsClosed(m_context) || !m_oSocket->GetPeerName(peer, port)) pvForgetConnection();
  ++m_generation;
  m_useTls = useTls;
  m_isServer = false;
  m_remoteHostName = host;
  m_localFeatures = localFeatures;
  m_alpnProtocols = std::string(alpnProtocols);
  pvSetCallback(std::move(clientCertCallback));
  return m_oSocket->Connect(host, hostPort);
}

bool cTlsSocket::StartTls(std::string_view remoteHostName, std::uint32_t localFeatures,
                          std::weak_ptr<ClientCertificateOwner> clientCertCallback, std::string_view alpnProtocols) {
  if (m_context.busy || m_validating || (TlsIsStarted(m_context) && !TlsIsClosed(m_context))) {
    return pvFail(platform::kWsaAlready);
  }
  ++m_generation;
  m_localFeatures = localFeatures;
  if (!remoteHostName.empty()) m_remoteHostName = std::string(remoteHostName);
  if (!clientCertCallback.expired()) pvSetCallback(std::move(clientCertCallback));
  if (!alpnProtocols.empty()) m_alpnProtocols = std::string(alpnProtocols);
  return pvStartClient();
}

bool cTlsSocket::pvStartClient() {
  if (TlsIsStarted(m_context)) return pvFail(platform::kWsaAlready);
  pvForgetConnection();
  m_useTls = true;
  m_isServer = false;
  m_localFeatures = pvCompleteFeatures(m_localFeatures);
  m_input.resize(kReadSize);
  if (!TlsInitClient(m_context, m_remoteHostName, m_localFeatures, &m_prompt, m_alpnProtocols)) return false;
  const bool made = TlsHandshake(m_context, {}, m_out);
  return pvOnSend() && made;
}

bool cTlsSocket::InitServerTls(std::string_view certFiles, std::string_view pkcs12File, std::string_view password,
                               const std::vector<Bytes>& certificates, BytesView privateKey,
                               std::string_view alpnProtocols, std::uint32_t localFeatures) {
  if (m_context.busy || m_validating) return pvFail(platform::kWsaAlready);
  Identity identity{certificates, {privateKey.begin(), privateKey.end()}};
  if (certificates.empty() || privateKey.empty()) {
    CertificateError error{kEngineError, "No certificate services", std::string(kClass) + "InitServerTls"};
    const bool loaded = m_certificates != nullptr &&
                        (!certFiles.empty()    ? m_certificates->ImportPem(certFiles, identity, error)
                         : !pkcs12File.empty() ? m_certificates->ImportPkcs12(pkcs12File, password, identity, error)
                                               : m_certificates->MakeSelfSigned({}, identity, error));
    if (!loaded) return pvFail(error);
    if (identity.certificates.empty() || identity.privateKey.empty()) {
      return pvFail(CertificateError{kEngineError, "No certificate with a private key found", error.source});
    }
  }
  if (!pvStartServer(identity.certificates, identity.privateKey, alpnProtocols, localFeatures)) return false;
  pvRearm();
  return true;
}

bool cTlsSocket::pvStartServer(const std::vector<Bytes>& certificates, BytesView privateKey,
                               std::string_view alpnProtocols, std::uint32_t localFeatures) {
  ++m_generation;
  pvForgetConnection();
  m_useTls = true;
  m_isServer = true;
  m_localFeatures = pvCompleteFeatures(localFeatures);
  m_alpnProtocols = std::string(alpnProtocols);
  m_input.resize(kReadSize);
  return TlsInitServer(m_context, m_remoteHostName, certificates, privateKey, m_alpnProtocols, m_localFeatures);
}

bool cTlsSocket::Accept(std::shared_ptr<cTlsSocket>& socket, std::string_view hostAddress, std::int32_t hostPort,
                        bool useTls) {
  const Keep keep(*this);
  const bool made = socket == nullptr;
  const std::shared_ptr<cTlsSocket> target = made ? New(m_loop, m_certificates) : socket;
  std::shared_ptr<sockets::cAsyncSocket> transport = target->m_oSocket;
  if (!m_oSocket->Accept(transport, hostAddress, hostPort)) return false;
  target->m_useTls = useTls;
  if (useTls && !target->pvStartServer(m_context.localCertificates, m_context.localPrivateKey, m_alpnProtocols,
                                       m_localFeatures)) {
    m_context.lastError = target->m_context.lastError;
    transport->Close_();
    return false;
  }
  socket = target;
  return true;
}

// --- Closing ---------------------------------------------------------------------------------------------------------

bool cTlsSocket::IsClosed() const {
  return m_useTls ? TlsIsClosed(m_context) : SocketHandle() == platform::kInvalidSocket;
}

bool cTlsSocket::ShutDown() {
  return m_useTls ? pvOnShutdown() : m_oSocket->ShutDown(platform::kShutSend);
}

bool cTlsSocket::Close_() {
  return m_useTls ? pvOnShutdown() : m_oSocket->Close_();
}

bool cTlsSocket::pvOnShutdown() {
  if (!TlsIsReady(m_context) || m_context.busy) return true;
  const Keep keep(*this);
  const bool done = TlsShutdown(m_context, m_out);
  const bool sent = pvOnSend();
  if (!done) pvRaiseEngineError(platform::kFdWrite);
  return done && sent;
}

// --- Certificates ----------------------------------------------------------------------------------------------------

bool cTlsSocket::PkiPemImportCertificates(std::string_view fileNames) {
  CertificateError error{kEngineError, "No certificate services", std::string(kClass) + "PkiPemImportCertificates"};
  Identity identity;
  if (m_certificates == nullptr || !m_certificates->ImportPem(fileNames, identity, error)) return pvFail(error);
  m_context.localCertificates = std::move(identity.certificates);
  m_context.localPrivateKey = std::move(identity.privateKey);
  return true;
}

bool cTlsSocket::PkiPkcs12ImportCertificates(std::string_view fileName, std::string_view password) {
  CertificateError error{kEngineError, "No certificate services", std::string(kClass) + "PkiPkcs12ImportCertificates"};
  Identity identity;
  if (m_certificates == nullptr || !m_certificates->ImportPkcs12(fileName, password, identity, error)) {
    return pvFail(error);
  }
  m_context.localCertificates = std::move(identity.certificates);
  m_context.localPrivateKey = std::move(identity.privateKey);
  return true;
}

bool cTlsSocket::PkiPemImportRootCaCertStore(std::string_view fileName) {
  if (fileName.empty()) {
    m_rootStore.reset();
    return true;
  }
  CertificateError error{kEngineError, "No certificate services", std::string(kClass) + "PkiPemImportRootCaCertStore"};
  std::shared_ptr<const RootStore> roots;
  if (m_certificates == nullptr || !m_certificates->ImportRoots(fileName, roots, error)) return pvFail(error);
  m_rootStore = std::move(roots);
  return true;
}

bool cTlsSocket::CertificatePrompt::FireOnClientCertificate(const std::vector<Bytes>& issuers) {
  const auto callback = socket.m_clientCertCallback.lock();
  return callback != nullptr ? callback->FireOnClientCertificate(issuers) : socket.FireOnClientCertificate(issuers);
}

}  // namespace quenmark::tls
