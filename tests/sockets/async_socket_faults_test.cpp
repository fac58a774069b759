// Every system call of every operation fails once.
#include "tests/sockets/faulty_socket_api.h"
#include "tests/sockets/socket_fixture.h"

namespace quenmark::test {
namespace {

// A scenario answers true when everything went as without a fault, and leaves at the first failure otherwise.
class AsyncSocketFaults : public SocketTest {
 protected:
  AsyncSocketFaults() {
    m_services.api = &m_api;
    m_keeper = NewSocket();
  }
  ~AsyncSocketFaults() override {  // they use the seam
    m_socket.reset();
    m_second.reset();
    m_keeper.reset();
  }

  // Runs the scenario with its first call failing, then its second, until none is left to fail.
  void RunAll(const std::function<bool()>& scenario) {
    const std::size_t before = OpenDescriptors();
    int harmless = 0;
    for (int number = 1;; ++number) {
      SCOPED_TRACE(number);
      ASSERT_LT(number, 500);
      m_api.calls = 0;
      m_api.failAt = number;
      m_recorder->events.clear();
      m_reported = 0;
      const bool passed = scenario();
      const bool reached = m_api.calls >= number;
      m_api.failAt = 0;
      if (!passed) {
        EXPECT_TRUE(reached);
        // The failure was told, as a result or as an event.
        EXPECT_TRUE(m_reported == 10055 || m_recorder->SawBegin("OnError 10055 ")) << m_reported;
      }
      harmless += passed && reached;
      m_socket.reset();
      m_second.reset();
      m_peer.Close();
      m_listener.Close();
      const std::size_t events = m_recorder->events.size();
      m_loop.RunQueued();
      EXPECT_EQ(m_recorder->events.size(), events);
      EXPECT_TRUE(m_api.open.empty());
      EXPECT_EQ(OpenDescriptors(), before);
      if (!reached) {
        EXPECT_TRUE(passed);
        EXPECT_GT(number, 2 + harmless);  // faults did show
        return;
      }
    }
  }
  bool Step(bool result, const std::shared_ptr<cAsyncSocket>& socket) {
    if (!result) m_reported = socket->LastError();
    return result;
  }
  // The event, or an error in its place; nothing at all is a fault of ours.
  bool Arrives(std::string_view event) {
    EXPECT_TRUE(Wait([&] { return m_recorder->Saw(event) || m_recorder->SawBegin("OnError"); })) << event;
    return m_recorder->Saw(event) && !m_recorder->SawBegin("OnError");
  }

  FaultySocketApi m_api;
  std::shared_ptr<cAsyncSocket> m_keeper;  // keeps the helper, and the test's seam in it
  std::shared_ptr<cAsyncSocket> m_second;
  std::int32_t m_reported = 0;
};

TEST_F(AsyncSocketFaults, Client) {
  for (const char* host : {"127.0.0.1", "localhost"}) {
    RunAll([&] {
      m_listener = Descriptor(PlainListener());
      m_socket = NewSocket();
      if (!Step(m_socket->Connect(host, PortOf(m_listener)), m_socket) || !Arrives("OnConnect")) return false;
      m_peer = Descriptor(PlainAccept(m_listener));
      if (!Arrives("OnSend") || !Step(m_socket->SendText("question"), m_socket)) return false;
      EXPECT_EQ(PlainReceive(m_peer, 8), "question");
      PlainSend(m_peer, "answer");
      shutdown(m_peer, SHUT_WR);
      if (!Arrives("OnReceive")) return false;
      std::string answer;
      while (answer.size() < 6) {
        const std::int32_t count = m_socket->Receive(std::span(m_room).first(4));
        if (!Step(count >= 0, m_socket)) return false;
        answer.append(m_room.begin(), m_room.begin() + count);
      }
      EXPECT_EQ(answer, "answer");
      return Arrives("OnClose") && m_socket->Close_();
    });
  }
}

TEST_F(AsyncSocketFaults, Server) {
  RunAll([&] {
    m_socket = NewSocket();
    if (!Step(m_socket->Create() && m_socket->Bind("127.0.0.1", 0) && m_socket->Listen(), m_socket)) return false;
    m_peer = Descriptor(PlainConnect(PortOf(m_socket->SocketHandle())));
    if (!Arrives("OnAccept") || !Step(m_socket->Accept(m_second), m_socket)) return false;
    m_second->SetEvents(m_recorder);
    PlainSend(m_peer, "hello");
    if (!Arrives("OnReceive")) return false;
    std::vector<std::uint8_t> data;
    while (data.empty()) {  // what cannot be counted reads as nothing
      if (!Step(m_second->ReceiveArray(data), m_second)) return false;
    }
    EXPECT_EQ(cAsyncSocket::FromTextArray(data, 0), "hello");
    return true;
  });
}

TEST_F(AsyncSocketFaults, ARefusedAcceptIsOfferedAgain) {
  m_socket = NewSocket();
  m_peer = Descriptor(PlainConnect(Listen(*m_socket)));
  ASSERT_TRUE(WaitFor("OnAccept"));
  m_api.failCode = 10024;
  m_api.failAt = m_api.calls + 1;
  EXPECT_FALSE(m_socket->Accept(m_second));
  EXPECT_EQ(m_socket->LastError(), 10024);
  ASSERT_TRUE(Wait([&] { return m_recorder->Count("OnAccept") == 2; }));
  EXPECT_TRUE(m_socket->Accept(m_second));
}

TEST_F(AsyncSocketFaults, Datagrams) {
  RunAll([&] {
    m_peer = Descriptor(PlainSocket(SOCK_DGRAM));
    m_socket = NewSocket();
    if (!Step(m_socket->Create(0, platform::kSockDatagram) && m_socket->Bind("127.0.0.1", 0), m_socket)) return false;
    if (!Step(m_socket->SendText("ask", "127.0.0.1", PortOf(m_peer)), m_socket)) return false;
    EXPECT_EQ(PlainReceive(m_peer, 3), "ask");
    SendDatagram("answer");
    if (!Arrives("OnReceive")) return false;
    std::vector<std::uint8_t> data;
    std::string address;
    while (data.empty()) {
      if (!Step(m_socket->ReceiveArray(data, &address), m_socket)) return false;
    }
    EXPECT_EQ(address, "127.0.0.1");
    return true;
  });
}

TEST_F(AsyncSocketFaults, AttachQueriesAndOptions) {
  RunAll([&] {
    m_listener = Descriptor(PlainListener());
    m_peer = Descriptor(PlainConnect(PortOf(m_listener)));
    Descriptor own(PlainAccept(m_listener));
    m_socket = NewSocket();
    if (!Step(m_socket->Attach(own), m_socket)) {
      EXPECT_EQ(m_socket->SocketHandle(), -1);
      return false;  // the handle is still ours
    }
    own.Release();
    std::string text;
    std::int32_t number = 0;
    std::vector<platform::AdapterAddress> adapters;
    const bool asked = m_socket->GetPeerName(text, number) && m_socket->GetSockName(text, number) &&
                       m_socket->SetSockOpt(platform::kSoSendTimeout, 2000) &&
                       m_socket->SockOpt(platform::kSoSendTimeout) == 2000 && m_socket->AvailableBytes() == 0 &&
                       m_socket->IOCtl(platform::kIoBytesToRead, number) && m_socket->AsyncSelect(platform::kFdRead) &&
                       m_socket->ShutDown();
    if (!Step(asked, m_socket)) return false;
    Descriptor(m_socket->Detach()).Close();
    return m_socket->SocketHandle() == -1;
  });
}

TEST_F(AsyncSocketFaults, WaitingCalls) {
  RunAll([&] {
    m_listener = Descriptor(PlainListener());
    m_socket = NewSocket();
    if (!Step(m_socket->SyncConnect("127.0.0.1", PortOf(m_listener), 5000), m_socket)) return false;
    m_socket->SyncProcessMsgQueue();
    if (!Arrives("OnConnect")) return false;
    m_peer = Descriptor(PlainAccept(m_listener));
    if (!Step(m_socket->SyncSendText("question", 5000), m_socket)) return false;
    PlainSend(m_peer, "answer");
    std::vector<std::uint8_t> data;
    if (!Step(m_socket->SyncReceiveArray(data, 6, 5000), m_socket)) return false;
    EXPECT_EQ(cAsyncSocket::FromTextArray(data, 0), "answer");
    return m_socket->Close_();
  });
}

}  // namespace
}  // namespace quenmark::test
