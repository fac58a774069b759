// How a connection ends: by the peer, by the owner within a handler, by damage, and behind what order of events.
#include "platform/winsock_errors.h"
#include "tests/tls/tls_socket_fixture.h"

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

namespace quenmark::test {
namespace {

class TlsSocketEnding : public VersionedTlsSocket {
 protected:
  void PeerSendsGoodAndBad() {
    m_peer->ssl.Send(View("good"));
    m_peer->ssl.Send(View("bad"));
    tls::Bytes records = m_peer->ssl.TakeOutput();
    records.back() ^= 1;
    PlainSend(m_peer->descriptor, {reinterpret_cast<const char*>(records.data()), records.size()});
  }
};

INSTANTIATE_TEST_SUITE_P(Versions, TlsSocketEnding, kBothVersions, VersionName);

TEST_P(TlsSocketEnding, CloseNotifyComesBehindTheData) {
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

TEST_P(TlsSocketEnding, EndWithoutCloseNotifyAndWithinARecord) {
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

TEST_P(TlsSocketEnding, DamagedRecordIsAnErrorBehindWhatWasGood) {
  ConnectPair();
  PeerSendsGoodAndBad();
  ASSERT_TRUE(WaitFor("OnError 80040000 1"));
  EXPECT_EQ(m_owner->events, (Events{"OnReceive", "OnError 80040000 1"}));
  EXPECT_EQ(m_owner->received, "good");
  EXPECT_TRUE(m_socket->IsClosed());
  ASSERT_TRUE(Wait([&] { return m_peer->ssl.failed; }));  // the alert
  EXPECT_THAT(m_peer->ssl.Error(), testing::HasSubstr("alert bad record mac"));
}

TEST_P(TlsSocketEnding, RefusedHandshakeIsAnErrorAndAClose) {
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

TEST_P(TlsSocketEnding, CloseSendsCloseNotifyAndLeavesTheHandle) {
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

// The transport closed, the socket dropped, or the peer resetting the connection.
TEST_P(TlsSocketEnding, EndInEveryHandler) {
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

TEST_P(TlsSocketEnding, EndOfTheTransportDuringTheValidation) {
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

TEST_P(TlsSocketEnding, OwnCloseDuringTheValidationIsNoError) {
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
TEST_P(TlsSocketEnding, FatalUserCanceledIsTold) {
  m_listener = Descriptor(PlainListener());
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", PortOf(m_listener)));
  const Descriptor peer(PlainAccept(m_listener));
  PlainSend(peer, std::string("\x15\3\3\0\2\2\x5A", 7));
  ASSERT_TRUE(WaitFor("OnClose 0"));
  EXPECT_EQ(m_owner->events, (Events{"OnError 0 1", "OnClose 0"}));
  EXPECT_EQ(m_socket->LastError().description, "Received fatal alert. User canceled.");
}

TEST_P(TlsSocketEnding, DataBehindTheHandshakeIsThereInOnConnectAlsoBeforeAnEnd) {
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
TEST_P(TlsSocketEnding, DataBehindTheHandshakeIsToldBeforeAnEndThatAHandlerOfOnConnectWaitsThrough) {
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
TEST_P(TlsSocketEnding, DataBehindTheHandshakeOfAPeerThatResetsIsTold) {
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
TEST_P(TlsSocketEnding, NothingIsToldOfATransportThatTheOwnerHasClosed) {
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
TEST_P(TlsSocketEnding, NothingIsToldOfADroppedSocketThatAHandlerKeeps) {
  m_owner->act = [&](cTlsSocket&, const std::string& event) {
    if (event == "OnReceive") m_socket.reset();
    if (event != "OnConnect") return;
    ASSERT_TRUE(Wait([&] { return m_peer->ssl.Ready(); }));
    PeerSendsGoodAndBad();
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
