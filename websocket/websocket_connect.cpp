// Connecting, the opening handshake, and the end of connections.
#include "platform/store_text.h"
#include "websocket/header_text.h"
#include "websocket/limits.h"
#include "websocket/websocket_state.h"

#include <fmt/format.h>

namespace quenmark::websocket {

namespace {

constexpr std::uint32_t kLocalFeatures = 15;  // both TLS versions
constexpr std::size_t kKeyBytes = 16;
constexpr std::string_view kBadAddress = "Invalid Connection Data or URL Parsing Error.";

std::string EventText(std::int32_t eventMask) {
  switch (eventMask) {
    case 1:
      return "Event Type: Recieve/Read";
    case 2:
      return "Event Type: Send/Write";
    case 4:
      return "Event Type: OOB Out-Of-Band";
    case 8:
      return "Event Type: Accept";
    case 16:
      return "Event Type: Connect";
    case 32:
      return "Event Type: Close";
    case 63:
      return "Event Type: Unknown/All";
    default:
      return fmt::format("Event Type: Unknown ({})", eventMask);
  }
}

}  // namespace

// Hands a transport's events to the component. One per transport, so that what a transport says after it was let go
// reaches nobody: also when both live on because a handler of theirs has not returned yet.
class TransportSink final : public TransportEvents {
 public:
  explicit TransportSink(std::weak_ptr<WebsocketState> state) : m_state(std::move(state)) {}

  void OnResolve(std::string_view ipAddress) override {
    Run([&](WebsocketState& state) { state.OnTransportResolve(ipAddress); });
  }
  void OnConnect() override {
    Run([](WebsocketState& state) { state.OnTransportConnect(); });
  }
  void OnReceive() override {
    Run([](WebsocketState& state) { state.OnTransportReceive(); });
  }
  void OnSend() override {
    Run([](WebsocketState& state) { state.OnTransportSend(); });
  }
  void OnClose() override {
    Run([](WebsocketState& state) { state.OnTransportClose(); });
  }
  void OnError(std::int32_t errorCode, std::int32_t eventMask) override {
    Run([&](WebsocketState& state) { state.OnTransportError(errorCode, eventMask); });
  }

 private:
  template <typename Action>
  void Run(Action action) {
    const auto state = m_state.lock();
    if (!state || !state->Hears(*this)) return;
    const auto transport = state->TheTransport();  // lives until the handlers are done with it
    action(*state);
  }

  std::weak_ptr<WebsocketState> m_state;
};

WebsocketState::WebsocketState(platform::MessageLoop& loop, WebsocketServices services, WebsocketEvents events)
    : m_loop(loop),
      m_services(std::move(services)),
      m_events(std::move(events)),
      m_random(m_services.random),
      m_compressor(std::make_unique<cZipArchive>()) {}

void WebsocketState::Start() {
  MakeTransport();
}

void WebsocketState::Drop() {
  m_dropped = true;
  CloseSocket();
  m_sink.reset();
}

void WebsocketState::MakeTransport() {
  m_sink = std::make_shared<TransportSink>(weak_from_this());
  m_transport = m_services.makeTransport(m_sink);
}

std::string WebsocketState::CodeText(std::int32_t code) const {
  return GetStatusCodeText(code, [this](std::int32_t number) { return m_transport->GetErrorDescription(number); });
}

void WebsocketState::Reset() {
  ++m_connection;
  readyState = kStateClosed;
  m_url = UrlFields();
  protocols.clear();
  extensions.clear();
  m_remoteIp.clear();
  m_extraHeaders.clear();
  m_key.clear();
  m_closeAttempts = 0;
  m_redirects = 0;
  ForgetReceived();
}

void WebsocketState::Connect(std::string_view url, std::string_view port, std::string_view wantedProtocols,
                             std::string_view wantedExtensions, std::span<const std::string> headers) {
  // The arguments may refer to fields that Reset empties.
  const std::string address(url);
  std::string protocolList = NormaliseList(wantedProtocols);
  std::string extensionList = NormaliseList(wantedExtensions);
  const auto portNumber = ParseNumber(port);
  Reset();
  for (const std::string& header : headers) m_extraHeaders += header + "\r\n";
  protocols = std::move(protocolList);
  extensions = std::move(extensionList);
  m_url.port = portNumber.value_or(0);
  if (!ParseUrl(address, m_url)) return FailConnect(std::string(kBadAddress));
  Open();
}

void WebsocketState::ReConnect(std::string_view url) {
  m_redirects = 0;
  Follow(url);
}

void WebsocketState::Follow(std::string_view url) {
  const std::string address(url);
  ++m_connection;
  if (!address.empty() && !ParseUrl(address, m_url)) {
    return FailConnect(fmt::format("{} ({})", kBadAddress, address));
  }
  ForgetReceived();
  Open();
}

void WebsocketState::Open() {
  readyState = kStateConnecting;
  status = kStatusConnecting;
  m_answered = false;
  m_sink.reset();  // the old transport may say what it likes while it goes
  if (!m_transport->IsClosed()) m_transport->Close_();
  m_transport->CloseSocket();  // it outlives this call when a handler of its own is running
  MakeTransport();
  const std::uint64_t connection = m_connection;
  const auto transport = m_transport;
  const bool begun = !m_url.host.empty() && transport->Connect(m_url.host, m_url.port, m_url.secure, kLocalFeatures);
  if (!begun && !m_dropped && m_connection == connection) FailConnect("Unable to connect.");
}

void WebsocketState::FailConnect(const std::string& description) {
  if (!RaiseError(kInternalError, description)) return;
  CloseSocket();
  status = kStatusError;
  Reset();
}

void WebsocketState::OnTransportResolve(std::string_view ipAddress) {
  m_remoteIp = ipAddress;
}

void WebsocketState::OnTransportConnect() {
  if (readyState != kStateConnecting) return;
  m_key = platform::EncodeBase64(m_random.Bytes(kKeyBytes));
  if (useCompression) extensions = OfferDeflate(extensions);
  m_extraHeaders = WithOrigin(m_extraHeaders, m_url);
  const HandshakeFields fields{protocols, extensions, m_extraHeaders, m_key};
  const std::uint64_t connection = m_connection;
  const bool sent = m_transport->SendText(HandshakeRequest(m_url, fields));
  if (sent || m_dropped || m_connection != connection) return;
  if (RaiseError(kInternalError, "Couldnt send handshake to server.")) Disconnect();
}

// False when nothing that is buffered is to be looked at now.
bool WebsocketState::CollectAndValidate() {
  const BytesView received = m_received.Unread();
  const std::string_view text(reinterpret_cast<const char*>(received.data()), received.size());
  const CollectedAnswer answer = CollectAnswer(text);
  switch (answer.state) {
    case CollectedAnswer::State::kWait:
      return false;
    case CollectedAnswer::State::kCorrupt:
      EndWith(m_events.OnError, kInvalidData, "Cannot connect! Incoming Header Data Corrupted. Please try again.");
      return false;
    case CollectedAnswer::State::kComplete:
      break;
  }
  AnswerVerdict verdict = ValidateAnswer(text.substr(0, answer.length), AcceptValue(m_key, m_services.sha1));
  m_received.Consume(answer.length);
  const std::uint64_t connection = m_connection;
  m_answered = true;
  const bool goesOn = ApplyAnswer(std::move(verdict));
  if (m_connection != connection) return goesOn;
  m_answered = false;
  const auto end = std::exchange(m_heldEnd, nullptr);
  if (!end) return goesOn;
  if (m_sink) end();
  return false;
}

bool WebsocketState::ApplyAnswer(AnswerVerdict verdict) {
  using Kind = AnswerVerdict::Kind;
  switch (verdict.kind) {
    case Kind::kIgnored:
      return false;
    case Kind::kAccepted:
      return AcceptUpgrade(verdict);
    case Kind::kUnreadable:
    case Kind::kRefused:
      if (RaiseError(verdict.code, verdict.description)) Disconnect();
      return true;
    case Kind::kProxy:
      if (Raise(m_events.OnClose, verdict.code, verdict.description)) Disconnect();
      return true;
    case Kind::kFailedCheck:
      readyState = kStateClosing;
      [[fallthrough]];
    case Kind::kBadRedirect:
      EndWith(m_events.OnError, verdict.code, verdict.description);
      return false;
    case Kind::kRedirect:
      return Redirect(verdict.location);
  }
  return false;
}

bool WebsocketState::AcceptUpgrade(AnswerVerdict& verdict) {
  protocols = std::move(verdict.protocols);
  extensions = std::move(verdict.extensions);
  if (useCompression && !DeflateNegotiated(extensions)) {
    const bool goesOn = RaiseError(kMandatoryExtension,
                                   "The server does not support deflate compression. Data will be sent uncompressed.");
    if (!goesOn || readyState != kStateConnecting) return true;
    useCompression = false;
  }
  if (m_compressor) {
    const DeflateTerms terms = ReadDeflateTerms(extensions);
    m_compressor->Begin(terms.clientWindowBits, terms.serverKeepsContext);
  }
  m_redirects = 0;
  readyState = kStateOpen;
  status = kStatusConnected;
  const std::string address = m_remoteIp;  // a handler that connects again empties the field
  Raise(m_events.OnConnect, m_transport->RemoteHostName(), address, fmt::to_string(m_url.port));
  return true;
}

bool WebsocketState::Redirect(const std::string& location) {
  if (++m_redirects > kMaxRedirects) {
    EndWith(m_events.OnError, kBadGateway, std::string(kRedirectFailed));
    return false;
  }
  if (Raise(m_events.OnReConnect, location)) Follow(location);
  return true;
}

void WebsocketState::OnTransportError(std::int32_t errorCode, std::int32_t eventMask) {
  if (HoldsEnds()) {
    m_heldEnd = [this, errorCode, eventMask] { OnTransportError(errorCode, eventMask); };
    return;
  }
  const std::string description = fmt::format("{} {}:  Description: {}", EventText(eventMask), errorCode,
                                              m_transport->GetErrorDescription(errorCode));
  if (!DeliverBeforeTheEnd()) return;
  readyState = kStateClosing;
  if (m_transport->IsClosed()) return EndWith(m_events.OnError, kSocketError, description);
  if (!RaiseError(kSocketError, description)) return;
  // A close frame that cannot be sent does not call for another one.
  if (m_transport->IsClosed() || m_sendingClose) {
    CloseSocket();
  } else {
    Disconnect();
  }
}

void WebsocketState::OnTransportClose() {
  if (HoldsEnds()) {
    m_heldEnd = [this] { OnTransportClose(); };
    return;
  }
  if (!DeliverBeforeTheEnd()) return;
  readyState = kStateClosed;
  EndNormally();
}

void WebsocketState::Disconnect() {
  if (readyState != kStateClosed) readyState = kStateClosing;
  if (m_transport->IsClosed() && m_transport->HasSocket()) {
    if (!m_sink) return CloseSocket();  // the owner is being told
    return EndNormally();
  }
  const std::uint64_t connection = m_connection;
  const bool nested = std::exchange(m_sendingClose, true);
  SendFrame(kFin | kClose, {});
  m_sendingClose = nested;
  if (m_dropped || m_connection != connection) return;
  if (++m_closeAttempts > 1) {
    CloseSocket();
    m_closeAttempts = 0;
  }
}

void WebsocketState::ShutDown() {
  readyState = kStateClosed;
  CloseSocket();
  Reset();
}

void WebsocketState::CloseSocket() {
  const auto transport = m_transport;
  const bool nested = std::exchange(m_closing, true);
  transport->Close_();
  transport->ShutDown();
  transport->CloseSocket();
  m_closing = nested;
  status = kStatusClosed;
  ForgetReceived();
  readyState = kStateClosed;
}

}  // namespace quenmark::websocket
