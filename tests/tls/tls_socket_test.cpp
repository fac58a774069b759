#include "tls/tls_socket.h"

#include "platform/winsock_errors.h"
#include "tests/tls/tls_socket_fixture.h"

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

namespace quenmark::test {
namespace {

class TlsSocketTest : public testing::TestWithParam<int>, protected TlsSocketFixture {
 protected:
  static PeerOptions ServerOptions() {
    return {.server = true, .identity = &IdentityOf(KeyKind::kP256), .version = GetParam()};
  }
  void ConnectPair(std::uint32_t features = 0) { TlsSocketFixture::ConnectPair(ServerOptions(), features); }
};

INSTANTIATE_TEST_SUITE_P(Versions, TlsSocketTest, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& version) { return version.param == TLS1_2_VERSION ? "Tls12" : "Tls13"; });

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

TEST_P(TlsSocketTest, CloseNotifyComesBehindTheData) {
  ConnectPair();
  m_owner->notify = true;
  m_peer->ssl.Send(View("last words"));
  m_peer->CloseNotify();
  m_peer->descriptor.Close();
  ASSERT_TRUE(WaitFor("After 32"));
  Settle();
  EXPECT_EQ(m_owner->events, (Events{"Before 1", "OnReceive", "After 1", "Before 32", "OnClose 0", "After 32"}));
  EXPECT_EQ(m_owner->received, "last words");
  EXPECT_TRUE(m_socket->IsClosed());
  EXPECT_TRUE(m_socket->PeerClosedCleanly());
  EXPECT_GE(m_socket->SocketHandle(), 0);
  tls::Bytes data;
  EXPECT_FALSE(m_socket->ReceiveArray(data));
  EXPECT_EQ(m_socket->LastError().number, platform::kWsaNotConnected);
}

TEST_P(TlsSocketTest, EndWithoutCloseNotifyAndWithinARecord) {
  for (const bool halfRecord : {false, true}) {
    ConnectPair();
    m_peer->ssl.Send(View("all of this"));
    m_peer->Flush();
    if (halfRecord) {
      m_peer->ssl.Send(View("cut off"));
      const tls::Bytes record = m_peer->ssl.TakeOutput();
      PlainSend(m_peer->descriptor, {reinterpret_cast<const char*>(record.data()), record.size() - 1});
    }
    m_peer->descriptor.Close();
    ASSERT_TRUE(WaitFor("OnClose 0"));
    EXPECT_EQ(m_owner->events, (Events{"OnReceive", "OnClose 0"}));
    EXPECT_EQ(std::exchange(m_owner->received, {}), "all of this");
    EXPECT_FALSE(m_socket->PeerClosedCleanly());
    m_owner->events.clear();
  }
}

TEST_P(TlsSocketTest, DamagedRecordIsAnErrorBehindWhatWasGood) {
  ConnectPair();
  m_peer->ssl.Send(View("good"));
  m_peer->ssl.Send(View("bad"));
  tls::Bytes records = m_peer->ssl.TakeOutput();
  records.back() ^= 1;
  PlainSend(m_peer->descriptor, {reinterpret_cast<const char*>(records.data()), records.size()});
  ASSERT_TRUE(WaitFor("OnError 80040000 1"));
  EXPECT_EQ(m_owner->events, (Events{"OnReceive", "OnError 80040000 1"}));
  EXPECT_EQ(m_owner->received, "good");
  EXPECT_TRUE(m_socket->IsClosed());
  ASSERT_TRUE(Wait([&] { return m_peer->ssl.failed; }));  // the alert
  EXPECT_THAT(m_peer->ssl.Error(), testing::HasSubstr("alert bad record mac"));
}

TEST_P(TlsSocketTest, RefusedHandshakeIsAnErrorAndAClose) {
  PeerOptions options = ServerOptions();
  const std::uint32_t other = GetParam() == TLS1_2_VERSION ? 8 : 4;
  const int port = Serve(options);
  m_owner->notify = true;
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", port, true, other));
  ASSERT_TRUE(WaitFor("After 32"));
  Settle();
  ASSERT_EQ(m_owner->events.size(), 4u);
  EXPECT_EQ(m_owner->events[0], "OnError 80040000 1");
  EXPECT_EQ(m_owner->events[2], "OnClose -2147221504");
  EXPECT_THAT(m_socket->LastError().description, testing::HasSubstr("Protocol version"));
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

TEST_P(TlsSocketTest, CloseSendsCloseNotifyAndLeavesTheHandle) {
  ConnectPair();
  ASSERT_TRUE(m_socket->SendText("bye"));
  ASSERT_TRUE(m_socket->Close_());
  EXPECT_GE(m_socket->SocketHandle(), 0);
  EXPECT_FALSE(m_socket->SendText("more"));
  EXPECT_EQ(m_owner->events.back(), "OnError 80040000 2");
  ASSERT_TRUE(Wait([&] { return m_peer->ssl.closeNotified; }));
  EXPECT_EQ(PeerText(), "bye");
  m_peer->ssl.Send(View("still talking"));
  m_peer->CloseNotify();
  EXPECT_TRUE(WaitFor("OnClose 0"));
  EXPECT_EQ(m_owner->received, "still talking");
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

// The transport closed, the socket dropped, or the peer resetting the connection.
TEST_P(TlsSocketTest, EndInEveryHandler) {
  enum class End { kClose, kDrop, kReset };
  for (const End end : {End::kClose, End::kDrop, End::kReset}) {
    for (const std::string where : {"Before 16", "OnConnect", "After 16", "Before 2", "OnSend", "Before 1", "OnReceive",
                                    "After 1", "Before 32", "OnClose 0", "OnError 80040000 1"}) {
      if (where.starts_with("OnError") && end == End::kReset) continue;
      SCOPED_TRACE(where + " " + std::to_string(static_cast<int>(end)));
      m_judge->valid = !where.starts_with("OnError");
      m_owner->events.clear();
      m_owner->notify = true;
      m_owner->act = [&](cTlsSocket& socket, const std::string& event) {
        if (event != where) return;
        if (end == End::kClose) socket.Socket()->Close_();
        if (end == End::kDrop) m_socket.reset();
        if (end == End::kReset) PlainReset(m_peer->descriptor);
      };
      const int port = Serve(ServerOptions());
      m_socket = NewSocket();
      ASSERT_TRUE(m_socket->Connect("127.0.0.1", port));
      bool sent = false;
      ASSERT_TRUE(Wait([&] {
        if (m_peer->ssl.Ready() && !std::exchange(sent, m_peer->ssl.Ready())) {
          m_peer->ssl.Send(View("data"));
          m_peer->CloseNotify();
        }
        return m_owner->Saw(where);
      }));
      if (end == End::kReset) {
        // Told once, as an error or, behind the peer's close_notify, as the end.
        const auto isEnd = [](const std::string& event) { return event == "OnError 2746 32" || event == "OnClose 0"; };
        const auto ends = [&] { return std::count_if(m_owner->events.begin(), m_owner->events.end(), isEnd); };
        ASSERT_TRUE(Wait([&] { return ends() > 0; }));
        Settle();
        EXPECT_EQ(ends(), 1) << testing::PrintToString(m_owner->events);
        continue;
      }
      Settle();
      EXPECT_EQ(m_owner->events.back(), where);
      EXPECT_EQ(m_socket == nullptr, end == End::kDrop);
    }
  }
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

TEST_P(TlsSocketTest, EndOfTheTransportDuringTheValidation) {
  const int port = Serve(ServerOptions());
  m_judge->meanwhile = [&] {  // as while a revocation list is fetched
    ASSERT_TRUE(Wait([&] { return m_peer->ssl.Ready() || GetParam() == TLS1_3_VERSION; }));
    Settle();
    m_peer->ssl.Send(View("brief"));
    m_peer->Flush();
    m_peer->descriptor.Close();
    Settle();
    EXPECT_TRUE(m_owner->events.empty());
  };
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", port));
  ASSERT_TRUE(WaitFor("OnClose 0"));
  EXPECT_EQ(m_owner->events, (Events{"OnConnect", "OnSend", "OnReceive", "OnClose 0"}));
  EXPECT_EQ(m_owner->received, "brief");
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

TEST_P(TlsSocketTest, OwnCloseDuringTheValidationIsNoError) {
  const int port = Serve(ServerOptions());
  m_judge->meanwhile = [&] { EXPECT_TRUE(m_socket->Close_()); };
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", port));
  ASSERT_TRUE(Wait([&] { return m_socket->Engine().state == tls::State::kExpectServerHello; }));
  EXPECT_TRUE(m_socket->SendText("early"));
  ASSERT_TRUE(Wait([&] { return m_peer->ssl.closeNotified; }));
  Settle();
  for (const std::string& event : m_owner->events) EXPECT_THAT(event, testing::Not(testing::StartsWith("OnError")));
  EXPECT_EQ(PeerText(), "");
}

// The number of such an alert is 0, and it is an error all the same.
TEST_P(TlsSocketTest, FatalUserCanceledIsTold) {
  m_listener = Descriptor(PlainListener());
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", PortOf(m_listener)));
  const Descriptor peer(PlainAccept(m_listener));
  PlainSend(peer, std::string("\x15\3\3\0\2\2\x5A", 7));
  ASSERT_TRUE(WaitFor("OnClose 0"));
  EXPECT_EQ(m_owner->events, (Events{"OnError 0 1", "OnClose 0"}));
  EXPECT_EQ(m_socket->LastError().description, "Received fatal alert. User canceled.");
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

TEST_P(TlsSocketTest, DataBehindTheHandshakeIsThereInOnConnectAlsoBeforeAnEnd) {
  if (GetParam() != TLS1_2_VERSION) return;
  for (const bool waits : {false, true}) {
    const int port = Serve(ServerOptions());
    m_peer->holdsBack = true;
    std::string text;
    m_owner->act = [&](cTlsSocket& socket, const std::string& event) {
      if (event != "OnConnect") return;
      tls::Bytes data;
      EXPECT_TRUE(waits ? socket.SyncReceiveArray(data, 5, 1000) : socket.ReceiveArray(data));
      text = Text(data);
    };
    m_socket = NewSocket();
    ASSERT_TRUE(m_socket->Connect("127.0.0.1", port));
    PeerFinishesAndEnds("hello");
    ASSERT_TRUE(WaitFor("OnClose 0"));
    EXPECT_EQ(text, "hello");
    EXPECT_EQ(m_owner->received, "");
    m_owner->events.clear();
    m_owner->act = nullptr;
  }
}

// The handler of OnConnect lets the loop run, and the connection ends meanwhile.
TEST_P(TlsSocketTest, DataBehindTheHandshakeIsToldBeforeAnEndThatAHandlerOfOnConnectWaitsThrough) {
  if (GetParam() != TLS1_2_VERSION) return;
  for (const bool cleanly : {false, true}) {
    SCOPED_TRACE(cleanly);
    const int port = Serve(ServerOptions());
    m_peer->holdsBack = true;
    m_owner->events.clear();
    m_owner->act = [&](cTlsSocket&, const std::string& event) {
      if (event != "OnConnect") return;
      m_listener.Close();
      m_peer->descriptor.Close();
      Settle();
    };
    m_socket = NewSocket();
    ASSERT_TRUE(m_socket->Connect("127.0.0.1", port));
    PeerFinishesAndEnds("hello", cleanly);
    ASSERT_TRUE(WaitFor("OnClose 0"));
    Settle();
    EXPECT_THAT(m_owner->events, testing::ElementsAre("OnConnect", "OnReceive", "OnClose 0"));
    EXPECT_EQ(std::exchange(m_owner->received, {}), "hello");
  }
}

// What the owner had given is refused by then, and the peer's data is there all the same.
TEST_P(TlsSocketTest, DataBehindTheHandshakeOfAPeerThatResetsIsTold) {
  if (GetParam() != TLS1_2_VERSION) return;
  const int port = Serve(ServerOptions());
  m_peer->holdsBack = true;
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", port));
  ASSERT_TRUE(Wait([&] { return m_socket->Engine().state == tls::State::kExpectServerHello; }));
  ASSERT_TRUE(m_socket->SendText("early"));
  PeerFinishesAndEnds("hello", false);
  PlainReset(m_peer->descriptor);
  ASSERT_TRUE(WaitFor("OnError 2746 32"));
  EXPECT_THAT(m_owner->events,
              testing::ElementsAre("OnConnect", "OnSend", "OnReceive", "OnError 2746 1", "OnError 2746 32"));
  EXPECT_EQ(m_owner->received, "hello");
}

// The owner closes the transport in the handler of data behind which a fault waits to be told: the answer to a request
// for new keys was refused.
TEST_P(TlsSocketTest, NothingIsToldOfATransportThatTheOwnerHasClosed) {
  if (GetParam() != TLS1_3_VERSION) return;
  ConnectPair();
  const int on = 1;
  setsockopt(m_peer->descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  Settle();
  SSL* peer = m_peer->ssl.Handle();
  m_owner->act = [](cTlsSocket& socket, const std::string&) { socket.Socket()->Close_(); };
  m_peer->holdsBack = true;
  ASSERT_EQ(SSL_key_update(peer, SSL_KEY_UPDATE_REQUESTED), 1);
  SSL_do_handshake(peer);
  m_peer->ssl.Send(View("data"));
  m_peer->Flush();
  PlainReset(m_peer->descriptor);
  ASSERT_TRUE(WaitFor("OnReceive"));
  tls::Bytes data;
  EXPECT_FALSE(m_socket->ReceiveArray(data));
  EXPECT_EQ(m_owner->events, Events{"OnReceive"});
}

// The handler of OnConnect waits; within it the socket is dropped in the handler of data that a bad record follows.
TEST_P(TlsSocketTest, NothingIsToldOfADroppedSocketThatAHandlerKeeps) {
  m_owner->act = [&](cTlsSocket&, const std::string& event) {
    if (event == "OnReceive") m_socket.reset();
    if (event != "OnConnect") return;
    ASSERT_TRUE(Wait([&] { return m_peer->ssl.Ready(); }));
    m_peer->ssl.Send(View("good"));
    m_peer->ssl.Send(View("bad"));
    tls::Bytes records = m_peer->ssl.TakeOutput();
    records.back() ^= 1;
    PlainSend(m_peer->descriptor, {reinterpret_cast<const char*>(records.data()), records.size()});
    ASSERT_TRUE(WaitFor("OnReceive"));
    m_listener.Close();
    m_peer->descriptor.Close();
    Settle();
  };
  const int port = Serve(ServerOptions());
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", port));
  ASSERT_TRUE(WaitFor("OnReceive"));
  Settle();
  EXPECT_EQ(m_owner->events, (Events{"OnConnect", "OnReceive"}));
}

}  // namespace
}  // namespace quenmark::test
