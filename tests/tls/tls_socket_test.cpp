#include "tls/tls_socket.h"

#include "platform/winsock_errors.h"
#include "tests/tls/tls_socket_fixture.h"

#include <gmock/gmock.h>

namespace quenmark::test {
namespace {

class TlsSocketTest : public VersionedTlsSocket {};

INSTANTIATE_TEST_SUITE_P(Versions, TlsSocketTest, kBothVersions, VersionName);

// --- Client ----------------------------------------------------------------------------------------------------------

TEST_P(TlsSocketTest, EventsOfAConnectionInOrder) {
  PeerOptions options = ServerOptions();
  options.alpn = "two";
  const int port = Serve(options);
  m_owner->notify = true;
  m_owner->act = [](cTlsSocket& socket, const std::string& event) {
    if (event == "Before 16") socket.SendText("early ");
    if (event == "OnConnect") socket.SendText("late");
  };
  m_socket = NewSocket();
  EXPECT_TRUE(m_socket->IsClosed());
  ASSERT_TRUE(m_socket->Connect("localhost", port, true, 0, {}, "one|two"));
  ASSERT_TRUE(WaitFor("After 2"));
  EXPECT_EQ(m_owner->events,
            (Events{"OnResolve 127.0.0.1", "Before 16", "OnConnect", "After 16", "Before 2", "OnSend", "After 2"}));
  EXPECT_FALSE(m_socket->IsClosed());
  EXPECT_EQ(m_socket->LocalFeatures(), 15u);
  EXPECT_EQ(m_socket->AlpnNegotiated(), "two");
  EXPECT_EQ(m_socket->RemoteCertificates(), std::vector<tls::Bytes>(1, IdentityOf(KeyKind::kP256).certificate));
  EXPECT_EQ(m_judge->host, "localhost");
  EXPECT_FALSE(m_judge->revocation);
  ASSERT_TRUE(Wait([&] { return PeerText() == "early late"; }));
  EXPECT_EQ(m_socket->LastSendBytes(), 10);
  m_owner->events.clear();
  m_peer->Send("answer");
  ASSERT_TRUE(WaitFor("After 1"));
  EXPECT_EQ(m_owner->events, (Events{"Before 1", "OnReceive", "After 1"}));
  EXPECT_EQ(m_owner->received, "answer");
}

TEST_P(TlsSocketTest, FeaturesAreCompletedOnlyWithoutAVersion) {
  const std::pair<std::uint32_t, std::uint32_t> kCases[] = {{0, 15}, {4, 4}, {8, 8}, {12, 12}, {48, 63}, {1, 1}};
  for (const auto& [given, used] : kCases) {
    Serve(ServerOptions());
    m_socket = NewSocket();
    Descriptor client(PlainConnect(PortOf(m_listener)));
    ASSERT_TRUE(m_socket->Attach(client.Release()));
    m_socket->StartTls("localhost", given);
    EXPECT_EQ(m_socket->LocalFeatures(), used);
  }
}

TEST_P(TlsSocketTest, DataGivenBeforeTheHandshakeEndsGoesOutBehindIt) {
  Serve(ServerOptions());
  Descriptor client(PlainConnect(PortOf(m_listener)));
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->Attach(client.Release()));
  EXPECT_FALSE(m_socket->UseTls());
  ASSERT_TRUE(m_socket->StartTls("localhost"));
  EXPECT_FALSE(m_socket->StartTls("localhost"));
  EXPECT_EQ(m_socket->LastError().number, platform::kWsaAlready);
  const tls::Bytes first = Pattern(40'000);
  ASSERT_TRUE(m_socket->SendArray(first));
  EXPECT_EQ(m_socket->Send(View("tail")), 4);
  EXPECT_EQ(m_socket->LastSendBytes(), 0);
  ASSERT_TRUE(Wait([&] { return m_peer->ssl.plaintext.size() == first.size() + 4; }));
  EXPECT_EQ(PeerText(), Text(first) + "tail");
  EXPECT_EQ(m_socket->LastSendBytes(), 40'004);
  EXPECT_EQ(m_owner->events.front(), "OnConnect");
}

TEST_P(TlsSocketTest, FailedValidationClosesBeforeItIsTold) {
  m_judge->valid = false;
  const int port = Serve(ServerOptions());
  m_owner->act = [](cTlsSocket& socket, const std::string& event) {
    if (event.starts_with("OnError")) {
      EXPECT_TRUE(socket.IsClosed());
      EXPECT_FALSE(socket.SendText("secret"));
      EXPECT_EQ(socket.LastError().description, "The certificate has expired");
      EXPECT_EQ(socket.LastError().source, "cTlsSocket.pvOnReceive\r\ncTlsSocket.pvPkiCertChainValidate");
    }
  };
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", port, true, tls::kFeatureCheckRevocation));
  ASSERT_TRUE(Wait([&] { return m_socket->Engine().state == tls::State::kExpectServerHello; }));
  EXPECT_TRUE(m_socket->SendText("secret"));
  ASSERT_TRUE(WaitFor("OnError 80040000 1"));
  EXPECT_TRUE(m_judge->revocation);
  ASSERT_TRUE(Wait([&] { return m_peer->ssl.Ready(); }));
  m_peer->Send("more");  // nothing of it is handed out
  Settle();
  m_peer->descriptor.Close();
  ASSERT_TRUE(Wait([&] { return m_owner->events.size() > 1; }));
  EXPECT_THAT(m_owner->events[1], testing::StartsWith("OnClose"));
  EXPECT_EQ(m_owner->received, "");
  EXPECT_EQ(PeerText(), "");
}

TEST_P(TlsSocketTest, ValidationIsAskedOnlyWhereItIsSwitchedOn) {
  m_judge->valid = false;
  ConnectPair(kFeatureIgnoreCertificateErrors);
  EXPECT_EQ(m_judge->asked, 0);
  EXPECT_EQ(m_socket->LocalFeatures(), 31u);

  m_judge->valid = true;
  ASSERT_TRUE(m_socket->PkiPemImportRootCaCertStore("roots.pem"));
  m_socket->Socket()->Close_();
  m_peer = std::make_unique<WirePeer>(ServerOptions());
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", PortOf(m_listener)));  // again, with the same object
  ASSERT_TRUE(WaitFor("OnConnect")) << m_socket->LastError().description;
  EXPECT_TRUE(m_judge->withRoots);
}

TEST_P(TlsSocketTest, UnreadPlaintextPausesReading) {
  ConnectPair();
  m_owner->reads = false;
  m_peer->Send("one");
  ASSERT_TRUE(WaitFor("OnReceive"));
  m_peer->Send("two");
  Settle();
  EXPECT_EQ(m_owner->events, Events{"OnReceive"});
  EXPECT_EQ(m_socket->AvailableBytes(), 3);
  std::string text;
  ASSERT_TRUE(m_socket->ReceiveText(text));
  EXPECT_EQ(text, "one");
  ASSERT_TRUE(Wait([&] { return m_owner->events.size() == 2; }));  // reading goes on
  ASSERT_TRUE(m_socket->ReceiveText(text));
  EXPECT_EQ(text, "two");
  ASSERT_TRUE(m_socket->ReceiveText(text));
  EXPECT_EQ(text, "");
  m_peer->Send("three");
  m_peer->CloseNotify();
  std::string all;
  ASSERT_TRUE(Wait([&] {
    if (m_socket->ReceiveText(text)) all += text;
    return all == "three";
  }));
  EXPECT_TRUE(WaitFor("OnClose 0"));  // also when the owner's own read met it
}

TEST_P(TlsSocketTest, MuchDataThroughASlowPeer) {
  ConnectPair();
  m_peer->holdsBack = true;
  const tls::Bytes data = Pattern(6'000'000);
  ASSERT_TRUE(m_socket->SendArray(data));
  EXPECT_TRUE(m_socket->HasPendingEvent());
  EXPECT_EQ(m_socket->LastSendBytes(), 0);
  m_peer->holdsBack = false;
  ASSERT_TRUE(WaitFor("OnSend"));
  EXPECT_EQ(m_socket->LastSendBytes(), 6'000'000);
  ASSERT_TRUE(Wait([&] { return m_peer->ssl.plaintext.size() == data.size(); }));
  EXPECT_TRUE(m_peer->ssl.plaintext == data);
}

TEST_P(TlsSocketTest, BeforeNotifyKeepsAnEventBack) {
  m_owner->cancel = platform::kFdConnect | platform::kFdClose;
  const int port = Serve(ServerOptions());
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", port));
  ASSERT_TRUE(WaitFor("OnSend"));
  ASSERT_TRUE(Wait([&] { return m_peer->ssl.Ready(); }));
  m_peer->CloseNotify();
  ASSERT_TRUE(Wait([&] { return m_socket->IsClosed(); }));
  Settle();
  EXPECT_EQ(m_owner->events, Events{"OnSend"});
}

TEST_P(TlsSocketTest, ClientCertificateIsAskedFor) {
  PeerOptions options = ServerOptions();
  options.requireCertificate = true;
  for (const bool viaCallback : {false, true}) {
    m_owner->events.clear();
    const int port = Serve(options);
    m_owner->certificate = [&](cTlsSocket&) {
      const Identity& own = IdentityOf(KeyKind::kP384);
      m_socket->SetLocalCertificates({own.certificate});
      m_socket->SetLocalPrivateKey(own.privateKey);
      return true;
    };
    m_socket = NewSocket();
    const auto other = NewSocket();
    ASSERT_TRUE(m_socket->Connect("127.0.0.1", port, true, 0, viaCallback ? other : nullptr));
    ASSERT_TRUE(WaitFor("OnConnect")) << m_socket->LastError().description;
    EXPECT_EQ(m_owner->events[0], "OnClientCertificate");
    ASSERT_TRUE(Wait([&] { return m_peer->ssl.Ready(); }));
  }
}

// The chain is judged again, and the certificate must be the same one.
TEST_P(TlsSocketTest, RenegotiationIsJudgedAgain) {
  if (GetParam() != TLS1_2_VERSION) return;
  for (const std::string text : {"", "The certificate has expired", "The server certificate has changed"}) {
    m_judge->valid = true;
    ConnectPair();
    m_judge->valid = !text.ends_with("expired");
    SSL* peer = m_peer->ssl.Handle();
    if (text.ends_with("changed")) UseIdentity(peer, IdentityOf(KeyKind::kP384));
    m_judge->meanwhile = [&] { EXPECT_TRUE(m_socket->SendText("kept")); };
    const int asked = std::exchange(m_judge->asked, 0);
    EXPECT_EQ(asked, 1);
    m_peer->Renegotiate();
    if (text.empty()) {
      ASSERT_TRUE(Wait([&] { return PeerText() == "kept"; }));
      EXPECT_EQ(m_judge->asked, 1);
      EXPECT_TRUE(m_owner->events.empty());
    } else {
      ASSERT_TRUE(WaitFor("OnError 80040000 1"));
      EXPECT_EQ(m_socket->LastError().description, text);
      EXPECT_TRUE(m_socket->IsClosed());
      Settle();
      EXPECT_EQ(PeerText(), "");
    }
    m_judge->meanwhile = nullptr;
    m_judge->asked = 0;
  }
}

TEST_P(TlsSocketTest, RenegotiationIsJudgedBeforeTheEndBehindIt) {
  if (GetParam() != TLS1_2_VERSION) return;
  for (const bool valid : {true, false}) {
    m_judge->valid = true;
    ConnectPair();
    m_judge->valid = valid;
    m_peer->holdsBack = true;
    m_peer->Renegotiate();
    PeerFinishesAndEnds("last words");
    ASSERT_TRUE(Wait([&] { return m_socket->IsClosed() && !m_owner->events.empty(); }));
    Settle();
    EXPECT_EQ(m_owner->events, valid ? (Events{"OnReceive", "OnClose 0"}) : Events{"OnError 80040000 1"});
    EXPECT_EQ(std::exchange(m_owner->received, {}), valid ? "last words" : "");
    EXPECT_EQ(m_socket->PeerClosedCleanly(), valid);
  }
}

TEST_P(TlsSocketTest, WaitingSendGoesOnBehindARenegotiation) {
  if (GetParam() != TLS1_2_VERSION) return;
  ConnectPair();
  m_peer->holdsBack = true;
  m_peer->Renegotiate();
  ASSERT_TRUE(Wait([&] { return m_socket->Engine().state == tls::State::kExpectServerHello; }));
  m_peer->holdsBack = false;
  EXPECT_TRUE(m_socket->SyncSendText("kept", 5000)) << m_socket->LastError().description;
  EXPECT_TRUE(Wait([&] { return PeerText() == "kept"; }));
}

// What happens while the owner is asked for a certificate behind the handshake is dealt with behind the answer.
TEST_P(TlsSocketTest, PostHandshakePromptLosesNothing) {
  if (GetParam() != TLS1_3_VERSION) return;
  for (const bool closes : {false, true}) {
    PeerOptions options = ServerOptions();
    options.postHandshakeAuth = true;
    TlsSocketFixture::ConnectPair(options);
    m_owner->certificate = [&](cTlsSocket& socket) {
      EXPECT_TRUE(socket.SendText("kept"));
      if (closes) {
        m_listener.Close();
        m_peer->descriptor.Close();
      } else {
        m_peer->Send("meanwhile");
      }
      Settle();
      return false;
    };
    ASSERT_EQ(SSL_verify_client_post_handshake(m_peer->ssl.Handle()), 1);
    SSL_do_handshake(m_peer->ssl.Handle());
    m_peer->Flush();
    if (closes) {
      EXPECT_TRUE(Wait([&] { return m_owner->events.size() > 1; }));
      EXPECT_EQ(m_owner->events[0], "OnClientCertificate");
    } else {
      EXPECT_TRUE(WaitFor("OnReceive"));
      EXPECT_TRUE(Wait([&] { return PeerText() == "kept"; }));
    }
  }
}

// --- Server ----------------------------------------------------------------------------------------------------------

TEST_P(TlsSocketTest, AcceptsAsAServer) {
  const auto listener = NewSocket();
  ASSERT_TRUE(listener->Create());
  ASSERT_TRUE(listener->Bind("127.0.0.1", 0) && listener->Listen());
  EXPECT_FALSE(listener->InitServerTls("missing.pem"));
  EXPECT_EQ(listener->LastError().number, 53);
  ASSERT_TRUE(listener->InitServerTls("good.pem", {}, {}, {}, {}, "one|two"));
  m_owner->act = [&](cTlsSocket& socket, const std::string& event) {
    if (event != "OnAccept") return;
    ASSERT_TRUE(socket.Accept(m_socket));
    m_socket->SetEvents(m_owner);
    EXPECT_TRUE(m_socket->IsServer());
    EXPECT_TRUE(m_socket->SendText("hello"));
  };
  std::string address;
  std::int32_t port = 0;
  ASSERT_TRUE(listener->GetSockName(address, port));
  m_peer = std::make_unique<WirePeer>(PeerOptions{.server = false, .version = GetParam(), .alpn = "two"});
  m_peer->descriptor = Descriptor(PlainConnect(port));
  ASSERT_TRUE(Wait([&] { return PeerText() == "hello"; }));
  EXPECT_EQ(m_owner->events, (Events{"OnAccept", "OnConnect"}));
  EXPECT_EQ(m_socket->SniRequested(), "localhost");
  EXPECT_EQ(m_socket->AlpnNegotiated(), "two");
  EXPECT_EQ(m_judge->asked, 0);
  m_peer->Send("question");
  m_peer->CloseNotify();
  ASSERT_TRUE(WaitFor("OnClose 0"));
  EXPECT_EQ(m_owner->received, "question");
}

// --- Waiting calls ---------------------------------------------------------------------------------------------------

TEST_P(TlsSocketTest, SynchronousForms) {
  const int port = Serve(ServerOptions());
  m_owner->reads = false;
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->SyncConnect("localhost", port, 10'000)) << m_socket->LastError().description;
  EXPECT_TRUE(m_owner->Saw("OnConnect"));
  const tls::Bytes data = Pattern(3'000'000);
  ASSERT_TRUE(m_socket->SyncSendArray(data, 10'000)) << m_socket->LastError().number;
  ASSERT_TRUE(Wait([&] { return m_peer->ssl.plaintext.size() == data.size(); }));
  ASSERT_TRUE(Wait([&] { return m_peer->ssl.Ready(); }));
  m_peer->Send("0123456789");
  tls::Bytes part;
  ASSERT_TRUE(m_socket->SyncReceiveArray(part, 4, 10'000));
  EXPECT_EQ(Text(part), "0123");
  std::string text;
  ASSERT_TRUE(m_socket->SyncReceiveText(text, 6, 10'000));
  EXPECT_EQ(text, "456789");
  EXPECT_FALSE(m_socket->SyncReceiveArray(part, 0, 20));
  EXPECT_EQ(m_socket->LastError().number, platform::kTimeoutResult);
  EXPECT_FALSE(m_socket->SyncWaitForEvent(20, platform::kFdRead));
  m_peer->Send("rest");
  m_peer->CloseNotify();
  EXPECT_FALSE(m_socket->SyncReceiveArray(part, 5, 10'000));
  EXPECT_EQ(Text(part), "rest");
  EXPECT_EQ(m_socket->LastError().number, platform::kWsaNotConnected);
}

TEST_P(TlsSocketTest, SynchronousConnectFails) {
  m_judge->valid = false;
  const int port = Serve(ServerOptions());
  m_socket = NewSocket();
  EXPECT_FALSE(m_socket->SyncConnect("127.0.0.1", port, 10'000));
  EXPECT_EQ(m_socket->LastError().description, "The certificate has expired");

  m_peer.reset();
  m_socket = NewSocket();
  EXPECT_FALSE(m_socket->SyncConnect("127.0.0.1", port, 20));  // nobody shakes hands
  EXPECT_EQ(m_socket->LastError().number, platform::kTimeoutResult);

  m_listener.Close();
  m_socket = NewSocket();
  EXPECT_FALSE(m_socket->SyncConnect("127.0.0.1", port, 10'000));
  EXPECT_EQ(m_socket->LastError().number, platform::kWsaRefused);
}

// --- Without TLS -----------------------------------------------------------------------------------------------------

TEST_P(TlsSocketTest, PassesThroughWithoutTls) {
  m_listener = Descriptor(PlainListener());
  m_owner->notify = true;
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", PortOf(m_listener), false));
  ASSERT_TRUE(WaitFor("After 2"));
  EXPECT_EQ(m_owner->events, (Events{"Before 16", "OnConnect", "After 16", "Before 2", "OnSend", "After 2"}));
  m_owner->events.clear();
  const Descriptor peer(PlainAccept(m_listener));
  ASSERT_TRUE(m_socket->SendText("plain"));
  EXPECT_EQ(PlainReceive(peer, 5), "plain");
  EXPECT_EQ(m_socket->LastSendBytes(), 5);
  PlainSend(peer, "text");
  ASSERT_TRUE(WaitFor("After 1"));
  EXPECT_EQ(m_owner->received, "text");
  shutdown(peer, SHUT_WR);
  ASSERT_TRUE(WaitFor("After 32"));
  EXPECT_EQ(m_owner->events, (Events{"Before 1", "OnReceive", "After 1", "Before 32", "OnClose 0", "After 32"}));
  EXPECT_FALSE(m_socket->IsClosed());
  ASSERT_TRUE(m_socket->Close_());
  EXPECT_TRUE(m_socket->IsClosed());
}

// --- Once more -------------------------------------------------------------------------------------------------------

// The owner has closed the transport and makes the next one itself.
TEST_P(TlsSocketTest, ConnectsAgainOnASocketOfItsOwnMaking) {
  ConnectPair();
  m_socket->Close_();
  m_socket->Socket()->Close_();
  m_peer = std::make_unique<WirePeer>(ServerOptions());
  ASSERT_TRUE(m_socket->Create());
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", PortOf(m_listener)));
  ASSERT_TRUE(WaitFor("OnConnect")) << m_socket->LastError().description;
  ASSERT_TRUE(m_socket->SendText("again"));
  EXPECT_TRUE(Wait([&] { return PeerText() == "again"; }));
}

}  // namespace
}  // namespace quenmark::test
