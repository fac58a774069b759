// Every system call of a whole TLS session fails once.
#include "tests/sockets/faulty_socket_api.h"
#include "tests/tls/tls_socket_fixture.h"

namespace quenmark::test {
namespace {

constexpr std::int32_t kInjected = 10055;

// A scenario answers true when everything went as without a fault, and leaves at the first failure otherwise.
class TlsSocketFaults : public testing::TestWithParam<int>, protected TlsSocketFixture {
 protected:
  TlsSocketFaults() {
    m_services.api = &m_api;
    m_keeper = NewSocket();
  }
  ~TlsSocketFaults() override {  // they use the seam
    m_socket.reset();
    m_server.reset();
    m_keeper.reset();
  }

  // Runs the scenario with its first call failing, then its second, until none is left to fail.
  void RunAll(const std::function<bool()>& scenario) {
    const std::size_t before = OpenDescriptors();
    int told = 0;
    for (int number = 1;; ++number) {
      SCOPED_TRACE(number);
      ASSERT_LT(number, 500);
      m_api.calls = 0;
      m_api.failAt = number;
      m_owner->events.clear();
      m_owner->received.clear();
      m_result = 0;
      const bool passed = scenario();
      const bool reached = m_api.calls >= number;
      m_api.failAt = 0;
      const bool raised = m_result == kInjected || m_owner->Saw("OnError 2747 1") || m_owner->Saw("OnError 2747 2") ||
                          m_owner->Saw("OnError 2747 8") || m_owner->Saw("OnError 2747 16") ||
                          m_owner->Saw("OnError 2747 32");
      EXPECT_TRUE(passed || raised) << testing::PrintToString(m_owner->events) << m_result;
      const auto errors = std::count_if(m_owner->events.begin(), m_owner->events.end(), IsError);
      EXPECT_LE(errors, 1) << testing::PrintToString(m_owner->events);
      // Nothing is begun behind an error.
      EXPECT_FALSE(errors > 0 && m_owner->events.back() == "OnSend") << testing::PrintToString(m_owner->events);
      EXPECT_TRUE(passed || reached);
      told += raised;
      const std::size_t events = m_owner->events.size();
      for (const auto& socket : {m_socket, m_server}) {
        if (socket != nullptr) socket->Socket()->Close_();
      }
      m_socket.reset();
      m_server.reset();
      m_peer.reset();
      m_listener.Close();
      m_loop.RunQueued();
      EXPECT_EQ(m_owner->events.size(), events);
      EXPECT_TRUE(m_api.open.empty());
      EXPECT_EQ(OpenDescriptors(), before);
      if (reached) continue;
      EXPECT_TRUE(passed);
      EXPECT_GT(told, number / 2);  // faults did show
      return;
    }
  }
  static bool IsError(const std::string& event) { return event.starts_with("OnError"); }
  bool Step(bool result, const std::shared_ptr<cTlsSocket>& socket) {
    if (!result) m_result = socket->LastError().number;
    return result;
  }
  // The condition, or an error in its place; nothing at all is a fault of ours.
  bool Arrives(const char* what, const std::function<bool()>& condition) {
    const auto failed = [&] { return std::any_of(m_owner->events.begin(), m_owner->events.end(), IsError); };
    EXPECT_TRUE(Wait([&] { return condition() || failed(); })) << what << testing::PrintToString(m_owner->events);
    return condition() && !failed();
  }
  bool Arrives(const char* event) {
    return Arrives(event, [&] { return m_owner->Saw(event); });
  }
  // What both roles do once they are connected.
  bool Talk(const std::shared_ptr<cTlsSocket>& socket) {
    if (!Step(socket->SendText("question"), socket)) return false;
    if (!Arrives("question", [&] { return PeerText() == "question"; })) return false;
    m_peer->Send("answer");
    if (!Arrives("answer", [&] { return m_owner->received == "answer"; })) return false;
    m_peer->CloseNotify();
    return Arrives("OnClose 0") && Step(socket->Close_(), socket);
  }

  FaultySocketApi m_api;
  std::shared_ptr<cTlsSocket> m_keeper;  // keeps the notification helper, and the test's seam in it
  std::shared_ptr<cTlsSocket> m_server;
  std::int32_t m_result = 0;
};

INSTANTIATE_TEST_SUITE_P(Versions, TlsSocketFaults, kBothVersions, VersionName);

TEST_P(TlsSocketFaults, Client) {
  RunAll([&] {
    const int port = Serve({.identity = &IdentityOf(KeyKind::kP256), .version = GetParam()});
    m_socket = NewSocket();
    return Step(m_socket->Connect("127.0.0.1", port), m_socket) && Arrives("OnConnect") && Talk(m_socket);
  });
}

TEST_P(TlsSocketFaults, Server) {
  m_owner->act = [&](cTlsSocket& socket, const std::string& event) {
    if (event == "OnAccept" && Step(socket.Accept(m_server), m_socket)) m_server->SetEvents(m_owner);
  };
  RunAll([&] {
    m_socket = NewSocket();
    std::string address;
    std::int32_t port = 0;
    if (!Step(m_socket->Create() && m_socket->Bind("127.0.0.1", 0) && m_socket->Listen() && m_socket->InitServerTls() &&
                  m_socket->GetSockName(address, port),
              m_socket)) {
      return false;
    }
    m_peer = std::make_unique<WirePeer>(PeerOptions{.server = false, .version = GetParam()});
    m_peer->descriptor = Descriptor(PlainConnect(port));
    if (!Arrives("OnAccept") || m_server == nullptr) return false;
    return Arrives("OnConnect") && Talk(m_server);
  });
}

TEST_P(TlsSocketFaults, WaitingCalls) {
  RunAll([&] {
    const int port = Serve({.identity = &IdentityOf(KeyKind::kP256), .version = GetParam()});
    m_owner->reads = false;
    m_socket = NewSocket();
    if (!Step(m_socket->SyncConnect("127.0.0.1", port, 20'000), m_socket)) return false;
    if (!Step(m_socket->SyncSendText("question", 20'000), m_socket)) return false;
    EXPECT_TRUE(Wait([&] { return PeerText() == "question"; }));
    m_peer->Send("answer");
    tls::Bytes data;
    if (!Step(m_socket->SyncReceiveArray(data, 6, 20'000), m_socket)) return false;
    EXPECT_EQ(Text(data), "answer");
    return Step(m_socket->Close_(), m_socket);
  });
}

}  // namespace
}  // namespace quenmark::test
