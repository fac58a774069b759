#include "tests/sockets/ctx_winsock_fixture.h"
#include "tests/sockets/faulty_socket_api.h"
#include "tests/support/child_process.h"

namespace quenmark::test {
namespace {

// --- The life of a connection ----------------------------------------------------------------------------------------

TEST_F(CtxWinsockTest, StatesOfAnOutgoingConnection) {
  m_listener = Descriptor(PlainListener());
  EXPECT_EQ(m_client.control->State(), 0);
  m_client.control->Connect("localhost", PortOf(m_listener));
  EXPECT_EQ(m_client.control->State(), 7);
  ASSERT_TRUE(Wait([&] { return m_client.control->State() == 5; }));  // the name is resolved
  ASSERT_TRUE(WaitFor(m_client, "Connect"));
  m_peer = Descriptor(PlainAccept(m_listener));
  EXPECT_EQ(m_client.control->RemoteHostIP(), "127.0.0.1");
  EXPECT_EQ(m_client.control->RemotePort(), PortOf(m_listener));
  EXPECT_NE(m_client.control->LocalPort(), 0);
  EXPECT_FALSE(m_client.control->LocalHostName().empty());
  PlainSend(m_peer, "last words");
  m_peer.Close();
  ASSERT_TRUE(WaitFor(m_client, "Close"));
  EXPECT_EQ(m_client.received, "last words");
  EXPECT_EQ(m_client.events, (Names{"Connect", "DataArrival", "Close"}));
  EXPECT_THAT(m_client.states, ElementsAre(7, 7, 8));
  EXPECT_EQ(m_client.control->State(), 0);
  EXPECT_EQ(m_client.control->LocalPort(), 0);
}

TEST_F(CtxWinsockTest, AConnectionMadeInTheCloseHandlerStays) {
  ConnectPair();
  m_client.act = [&](const std::string& event) {
    if (event == "Close") m_client.control->Connect();
  };
  m_peer.Close();
  ASSERT_TRUE(WaitFor(m_client, "Connect"));
  m_peer = Descriptor(PlainAccept(m_listener));
  EXPECT_EQ(m_client.control->State(), 7);
  m_client.control->SendData("again");
  EXPECT_EQ(PlainReceive(m_peer, 5), "again");
}

TEST_F(CtxWinsockTest, FailuresAreEventsAndFaults) {
  m_listener = Descriptor(PlainListener());
  const int port = PortOf(m_listener);
  m_listener.Close();
  m_client.control->Connect("127.0.0.1", port);
  ASSERT_TRUE(WaitFor(m_client, "Error 10061 8007274D"));
  EXPECT_THAT(m_client.states, ElementsAre(9));
  EXPECT_FALSE(m_client.description.empty());
  m_client.control->Close_();
  EXPECT_EQ(m_client.control->State(), 0);

  const Descriptor other(PlainListener());
  struct Case {
    std::function<void(ctxWinsock&)> call;
    std::int32_t number;
  };
  const Case cases[] = {
      {[&](ctxWinsock& control) { control.Bind(PortOf(other), "127.0.0.1"); }, 10048},
      {[](ctxWinsock& control) { control.Listen(); }, 10022},  // not bound
      {[](ctxWinsock& control) { control.Connect("127.0.0.1", 70000); }, 10022},
      {[](ctxWinsock& control) { control.Accept(12345); }, static_cast<std::int32_t>(0x80072736)},  // no such handle
  };
  for (const Case& each : cases) {
    for (const bool cancels : {false, true}) {
      Logged logged(New());
      logged.cancels = cancels;
      std::int32_t number = 0;
      try {
        each.call(*logged.control);
      } catch (const RunTimeError& error) {
        number = error.Number();
      }
      EXPECT_EQ(number, cancels ? 0 : each.number);
      EXPECT_THAT(logged.events, ElementsAre(fmt::format("Error {} {:X}", each.number & 0x7FFF,
                                                         static_cast<std::uint32_t>(each.number))));
      EXPECT_EQ(logged.control->State(), 9);
    }
  }
}

// A socket that cannot be made is reported once, and nothing goes on without it.
TEST_F(CtxWinsockTest, WithoutASocket) {
  FaultySocketApi api;
  const std::function<void(ctxWinsock&)> calls[] = {
      [](auto& control) { control.Connect("127.0.0.1", 1); },
      [](auto& control) { control.Bind(); },
      [](auto& control) { control.Listen(); },
      [](auto& control) { control.SendData("data"); },
      [](auto& control) { control.SocketHandle(); },
      [](auto& control) { control.LocalIP(); },
      [](auto& control) { control.SockOpt(4); },
      [data = WinsockData(std::string())](auto& control) mutable { control.GetData(data, 0, 1); },
  };
  for (const auto& call : calls) {
    for (const bool cancels : {false, true}) {
      Logged logged(ctxWinsock::New(m_loop, m_certificates, {&api, {}}));
      logged.cancels = cancels;
      api.failAt = api.calls + 1;
      if (cancels) {
        EXPECT_NO_THROW(call(*logged.control));
      } else {
        EXPECT_THROW(call(*logged.control), RunTimeError);
      }
      Settle();
      EXPECT_THAT(logged.events, ElementsAre("Error 10055 2747"));
      EXPECT_EQ(logged.control->State(), 9);
      EXPECT_TRUE(api.open.empty());
      // The next call makes one.
      EXPECT_NE(logged.control->SocketHandle(), platform::kInvalidSocket);
    }
  }
}

// Whichever event it is dropped in, the control says no more and nothing of it is touched.
TEST_F(CtxWinsockTest, DroppedInAHandler) {
  for (const std::string last : {"Connect", "SendProgress", "SendComplete", "DataArrival", "Close"}) {
    m_listener = Descriptor(PlainListener());
    Logged logged(New());
    bool dropped = false;
    logged.act = [&](const std::string& event) {
      EXPECT_FALSE(dropped) << event << " after " << last;
      dropped = event == last;
      if (dropped) logged.control.reset();
    };
    const auto control = std::weak_ptr(logged.control);
    logged.control->Connect("127.0.0.1", PortOf(m_listener));
    m_peer = Descriptor(PlainAccept(m_listener));
    PlainSend(m_peer, "data");
    ASSERT_TRUE(Wait([&] { return dropped || logged.Saw("Connect"); }));
    if (!dropped) logged.control->SendData("request");
    if (last == "Close") {
      ASSERT_TRUE(WaitFor(logged, "DataArrival"));
      EXPECT_EQ(PlainReceive(m_peer, 7), "request");
      m_peer.Close();
    }
    ASSERT_TRUE(Wait([&] { return dropped; }));
    Settle();
    EXPECT_TRUE(control.expired()) << last;
  }
}

// --- Receiving -------------------------------------------------------------------------------------------------------

TEST_F(CtxWinsockTest, GetDataAndPeekData) {
  ConnectPair();
  ArriveUnread("0123456789");
  EXPECT_EQ(m_client.Peek(3), "012");
  EXPECT_EQ(m_client.Peek(2), "34");  // on from the socket, not from what was peeked
  EXPECT_EQ(m_client.Get(2), "01");
  EXPECT_EQ(m_client.Get(0), "");
  EXPECT_EQ(m_client.Get(99), "234");  // what was peeked comes alone
  EXPECT_EQ(m_client.Get(1), "5");
  EXPECT_EQ(m_client.Peek(), "6789");
  EXPECT_EQ(m_client.Peek(), "");
  EXPECT_EQ(m_client.Get(), "6789");
  EXPECT_EQ(m_client.Get(), "");
  PlainSend(m_peer, "\xE9t\xE9");
  EXPECT_EQ(m_client.Get(3), "\u00E9t\u00E9");  // Windows-1252
  WinsockData bytes;
  PlainSend(m_peer, "\x80z");
  m_client.control->GetData(bytes, sockets::kTypeBytes, 2);
  EXPECT_EQ(std::get<tls::Bytes>(bytes), (tls::Bytes{0x80, 'z'}));
}

TEST_F(CtxWinsockTest, ReadsWaitUpToTheTimeout) {
  ConnectPair();
  m_client.reads = false;
  m_client.control->Timeout(20);
  PlainSend(m_peer, "ab");
  EXPECT_EQ(m_client.Get(5), "ab");  // the time is up
  m_client.control->Timeout(20'000);
  PlainSend(m_peer, "cd");
  m_peer.Close();
  EXPECT_EQ(m_client.Get(5), "cd");  // the peer has closed
  EXPECT_FALSE(m_client.Saw("Close"));
  ASSERT_TRUE(WaitFor(m_client, "Close"));  // not lost in the wait
}

// What happened during the read is told before what came of the data that it took.
TEST_F(CtxWinsockTest, ReadBeforeItIsToldOfTheConnection) {
  for (const bool ends : {false, true}) {
    m_client.events.clear();
    m_listener = Descriptor(PlainListener());
    m_client.control->Connect("127.0.0.1", PortOf(m_listener));
    m_peer = Descriptor(PlainAccept(m_listener));
    platform::Timer later(m_loop, std::chrono::milliseconds{5}, [&] {
      later.SetEnabled(false);
      PlainSend(m_peer, "abcdef");
      if (ends) m_peer.Close();
    });
    later.SetEnabled(true);
    EXPECT_EQ(m_client.Get(ends ? 6 : 3), ends ? "abcdef" : "abc");
    ASSERT_TRUE(WaitFor(m_client, ends ? "Close" : "DataArrival"));
    EXPECT_THAT(m_client.events, ElementsAre("Connect", ends ? "Close" : "DataArrival"));
  }
}

TEST_F(CtxWinsockTest, TypesThatAreNone) {
  const auto fault = [](const std::function<void()>& call) {
    try {
      call();
    } catch (const RunTimeError& error) {
      EXPECT_EQ(error.Number(), static_cast<std::int32_t>(0x80040000));
      return error.Description();
    }
    return std::string("none");
  };
  WinsockData number = 5;
  EXPECT_EQ(fault([&] { m_client.control->SendData(number); }), "Unsupported data type: Long");
  EXPECT_EQ(fault([&] { m_client.control->SendData(WinsockData(1.5)); }), "Unsupported data type: Double");
  EXPECT_EQ(fault([&] { m_client.control->GetData(number); }), "Unsupported data type: 3");
  EXPECT_EQ(fault([&] { m_client.control->PeekData(number, 11); }), "Unsupported data type: 11");
  EXPECT_TRUE(m_client.events.empty());
}

// --- Sending ---------------------------------------------------------------------------------------------------------

TEST_F(CtxWinsockTest, PartialSends) {
  ConnectPair();
  m_client.control->SockOpt(platform::kSoSendBuffer, platform::kSolSocket, 32 * 1024);
  std::string data(6'000'000, '\0');
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 7919) >> 3);
  m_client.control->SendData(tls::Bytes(data.begin(), data.end() - 5));
  EXPECT_FALSE(m_client.Saw("SendComplete"));
  m_client.control->SendData(tls::Bytes(data.end() - 5, data.end()));
  std::string taken;
  ASSERT_TRUE(Wait([&] { return (taken += TakeAtPeer()).size() == data.size(); }));
  ASSERT_TRUE(WaitFor(m_client, "SendComplete"));
  EXPECT_TRUE(taken == data);
  EXPECT_EQ(m_client.events, Names{"SendComplete"});
  EXPECT_GT(m_client.progress.size(), 2u);
  for (std::size_t i = 1; i < m_client.progress.size(); ++i) {
    EXPECT_GT(m_client.progress[i].first, m_client.progress[i - 1].first);
  }
  EXPECT_EQ(m_client.progress.back(), (std::pair<std::int64_t, std::int64_t>(6'000'000, 0)));
}

TEST_F(CtxWinsockTest, AnotherRemotePortDiscardsWhatWaits) {
  ConnectPair();
  m_client.control->SendData(tls::Bytes(8'000'000));
  m_client.control->RemotePort(1);
  std::size_t taken = 0;
  ASSERT_TRUE(Wait([&] { return (taken += TakeAtPeer().size()) > 0; }));
  Settle();
  EXPECT_LT(taken + TakeAtPeer().size(), 8'000'000u);
  EXPECT_FALSE(m_client.Saw("SendComplete"));
  m_client.control->SendData("next");
  ASSERT_TRUE(WaitFor(m_client, "SendComplete"));
}

TEST_F(CtxWinsockTest, SendingFromTheSendHandlers) {
  ConnectPair();
  int round = 0;
  m_client.act = [&](const std::string& event) {
    if (event == "SendProgress" && round++ == 0) m_client.control->SendData("two ");
    if (event == "SendComplete" && round++ == 2) m_client.control->SendData("three");
  };
  m_client.control->SendData("one ");
  EXPECT_EQ(PlainReceive(m_peer, 13), "one two three");
  EXPECT_EQ(m_client.events, (Names{"SendComplete", "SendComplete"}));
}

TEST_F(CtxWinsockTest, SendingWithoutAConnection) {
  m_client.control->SendData("nobody");
  EXPECT_EQ(m_client.events, (Names{"Connect", "Error 10057 2749"}));
  EXPECT_EQ(m_client.control->State(), 9);
  m_client.control->SendData("again");
  EXPECT_EQ(m_client.events, (Names{"Connect", "Error 10057 2749", "Error 10057 2749"}));
}

TEST_F(CtxWinsockTest, Datagrams) {
  for (Logged* each : {&m_client, &m_server}) {
    each->control->Protocol(sockets::kProtocolUdp);
    each->control->Bind(0, "127.0.0.1");
    EXPECT_EQ(each->control->State(), 1);
  }
  m_client.control->RemoteHost("localhost");
  m_client.control->RemotePort(m_server.control->LocalPort());
  m_client.control->SendData("question");
  ASSERT_TRUE(WaitFor(m_server, "DataArrival"));
  EXPECT_EQ(m_server.received, "question");
  m_server.control->RemoteHost("127.0.0.1");
  m_server.control->RemotePort(m_client.control->LocalPort());
  m_server.control->SendData("answer");
  ASSERT_TRUE(WaitFor(m_client, "DataArrival"));
  EXPECT_EQ(m_client.received, "answer");
  EXPECT_EQ(m_client.control->State(), 1);
  m_client.control->Connect();
  ASSERT_TRUE(WaitFor(m_client, "Connect"));
  EXPECT_EQ(m_client.control->State(), 7);
}

// --- Listening -------------------------------------------------------------------------------------------------------

TEST_F(CtxWinsockTest, AcceptedByAnotherControl) {
  const int port = Listen(sockets::kProtocolTcp, [this] { Accept(); });
  EXPECT_EQ(m_server.control->State(), 2);
  m_peer = Descriptor(PlainConnect(port));
  PlainSend(m_peer, "early");
  m_client.act = [&](const std::string& event) {
    if (event == "Connect") m_client.received = m_client.Peek();
  };
  ASSERT_TRUE(WaitFor(m_server, "ConnectionRequest"));
  EXPECT_THAT(m_server.states, ElementsAre(3));
  EXPECT_EQ(m_server.control->State(), 2);
  EXPECT_EQ(m_client.control->State(), 0);
  EXPECT_EQ(m_client.control->SocketHandle(), m_server.request);  // the very socket
  ASSERT_TRUE(WaitFor(m_client, "Connect"));
  EXPECT_EQ(m_client.received, "early");
  EXPECT_EQ(m_client.Get(), "early");
  m_client.control->Close_();
  EXPECT_EQ(m_client.control->State(), 0);
  EXPECT_TRUE(AtEnd(m_peer));
}

// What is given to an accepted connection before its first event goes out, in order.
TEST_F(CtxWinsockTest, DataBeforeTheFirstEventIsKept) {
  for (const std::int32_t protocol : {sockets::kProtocolTcp, sockets::kProtocolTls}) {
    const int port = Listen(protocol, [this] {
      Accept();
      m_client.control->SendData("one ");
      m_client.control->SendData("two");
    });
    m_client.act = [&](const std::string& event) {
      if (event == "Connect") m_client.control->SendData("\nthree\n");
    };
    if (protocol == sockets::kProtocolTcp) {
      m_peer = Descriptor(PlainConnect(port));
      ASSERT_TRUE(WaitFor(m_client, "Connect"));
      EXPECT_EQ(PlainReceive(m_peer, 14), "one \nthree\ntwo");
    } else {
      ChildProcess peer("openssl", {"s_client", "-quiet", "-connect", fmt::format("127.0.0.1:{}", port)});
      ASSERT_TRUE(WaitFor(m_client, "SendComplete"));
      m_client.control->Close_();
      ASSERT_TRUE(Wait([&] { return !peer.Running(); }));
      EXPECT_EQ(peer.ReadAll(), "one \nthree\ntwo");
    }
    EXPECT_EQ(m_client.Count("Connect"), 1);
    m_client.events.clear();
    m_server.control->Close_();
  }
}

// Whoever takes a connection is told what the request's handler has met when it read from it.
TEST_F(CtxWinsockTest, AcceptedAfterARead) {
  const std::string request = "GET / HTTP/1.0\r\n\r\n";
  for (const std::int32_t protocol : {sockets::kProtocolTcp, sockets::kProtocolTls}) {
    std::string taken;
    m_peer = Descriptor(PlainConnect(Listen(protocol, [&] {
      taken = m_server.Get(99);
      Accept();
    })));
    PlainSend(m_peer, request);
    m_peer.Close();
    ASSERT_TRUE(WaitFor(m_client, "Close"));
    const bool isTls = protocol == sockets::kProtocolTls;
    EXPECT_EQ(taken, isTls ? "" : request);
    EXPECT_EQ(m_client.events, isTls ? Names{"Close"} : (Names{"Connect", "Close"}));
    EXPECT_EQ(m_client.control->State(), 0);
    m_client.events.clear();
    m_server.control->Close_();
  }
}

// The end that the read of the last byte has brought does not overtake what came before it.
TEST_F(CtxWinsockTest, AcceptedAfterAReadOfExactlyEverything) {
  std::string taken;
  platform::Timer later(m_loop, std::chrono::milliseconds{5}, [&] {
    later.SetEnabled(false);
    PlainSend(m_peer, "abcdef");
    m_peer.Close();
  });
  m_peer = Descriptor(PlainConnect(Listen(sockets::kProtocolTcp, [&] {
    later.SetEnabled(true);
    taken = m_server.Get(6);
    Accept();
  })));
  ASSERT_TRUE(WaitFor(m_client, "Close"));
  EXPECT_EQ(taken, "abcdef");
  EXPECT_EQ(m_client.events, (Names{"Connect", "Close"}));
}

TEST_F(CtxWinsockTest, AcceptedByTheListenerItself) {
  const auto accept = [this] { m_server.control->Accept(m_server.request); };
  m_peer = Descriptor(PlainConnect(Listen(sockets::kProtocolTcp, accept)));
  ASSERT_TRUE(WaitFor(m_server, "Connect"));
  EXPECT_EQ(m_server.control->State(), 7);
  PlainSend(m_peer, "data");
  ASSERT_TRUE(Wait([&] { return m_server.received == "data"; }));
}

TEST_F(CtxWinsockTest, RefusedOrForeignRequests) {
  m_peer = Descriptor(PlainConnect(Listen(sockets::kProtocolTcp, [] {})));
  ASSERT_TRUE(WaitFor(m_server, "ConnectionRequest"));
  EXPECT_TRUE(AtEnd(m_peer));  // nobody took it

  // A handle from elsewhere is doubled; the original stays its owner's.
  ConnectPair();
  Logged second(New());
  const int handle = m_client.control->SocketHandle();
  second.control->Accept(handle);
  EXPECT_NE(second.control->SocketHandle(), handle);
  ASSERT_TRUE(WaitFor(second, "Connect"));
  second.control->SendData("still here");
  EXPECT_EQ(PlainReceive(m_peer, 10), "still here");
}

// --- Programs from outside -------------------------------------------------------------------------------------------

TEST_F(CtxWinsockTest, ClientOfAnotherServer) {
  ChildProcess server("/usr/bin/python3", {"-u", "-m", "http.server", "--bind", "127.0.0.1", "0"});
  const std::string line = server.ReadLine().value_or("");  // Serving HTTP on 127.0.0.1 port 12345 (http://...
  const std::size_t port = line.find("port ");
  ASSERT_NE(port, std::string::npos) << line;
  m_client.control->Connect("127.0.0.1", std::atoi(line.c_str() + port + 5));
  ASSERT_TRUE(WaitFor(m_client, "Connect"));
  m_client.control->SendData("HEAD / HTTP/1.0\r\n\r\n");
  ASSERT_TRUE(WaitFor(m_client, "Close"));
  EXPECT_THAT(m_client.received, testing::AllOf(testing::StartsWith("HTTP/1.0 200 "), testing::EndsWith("\r\n\r\n")));
}

TEST_F(CtxWinsockTest, ServerOfOtherClients) {
  const std::string port = std::to_string(Listen(sockets::kProtocolTcp, [this] { Accept(); }));
  const Names clients[] = {
      {"bash", "-c", "exec 3<>/dev/tcp/127.0.0.1/" + port + "; printf 'GET\r\n\r\n' >&3; tail -c 6 <&3"},
      {"curl", "-s", "--noproxy", "*", "http://127.0.0.1:" + port}};
  m_client.act = [&](const std::string& event) {
    if (event != "DataArrival" || !m_client.received.ends_with("\r\n\r\n")) return;
    m_client.control->SendData("HTTP/1.0 200 OK\r\n\r\nanswer");
    m_client.control->Close_();
  };
  for (const Names& command : clients) {
    ChildProcess client(command[0], {command.begin() + 1, command.end()});
    ASSERT_TRUE(Wait([&] { return !client.Running(); })) << command[0];
    EXPECT_EQ(client.ReadAll(), "answer") << command[0];
    EXPECT_TRUE(m_client.received.starts_with("GET")) << command[0];
    m_client.received.clear();
  }
}

// --- Properties ------------------------------------------------------------------------------------------------------

struct Bag final : sockets::PropertyBag {
  std::map<std::string, std::string, std::less<>> values;
  std::int32_t ReadNumber(std::string_view name, std::int32_t otherwise) override {
    return std::stoi(ReadText(name, std::to_string(otherwise)));
  }
  std::string ReadText(std::string_view name, std::string_view otherwise) override {
    const auto found = values.find(name);
    return found == values.end() ? std::string(otherwise) : found->second;
  }
  void WriteNumber(std::string_view name, std::int32_t value, std::int32_t otherwise) override {
    WriteText(name, std::to_string(value), std::to_string(otherwise));
  }
  void WriteText(std::string_view name, std::string_view value, std::string_view otherwise) override {
    if (value != otherwise) values.insert_or_assign(std::string(name), std::string(value));
  }
};

TEST_F(CtxWinsockTest, PersistedProperties) {
  Bag bag;
  m_client.control->WriteProperties(bag);
  EXPECT_TRUE(bag.values.empty());  // the defaults
  EXPECT_EQ(m_client.control->Timeout(), 5000);
  m_client.control->LocalPort(1);
  m_client.control->Protocol(2);
  m_client.control->RemoteHost("host");
  m_client.control->RemotePort(3);
  m_client.control->Timeout(4);
  m_client.control->Timeout(4);
  EXPECT_EQ(m_client.changed, (Names{"LocalPort", "Protocol", "RemoteHost", "RemotePort", "Timeout", "Timeout"}));
  m_client.control->WriteProperties(bag);
  EXPECT_EQ(bag.values.size(), 5u);
  const auto copy = New();
  copy->ReadProperties(bag);
  Bag again;
  copy->WriteProperties(again);
  EXPECT_EQ(again.values, bag.values);
  EXPECT_EQ(again.values.at("RemoteHost"), "host");
}

TEST_F(CtxWinsockTest, AnotherLocalPortOrProtocolCloses) {
  for (const bool port : {true, false}) {
    ConnectPair();
    m_client.control->RemotePort(9);
    EXPECT_EQ(m_client.control->State(), 7);
    port ? m_client.control->LocalPort(0) : m_client.control->Protocol(0);  // no change
    EXPECT_EQ(m_client.control->State(), 7);
    port ? m_client.control->LocalPort(9) : m_client.control->Protocol(2);
    EXPECT_EQ(m_client.control->State(), 0);
    EXPECT_TRUE(AtEnd(m_peer));
  }
}

}  // namespace
}  // namespace quenmark::test
