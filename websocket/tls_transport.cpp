#include "websocket/tls_transport.h"

#include "platform/socket_notifier.h"
#include "tls/primitives.h"
#include "tls/tls_socket.h"
#include "websocket/limits.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace quenmark::websocket {

namespace {

constexpr std::int32_t kIpprotoTcp = 6;
constexpr std::int32_t kTcpNoDelay = 1;
constexpr std::size_t kWorthCompacting = std::size_t{256} << 10;  // bytes sent in front of what waits

BytesView AsBytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

class TlsTransport final : public Transport, public tls::TlsSocketEvents {
 public:
  TlsTransport(platform::MessageLoop& loop, std::shared_ptr<tls::CertificateServices> certificates,
               std::string rootsFile, std::weak_ptr<TransportEvents> events)
      : m_events(std::move(events)),
        m_rootsFile(std::move(rootsFile)),
        m_socket(tls::cTlsSocket::New(loop, std::move(certificates))) {}

  // The weak pointer is to this object: the socket keeps it while an event is handled.
  void ListenTo(std::weak_ptr<tls::TlsSocketEvents> self) { m_socket->SetEvents(std::move(self)); }

  bool Connect(const std::string& host, std::int32_t port, bool useTls, std::uint32_t localFeatures) override {
    if (useTls && !m_rootsFile.empty() && !m_socket->PkiPemImportRootCaCertStore(m_rootsFile)) return false;
    if (!m_socket->Connect(host, port, useTls, localFeatures)) return false;
    // A frame goes out when it is made: behind another one that is not acknowledged it would wait up to 40 ms.
    m_socket->Socket()->SetSockOpt(kTcpNoDelay, 1, kIpprotoTcp);
    return true;
  }

  // A TLS engine that has said close_notify counts as open until the peer has too; without a socket it never will.
  bool IsClosed() const override { return !HasSocket() || m_socket->IsClosed(); }
  bool HasSocket() const override { return m_socket->SocketHandle() != platform::kInvalidSocket; }

  // Without TLS the system is not asked: a read that came back short has taken everything, and what arrives later is an
  // event of its own.
  std::int64_t AvailableBytes() override {
    if (m_socket->UseTls()) return m_socket->AvailableBytes();
    return m_drained ? 0 : 1;
  }
  bool Receive(ReceiveBuffer& buffer, std::size_t atMost) override {
    return m_socket->UseTls() ? ReceiveDecrypted(buffer) : ReceivePlain(buffer, atMost);
  }

  bool SendArray(BytesView bytes) override {
    if (IsClosed()) return false;
    if (m_socket->UseTls()) return SendEncrypted(bytes);
    if (m_unsent.empty() && !SendPlain(bytes)) return false;
    m_unsent.insert(m_unsent.end(), bytes.begin(), bytes.end());
    return true;
  }
  bool SendText(std::string_view text) override { return SendArray(AsBytes(text)); }

  std::size_t UnsentBytes() const override { return m_socket->UseTls() ? m_unsentTls : m_unsent.size() - m_sent; }

  void Close_() override { m_socket->Close_(); }
  void ShutDown() override { m_socket->ShutDown(); }
  void CloseSocket() override {
    m_socket->Socket()->Close_();
    m_unsent.clear();
    m_sent = m_unsentTls = 0;
  }

  std::string RemoteHostName() const override { return m_socket->RemoteHostName(); }
  std::string GetErrorDescription(std::int32_t errorCode) const override {
    std::string text = tls::cTlsSocket::GetErrorDescription(errorCode);
    if (!text.empty()) return text;
    const tls::SocketError last = m_socket->LastError();
    return last.number == errorCode ? last.description : text;  // the number of some fatal alerts is 0
  }

  void OnResolve(tls::cTlsSocket& /*socket*/, std::string_view ipAddress) override {
    Raise([&](TransportEvents& events) { events.OnResolve(ipAddress); });
  }
  void OnConnect(tls::cTlsSocket& /*socket*/) override {
    Raise([](TransportEvents& events) { events.OnConnect(); });
  }
  void OnReceive(tls::cTlsSocket& /*socket*/) override {
    m_drained = false;
    Raise([](TransportEvents& events) { events.OnReceive(); });
  }
  // A send that fails for good is told by the close event behind it.
  void OnSend(tls::cTlsSocket& socket) override {
    if (socket.UseTls()) {
      m_unsentTls = 0;  // raised when everything is out
    } else {
      Flush();
    }
    Raise([](TransportEvents& events) { events.OnSend(); });
  }
  void OnClose(tls::cTlsSocket& /*socket*/) override {
    Raise([](TransportEvents& events) { events.OnClose(); });
  }
  void OnError(tls::cTlsSocket& /*socket*/, std::int32_t errorCode, std::int32_t eventMask) override {
    Raise([&](TransportEvents& events) { events.OnError(errorCode, eventMask); });
  }

 private:
  template <typename Action>
  void Raise(Action action) {
    if (const auto events = m_events.lock()) action(*events);
  }

  // Straight into the room behind what waits in the buffer.
  bool ReceivePlain(ReceiveBuffer& buffer, std::size_t atMost) {
    const auto room = buffer.Prepare(std::min(atMost, kMinRead));
    const std::size_t asked = std::min(room.size(), atMost);
    const std::int32_t count = m_socket->Socket()->Receive(room.first(asked));
    m_drained = count < static_cast<std::int32_t>(asked);
    if (count < 1) return false;
    buffer.Commit(static_cast<std::size_t>(count));
    return true;
  }

  // What the socket has decrypted changes hands without a copy when the buffer is empty; three vectors go round.
  bool ReceiveDecrypted(ReceiveBuffer& buffer) {
    if (!m_socket->ReceiveArray(m_decrypted)) return false;
    buffer.Take(m_decrypted);
    return true;
  }

  // The socket queues by itself, and says only whether anything waits.
  bool SendEncrypted(BytesView bytes) {
    if (!m_socket->SendArray(bytes)) return false;
    m_unsentTls = m_socket->HasPendingEvent() ? m_unsentTls + bytes.size() : 0;
    return true;
  }

  // Sends from the front as much as the socket takes, and cuts it off. False when the connection is broken.
  bool SendPlain(BytesView& bytes) {
    while (!bytes.empty()) {
      const std::int32_t count = m_socket->Socket()->Send(bytes);
      if (count < 0) return m_socket->HasPendingEvent();
      bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return true;
  }

  void Flush() {
    BytesView rest = BytesView(m_unsent).subspan(m_sent);
    const bool good = SendPlain(rest);
    m_sent = m_unsent.size() - rest.size();
    if (!good || rest.empty()) {
      m_unsent.clear();
      m_sent = 0;
      if (m_unsent.capacity() > kKeptBuffer) m_unsent.shrink_to_fit();
    } else if (m_sent >= kWorthCompacting && m_sent >= rest.size()) {
      m_unsent.erase(m_unsent.begin(), m_unsent.begin() + static_cast<std::ptrdiff_t>(m_sent));
      m_sent = 0;
    }
  }

  std::weak_ptr<TransportEvents> m_events;
  const std::string m_rootsFile;
  std::shared_ptr<tls::cTlsSocket> m_socket;
  Bytes m_decrypted;      // memory for the next read with TLS
  bool m_drained = true;  // without TLS: nothing is known to wait
  Bytes m_unsent;         // without TLS: what the socket did not take, from m_sent on
  std::size_t m_sent = 0;
  std::size_t m_unsentTls = 0;  // with TLS: bytes taken since everything was last out
};

std::string Sha1Digest(std::string_view text) {
  try {
    const tls::DigestValue digest = tls::pvTlsGetHash(tls::Digest::kSha1, AsBytes(text));
    return {digest.View().begin(), digest.View().end()};
  } catch (const std::exception&) {
    return {};
  }
}

}  // namespace

TransportFactory MakeTlsTransportFactory(platform::MessageLoop& loop,
                                         std::shared_ptr<tls::CertificateServices> certificates,
                                         std::string rootsFile) {
  return [&loop, certificates = std::move(certificates),
          rootsFile = std::move(rootsFile)](std::weak_ptr<TransportEvents> events) {
    auto transport = std::make_shared<TlsTransport>(loop, certificates, rootsFile, std::move(events));
    transport->ListenTo(transport);
    return transport;
  };
}

WebsocketServices MakeWebsocketServices(platform::MessageLoop& loop,
                                        std::shared_ptr<tls::CertificateServices> certificates, std::string rootsFile) {
  return {MakeTlsTransportFactory(loop, std::move(certificates), std::move(rootsFile)), tls::pvTlsGetRandom,
          Sha1Digest};
}

}  // namespace quenmark::websocket
