// What the TLS socket tests share: an owner that writes down events, a judge of certificates, libssl on the other end.
#pragma once

#include "tests/support/plain_socket.h"
#include "tests/tls/peers.h"
#include "tls/tls_socket.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace quenmark::test {

using tls::cTlsSocket;
using tls::kFeatureIgnoreCertificateErrors;
using Events = std::vector<std::string>;

inline tls::BytesView View(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}
inline std::string Text(const tls::Bytes& bytes) {
  return {bytes.begin(), bytes.end()};
}

// Accepts what the test says, and notes what it was asked.
struct Judge final : tls::CertificateServices {
  bool valid = true;
  std::string host;
  std::size_t chainLength = 0;
  bool withRoots = false;
  bool revocation = false;
  int asked = 0;
  std::function<void()> meanwhile;

  bool ValidateChain(const tls::ChainRequest& request, tls::CertificateError& error) override {
    ++asked;
    host = request.remoteHostName;
    chainLength = request.chain->size();
    withRoots = request.rootStore != nullptr;
    revocation = request.checkRevocation;
    if (meanwhile) meanwhile();
    if (!valid) error = {tls::kEngineError, "The certificate has expired", "elsewhere"};
    return valid;
  }
  static bool Give(tls::Identity& identity) {
    const Identity& own = IdentityOf(KeyKind::kP256);
    identity = {{own.certificate}, {own.privateKey.begin(), own.privateKey.end()}};
    return true;
  }
  bool ImportPem(std::string_view files, tls::Identity& identity, tls::CertificateError& error) override {
    if (files == "good.pem") return Give(identity);
    error = {53, "File not found", "cTlsSocket.PkiPemImportCertificates"};
    return false;
  }
  bool ImportPkcs12(std::string_view, std::string_view, tls::Identity& identity, tls::CertificateError&) override {
    return Give(identity);
  }
  bool ImportRoots(std::string_view, std::shared_ptr<const tls::RootStore>& store, tls::CertificateError&) override {
    store = std::make_shared<tls::RootStore>();
    return true;
  }
  bool MakeSelfSigned(std::string_view, tls::Identity& identity, tls::CertificateError&) override {
    return Give(identity);
  }
};

// Writes events down as "OnConnect", "OnError number mask"…, and then runs what the test set for it.
struct Owner final : tls::TlsSocketEvents {
  Events events;
  std::string received;
  bool notify = false;
  bool reads = true;
  std::int32_t cancel = 0;
  std::function<void(cTlsSocket&, const std::string&)> act;
  std::function<bool(cTlsSocket&)> certificate;

  void Note(cTlsSocket& socket, std::string event) {
    events.push_back(event);
    if (act) act(socket, event);
  }
  void OnResolve(cTlsSocket& socket, std::string_view address) override {
    Note(socket, fmt::format("OnResolve {}", address));
  }
  void OnAccept(cTlsSocket& socket) override { Note(socket, "OnAccept"); }
  void OnClose(cTlsSocket& socket) override { Note(socket, fmt::format("OnClose {}", socket.LastError().number)); }
  void OnConnect(cTlsSocket& socket) override { Note(socket, "OnConnect"); }
  void OnReceive(cTlsSocket& socket) override {
    if (reads) {
      tls::Bytes data;
      EXPECT_TRUE(socket.ReceiveArray(data));
      received += Text(data);
    }
    Note(socket, "OnReceive");
  }
  void OnSend(cTlsSocket& socket) override { Note(socket, "OnSend"); }
  void OnError(cTlsSocket& socket, std::int32_t number, std::int32_t mask) override {
    EXPECT_EQ(socket.LastError().number, number);
    Note(socket, fmt::format("OnError {:X} {}", static_cast<std::uint32_t>(number), mask));
  }
  void BeforeNotify(cTlsSocket& socket, std::int32_t mask, bool& handled) override {
    handled = (cancel & mask) != 0;
    if (notify) Note(socket, fmt::format("Before {}", mask));
  }
  void AfterNotify(cTlsSocket& socket, std::int32_t mask) override {
    if (notify) Note(socket, fmt::format("After {}", mask));
  }
  void OnClientCertificate(cTlsSocket& socket, const std::vector<tls::Bytes>&, bool& confirmed) override {
    Note(socket, "OnClientCertificate");
    confirmed = certificate && certificate(socket);
  }
  bool Saw(std::string_view event) const { return std::count(events.begin(), events.end(), event) > 0; }
};

// libssl behind a plain descriptor, moved on by a timer of the loop.
struct WirePeer {
  explicit WirePeer(const PeerOptions& options) : ssl(options) {}

  void Pump() {
    if (descriptor < 0) return;
    if (!holdsBack) Read();
    ssl.Run();
    Flush();
  }
  void Read() {
    tls::Bytes part(65536);
    for (ssize_t count = 0; (count = recv(descriptor, part.data(), part.size(), MSG_DONTWAIT)) >= 0;) {
      atEnd |= count == 0;
      if (count == 0) break;
      ssl.Feed(tls::BytesView(part).first(static_cast<std::size_t>(count)));
    }
  }
  void Renegotiate() {
    SSL_renegotiate(ssl.Handle());
    SSL_do_handshake(ssl.Handle());
    Flush();
  }
  void Flush() {
    const tls::Bytes output = ssl.TakeOutput();
    if (!output.empty()) PlainSend(descriptor, {reinterpret_cast<const char*>(output.data()), output.size()});
  }
  void Send(std::string_view text) {
    ssl.Send(View(text));
    Flush();
  }
  void CloseNotify() {
    SSL_shutdown(ssl.Handle());
    Flush();
  }

  LibsslPeer ssl;
  Descriptor descriptor;
  bool holdsBack = false;  // reads nothing
  bool atEnd = false;
};

class TlsSocketFixture {
 protected:
  using milliseconds = std::chrono::milliseconds;

  TlsSocketFixture() { m_pump.SetEnabled(true); }

  std::shared_ptr<cTlsSocket> NewSocket() {
    auto socket = cTlsSocket::New(m_loop, m_judge, m_services);
    socket->SetEvents(m_owner);
    return socket;
  }
  bool Wait(const std::function<bool()>& done) {
    return m_loop.WaitUntil(done, m_clock.Monotonic() + std::chrono::seconds{20});
  }
  bool WaitFor(std::string_view event) {
    return Wait([&] { return m_owner->Saw(event); });
  }
  // Lets everything that is on its way arrive.
  void Settle() { m_loop.Sleep(milliseconds{10}); }

  // A listening libssl server that answers the one connection made to it.
  int Serve(const PeerOptions& options) {
    m_listener = Descriptor(PlainListener());
    fcntl(m_listener, F_SETFL, O_NONBLOCK);
    m_peer = std::make_unique<WirePeer>(options);
    return PortOf(m_listener);
  }
  void Pump() {
    if (m_peer == nullptr) return;
    if (m_peer->descriptor < 0 && m_listener >= 0) {
      const int accepted = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (accepted >= 0) m_peer->descriptor = Descriptor(accepted);
    }
    m_peer->Pump();
  }
  // A client that is connected, its events so far forgotten.
  void ConnectPair(const PeerOptions& options, std::uint32_t features = 0) {
    const int port = Serve(options);
    m_socket = NewSocket();
    ASSERT_TRUE(m_socket->Connect("127.0.0.1", port, true, features));
    ASSERT_TRUE(WaitFor("OnSend")) << m_socket->LastError().description;
    ASSERT_TRUE(Wait([&] { return m_peer->ssl.Ready(); }));
    m_owner->events.clear();
  }
  // Of a peer that holds back: the last message of its handshake, the text and its close_notify come in one read.
  void PeerFinishesAndEnds(std::string_view text, bool cleanly = true) {
    for (const tls::State expected : {tls::State::kExpectServerHello, tls::State::kExpectServerFinished}) {
      m_peer->ssl.Run();
      m_peer->Flush();
      ASSERT_TRUE(Wait([&] { return m_socket->Engine().state == expected; }));
      Settle();
      m_peer->Read();
    }
    m_peer->ssl.Send(View(text));
    if (cleanly) m_peer->CloseNotify();
    m_peer->Flush();
  }
  std::string PeerText() const { return Text(m_peer->ssl.plaintext); }

  platform::SystemClock m_clock;
  platform::MessageLoop m_loop{m_clock};
  sockets::SocketServices m_services;
  std::shared_ptr<Judge> m_judge = std::make_shared<Judge>();
  std::shared_ptr<Owner> m_owner = std::make_shared<Owner>();
  Descriptor m_listener;
  std::unique_ptr<WirePeer> m_peer;
  std::shared_ptr<cTlsSocket> m_socket;
  platform::Timer m_pump{m_loop, milliseconds{1}, [this] { Pump(); }};
};

// The same against servers of one version after the other.
class VersionedTlsSocket : public testing::TestWithParam<int>, protected TlsSocketFixture {
 protected:
  static PeerOptions ServerOptions() {
    return {.server = true, .identity = &IdentityOf(KeyKind::kP256), .version = GetParam()};
  }
  void ConnectPair(std::uint32_t features = 0) { TlsSocketFixture::ConnectPair(ServerOptions(), features); }
};

inline const auto kBothVersions = testing::Values(TLS1_2_VERSION, TLS1_3_VERSION);
inline std::string VersionName(const testing::TestParamInfo<int>& version) {
  return version.param == TLS1_2_VERSION ? "Tls12" : "Tls13";
}

}  // namespace quenmark::test
