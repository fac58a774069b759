// An asynchronous socket with TLS in between on request. Without TLS every call and every event goes straight through.
//
// No operation throws; unless noted, one answers true on success and LastError says why it failed. Times are in
// milliseconds, ports 0 to 65535. Everything happens on the thread of the loop, which must outlive the socket. A socket
// lives in a shared_ptr, so that it outlives the handler or wait it is dropped in; after a close or drop of the
// transport in a handler nothing more is raised.
//
// The Sync calls wait and let the loop's messages run meanwhile, the main tick left out; the events of what arrives are
// raised during the wait.
#pragma once

#include "platform/keep.h"
#include "sockets/async_socket.h"
#include "tls/engine.h"
#include "tls/peer_validation.h"
#include "tls/tls_socket_events.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::tls {

// Features beside the protocol versions (bits 1, 2, 4, 8, of which 4 and 8 mean something to the engine).
constexpr std::uint32_t kFeatureAllVersions = 15;
constexpr std::uint32_t kFeatureIgnoreCertificateErrors = 16;
constexpr std::uint32_t kFeatureCheckRevocation = 32;

// None when it has neither number nor text. The number of a fatal alert 90 or 100 is 0.
struct SocketError {
  std::int32_t number = 0;
  std::string description;
  std::string source;
};

class cTlsSocket : public std::enable_shared_from_this<cTlsSocket>,
                   public ClientCertificateOwner,
                   private sockets::AsyncSocketEvents {
 public:
  // `certificates` judges peers and loads certificates; without it a client with certificate checks cannot connect.
  static std::shared_ptr<cTlsSocket> New(platform::MessageLoop& loop, std::shared_ptr<CertificateServices> certificates,
                                         const sockets::SocketServices& services = {});
  // For make_shared only.
  cTlsSocket(platform::MessageLoop& loop, std::shared_ptr<CertificateServices> certificates,
             const sockets::SocketServices& services);
  ~cTlsSocket() override;
  cTlsSocket(const cTlsSocket&) = delete;
  cTlsSocket& operator=(const cTlsSocket&) = delete;

  // The events go to whoever this points to and, while one is handled, keeps alive.
  void SetEvents(std::weak_ptr<TlsSocketEvents> events) { m_events = std::move(events); }

  // --- The transport -------------------------------------------------------------------------------------------------
  const std::shared_ptr<sockets::cAsyncSocket>& Socket() const { return m_oSocket; }
  platform::SocketHandle SocketHandle() const { return m_oSocket->SocketHandle(); }
  bool HasPendingEvent() const { return m_oSocket->HasPendingEvent(); }
  // The engine's last error when it has one, else the transport's.
  SocketError LastError() const;
  static std::string GetErrorDescription(std::int32_t errorCode);
  bool Create(std::int32_t socketPort = 0, std::int32_t socketType = platform::kSockStream,
              std::int32_t eventMask = platform::kFdAll, std::string_view socketAddress = {});
  bool Attach(platform::SocketHandle socketHandle, std::int32_t eventMask = platform::kFdAll);
  platform::SocketHandle Detach();
  bool Bind(std::string_view socketAddress, std::int32_t socketPort);
  bool Listen(std::int32_t connectionBacklog = 5);
  bool GetPeerName(std::string& peerAddress, std::int32_t& peerPort);
  bool GetSockName(std::string& socketAddress, std::int32_t& socketPort);
  bool GetLocalHost(std::string& hostName, std::string& hostAddress,
                    std::vector<platform::AdapterAddress>& adaptersInfo);
  static std::string FromTextArray(std::span<const std::uint8_t> text, std::int32_t codePage);
  static std::vector<std::uint8_t> ToTextArray(std::string_view text, std::int32_t codePage);

  // --- Opening and closing -------------------------------------------------------------------------------------------
  // With `useTls` the handshake begins when the transport is connected; hostAddress is also the name that is sent to
  // the server and that its certificate must have. localFeatures without a version bit means all of them. The callback
  // is asked for a client certificate in place of OnClientCertificate; a new one drops the loaded root store. ALPN
  // protocols are separated by "|".
  bool Connect(std::string_view hostAddress, std::int32_t hostPort, bool useTls = true, std::uint32_t localFeatures = 0,
               std::weak_ptr<ClientCertificateOwner> clientCertCallback = {}, std::string_view alpnProtocols = {});
  // Starts a client handshake on a connected socket; fails when TLS has started already. An empty name, callback or
  // list keeps what an earlier call has set.
  bool StartTls(std::string_view remoteHostName, std::uint32_t localFeatures = 0,
                std::weak_ptr<ClientCertificateOwner> clientCertCallback = {}, std::string_view alpnProtocols = {});
  // Makes this the server side: of the connection it has, or, on a listening socket, of those it accepts. Certificates
  // and key not given are loaded from the "|"-separated PEM files, else from the PKCS#12 file; without either a
  // self-signed certificate is made.
  bool InitServerTls(std::string_view certFiles = {}, std::string_view pkcs12File = {}, std::string_view password = {},
                     const std::vector<Bytes>& certificates = {}, BytesView privateKey = {},
                     std::string_view alpnProtocols = {}, std::uint32_t localFeatures = 0);
  // Takes a waiting connection into `socket`, which is made when it is empty. With `useTls` its server side starts with
  // this socket's certificates, key, protocols and features.
  bool Accept(std::shared_ptr<cTlsSocket>& socket, std::string_view hostAddress = {}, std::int32_t hostPort = 0,
              bool useTls = true);
  // With TLS: sends close_notify once the handshake is complete, and leaves the transport open.
  bool ShutDown();
  bool Close_();
  bool PostEvent(std::int32_t eventMask, bool immediately = false);

  // --- State ---------------------------------------------------------------------------------------------------------
  bool IsClosed() const;
  // With TLS: the peer ended the connection with close_notify, so that nothing was cut off.
  bool PeerClosedCleanly() const { return m_peerClosedCleanly; }
  bool IsServer() const { return m_isServer; }
  bool UseTls() const { return m_useTls; }
  const std::string& RemoteHostName() const { return m_remoteHostName; }
  std::uint32_t LocalFeatures() const { return m_localFeatures; }
  const std::vector<Bytes>& RemoteCertificates() const { return m_context.remoteCertificates; }
  const std::vector<Bytes>& LocalCertificates() const { return m_context.localCertificates; }
  void SetLocalCertificates(std::vector<Bytes> certificates) { m_context.localCertificates = std::move(certificates); }
  const platform::SecretBuffer& LocalPrivateKey() const { return m_context.localPrivateKey; }
  void SetLocalPrivateKey(BytesView privateKey) {
    m_context.localPrivateKey.assign(privateKey.begin(), privateKey.end());
  }
  const std::string& AlpnNegotiated() const { return m_context.alpnNegotiated; }
  const std::string& SniRequested() const { return m_context.sniRequested; }
  // What the engine agreed on; for diagnosis.
  const Context& Engine() const { return m_context; }

  // --- Certificates --------------------------------------------------------------------------------------------------
  // "|"-separated PEM files to local certificates and key.
  bool PkiPemImportCertificates(std::string_view fileNames);
  bool PkiPkcs12ImportCertificates(std::string_view fileName, std::string_view password);
  // The roots that alone are trusted from now on; an empty name goes back to the system's. On failure nothing changes.
  bool PkiPemImportRootCaCertStore(std::string_view fileName);
  // Raises OnClientCertificate. Lets this socket be the callback of another one.
  bool FireOnClientCertificate(const std::vector<Bytes>& issuers) override;

  // --- Transfer ------------------------------------------------------------------------------------------------------
  std::int32_t AvailableBytes();
  // Plaintext bytes that had left this process's buffers when they were last empty.
  std::int32_t LastSendBytes() const;
  // All that is there. With TLS: true, and empty, when nothing is; false when the connection is over and all is taken,
  // or this very read met a fault. Keep `buffer` for the next call: its memory is used again.
  bool ReceiveArray(Bytes& buffer, std::string* hostAddress = nullptr, std::int32_t* hostPort = nullptr);
  bool ReceiveText(std::string& text, std::string* hostAddress = nullptr, std::int32_t* hostPort = nullptr,
                   std::int32_t codePage = platform::kCodePageUtf8);
  // With TLS everything is taken; what the transport does not accept at once, or was given before the connection is
  // established, follows by itself. Addresses are for datagrams only.
  bool SendArray(BytesView buffer, std::string_view hostAddress = {}, std::int32_t hostPort = 0);
  bool SendText(std::string_view text, std::string_view hostAddress = {}, std::int32_t hostPort = 0,
                std::int32_t codePage = platform::kCodePageUtf8);
  // The count taken, -1 on failure.
  std::int32_t Send(BytesView data, std::string_view hostAddress = {}, std::int32_t hostPort = 0);

  // --- Waiting calls -------------------------------------------------------------------------------------------------
  // Timeout 0: 5000 ms to connect, otherwise the socket's own time-out option, 5000 ms when that is 0.
  bool SyncConnect(std::string_view hostAddress, std::int32_t hostPort, std::int32_t timeout = 0, bool useTls = true,
                   std::uint32_t localFeatures = 0, std::weak_ptr<ClientCertificateOwner> clientCertCallback = {},
                   std::string_view alpnProtocols = {});
  bool SyncStartTls(std::string_view remoteHostName, std::int32_t timeout = 0, std::uint32_t localFeatures = 0,
                    std::weak_ptr<ClientCertificateOwner> clientCertCallback = {}, std::string_view alpnProtocols = {});
  // Until everything is with the transport.
  bool SyncSendArray(BytesView buffer, std::int32_t timeout = 0, std::string_view hostAddress = {},
                     std::int32_t hostPort = 0);
  bool SyncSendText(std::string_view text, std::int32_t timeout = 0, std::string_view hostAddress = {},
                    std::int32_t hostPort = 0, std::int32_t codePage = platform::kCodePageUtf8);
  // Exactly `needLen` bytes; whatever comes first when it is 0. On failure `buffer` holds what came until then.
  bool SyncReceiveArray(Bytes& buffer, std::int32_t needLen = 0, std::int32_t timeout = 0,
                        std::string* hostAddress = nullptr, std::int32_t* hostPort = nullptr);
  // At least `needLen` UTF-16 units of text; whatever comes first when it is 0.
  bool SyncReceiveText(std::string& text, std::int32_t needLen = 0, std::int32_t timeout = 0,
                       std::string* hostAddress = nullptr, std::int32_t* hostPort = nullptr,
                       std::int32_t codePage = platform::kCodePageUtf8);
  // Until an event of the mask that no earlier wait has answered; 0 or less: for ever.
  bool SyncWaitForEvent(std::int32_t timeout, std::int32_t eventMask);

 private:
  using Keep = platform::Keep<cTlsSocket>;
  friend Keep;
  // Asks whoever answers for client certificates.
  struct CertificatePrompt final : ClientCertificateOwner {
    explicit CertificatePrompt(cTlsSocket& owner) : socket(owner) {}
    bool FireOnClientCertificate(const std::vector<Bytes>& issuers) override;
    cTlsSocket& socket;
  };
  // Who runs a read pass.
  enum class Reader { kNotification, kClose, kOwner };
  // What a read pass met and has not told yet.
  struct Ending {
    bool pending = false;
    std::optional<std::int32_t> error;  // for OnError; 0 for some alerts
    bool close = false;                 // OnClose, after that
  };
  using Handler = void (TlsSocketEvents::*)(cTlsSocket&);

  // Events of the transport
  void OnResolve(sockets::cAsyncSocket& socket, std::string_view ipAddress) override;
  void OnAccept(sockets::cAsyncSocket& socket) override;
  void OnClose(sockets::cAsyncSocket& socket) override;
  void OnConnect(sockets::cAsyncSocket& socket) override;
  void OnReceive(sockets::cAsyncSocket& socket) override;
  void OnSend(sockets::cAsyncSocket& socket) override;
  void OnError(sockets::cAsyncSocket& socket, std::int32_t errorCode, std::int32_t eventMask) override;
  void OnMessagePending(sockets::cAsyncSocket& socket, bool& handled) override;
  void BeforeNotify(sockets::cAsyncSocket& socket, std::int32_t eventMask, bool& cancel) override;
  void AfterNotify(sockets::cAsyncSocket& socket, std::int32_t eventMask) override;

  // Raising
  template <typename Event, typename... Arguments>
  void pvRaise(Event event, Arguments&&... arguments);
  // The event between BeforeNotify and AfterNotify. False when the connection did not outlive it.
  bool pvNotify(std::int32_t eventMask, Handler handler);
  // A change of connection, a closed transport or a dropped socket. Needs a Keep.
  bool pvGoneSince(std::uint64_t generation) const;
  void pvRaiseEngineError(std::int32_t eventMask);
  void pvRaiseSendFailure(std::int32_t eventMask);
  void pvRaiseTransportError(std::int32_t errorCode, std::int32_t eventMask);
  void pvRaiseClose();
  // OnReceive, if it is due. False when the connection did not outlive it.
  bool pvTellPlain();
  // False when the ending is an error, or the connection did not outlive it.
  bool pvRaiseEnding();

  // Connection
  void pvForgetConnection();
  std::uint32_t pvCompleteFeatures(std::uint32_t features) const;
  void pvSetCallback(std::weak_ptr<ClientCertificateOwner> callback);
  bool pvStartServer(const std::vector<Bytes>& certificates, BytesView privateKey, std::string_view alpnProtocols,
                     std::uint32_t localFeatures);
  bool pvStartClient();
  bool pvOnShutdown();
  void pvOnClose();
  bool pvFail(const CertificateError& error);
  bool pvFail(std::int32_t socketError);
  // Of a connection that is over: the engine's error, else "not connected".
  bool pvFailClosed();
  void pvResumeEvents();

  // Reading
  bool pvOnReceive(Reader reader);
  bool pvReadOnce(BytesView& input);
  enum class Step { kStop, kMore, kGone };
  Step pvReceiveStep(BytesView input, Reader reader);
  Step pvHandshakeStep(BytesView input, Reader reader);
  void pvNoteEnding(bool good, bool closeAfterError);
  void pvNoteSendFailure();
  bool pvPeerIsValid(CertificateError& error);
  void pvRefusePeer(const CertificateError& error);
  bool pvFinishHandshake();
  bool pvTakePlain(Bytes& buffer, std::size_t limit);
  // The engine has the buffer while it runs.
  std::size_t pvPlainLength() const { return m_plain.size() - std::min(m_plainTaken, m_plain.size()); }
  void pvRearm();

  // Writing
  bool pvOnSend();
  bool pvSealUnsent();
  bool pvDrained() const { return m_out.empty() && m_unsent.empty(); }
  bool pvEstablished() const { return m_established && !m_validating && TlsIsReady(m_context); }

  // Waiting
  std::int32_t pvTimeout(std::int32_t timeout, std::int32_t optionName);
  std::int32_t pvRemaining(platform::MonotonicTime deadline) const;
  bool pvTakeFired(std::int32_t eventMask);

  platform::MessageLoop& m_loop;
  std::shared_ptr<CertificateServices> m_certificates;
  std::shared_ptr<sockets::cAsyncSocket> m_oSocket;
  std::weak_ptr<TlsSocketEvents> m_events;
  CertificatePrompt m_prompt{*this};

  // Given by the owner.
  bool m_useTls = false;
  bool m_isServer = false;
  std::string m_remoteHostName;
  std::uint32_t m_localFeatures = 0;
  std::string m_alpnProtocols;
  std::weak_ptr<ClientCertificateOwner> m_clientCertCallback;
  std::shared_ptr<const RootStore> m_rootStore;

  // One connection; pvForgetConnection clears it.
  Context m_context;
  bool m_established = false;  // OnConnect is due or raised: the peer's chain is valid
  bool m_validating = false;
  bool m_readWaits = false;   // more came while the engine or the validation was at work
  bool m_closeWaits = false;  // the transport ended meanwhile
  bool m_closeRaised = false;
  bool m_peerClosedCleanly = false;
  std::int32_t m_transportError = 0;  // ended the transport, or kept it from connecting
  Ending m_ending;
  Bytes m_validatedCertificate;  // of the peer; a renegotiation may not change it
  std::int32_t m_firedEvents = 0;
  std::int64_t m_plainSubmitted = 0;
  std::int64_t m_lastSendBytes = 0;
  Bytes m_plain;                 // decrypted, for the owner
  std::size_t m_plainTaken = 0;  // bytes of it already handed out
  bool m_untold = false;         // the owner has still to hear of some of it
  Bytes m_unsent;                // plaintext that waits for the end of the handshake or of the engine's work
  Bytes m_out;                   // records for the transport
  std::size_t m_sendPosition = 0;

  Bytes m_input;                   // room for one read from the transport
  std::uint64_t m_generation = 0;  // changes with each connection
  long m_keeps = 0;                // references that are Keeps, or the transport's while it raises an event
  int m_waits = 0;                 // running SyncWaitForEvent calls
};

}  // namespace quenmark::tls
