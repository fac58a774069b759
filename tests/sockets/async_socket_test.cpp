#include "sockets/async_socket.h"

#include "platform/winsock_errors.h"
#include "tests/sockets/socket_fixture.h"

#include <unistd.h>

#include <thread>

namespace quenmark::test {
namespace {

using platform::kFdRead;
using platform::kSockDatagram;

using AsyncSocket = SocketTest;

// --- Connecting ------------------------------------------------------------------------------------------------------

TEST_F(AsyncSocket, ConnectsWithEventsInOrder) {
  m_recorder->notify = true;
  m_listener = Descriptor(PlainListener());
  for (const char* host : {"127.0.0.1", "localhost"}) {
    m_socket = NewSocket();
    EXPECT_EQ(m_socket->SocketHandle(), -1);
    m_socket->SetLastError(5);
    ASSERT_TRUE(m_socket->Connect(host, PortOf(m_listener)));
    EXPECT_EQ(m_socket->LastError(), 0);
    EXPECT_TRUE(m_recorder->events.empty());
    const bool byName = m_socket->HasPendingResolve();
    ASSERT_TRUE(WaitFor("After 2"));
    EXPECT_FALSE(m_socket->HasPendingResolve());
    Events expected{"Before 16", "OnConnect", "After 16", "Before 2", "OnSend", "After 2"};
    if (byName) expected.insert(expected.begin(), "OnResolve 127.0.0.1");
    EXPECT_EQ(m_recorder->events, expected);
    EXPECT_EQ(byName, host[0] == 'l');
    m_recorder->events.clear();
  }
  std::string address;
  std::int32_t port = 0;
  ASSERT_TRUE(m_socket->GetPeerName(address, port));
  EXPECT_EQ(address, "127.0.0.1");
  EXPECT_EQ(port, PortOf(m_listener));
  ASSERT_TRUE(m_socket->GetSockName(address, port));
  EXPECT_EQ(port, PortOf(m_socket->SocketHandle()));
}

TEST_F(AsyncSocket, AResetIsToldOnceAndKept) {
  ConnectPair();
  PlainReset(m_peer);
  ASSERT_TRUE(Wait([&] { return !m_recorder->events.empty(); }));
  Settle();
  EXPECT_EQ(m_recorder->events, Events{"OnError 10054 32"});
  EXPECT_EQ(ErrorOf(m_socket->Receive(m_room) >= 0), platform::kWsaConnectionReset);
  EXPECT_EQ(ErrorOf(m_socket->Send(Bytes("x")) >= 0), platform::kWsaConnectionReset);
}

TEST_F(AsyncSocket, AResetThatComesBeforeItCanBeToldIsToldBehindTheData) {
  const auto listener = cAsyncSocket::New(m_loop);
  const int port = Listen(*listener);
  const auto sendAndReset = [&] {
    PlainSend(m_peer, "hello");
    PlainReset(m_peer);
  };
  const std::pair<std::function<void()>, Events> cases[] = {
      // Before the connection is told.
      {[&] {
         StartPair();
         sendAndReset();
       },
       {"OnConnect", "OnReceive", "OnError 10054 32"}},
      // Before the selection.
      {[&] {
         ConnectPair();
         ASSERT_TRUE(m_socket->AsyncSelect(0));
         sendAndReset();
         ASSERT_TRUE(m_socket->AsyncSelect(platform::kFdAll));
       },
       {"OnReceive", "OnError 10054 32"}},
      // Before the connection is accepted.
      {[&] {
         m_peer = Descriptor(PlainConnect(port));
         sendAndReset();
         m_socket->Close_();
         ASSERT_TRUE(listener->Accept(m_socket));
       },
       {"OnReceive", "OnError 10054 32"}},
  };
  for (const auto& [play, events] : cases) {
    m_recorder->events.clear();
    play();
    ASSERT_TRUE(WaitFor("OnReceive"));
    EXPECT_EQ(m_socket->ReceiveText(), "hello");
    ASSERT_TRUE(WaitFor("OnError 10054 32"));
    EXPECT_EQ(m_recorder->events, events);
  }
}

TEST_F(AsyncSocket, RefusesWhatCannotBe) {
  m_socket = NewSocket();
  EXPECT_EQ(ErrorOf(m_socket->Connect("127.0.0.1", 70'000)), platform::kWsaInvalid);
  EXPECT_EQ(ErrorOf(m_socket->Send(Bytes("x")) >= 0), platform::kWsaNotSocket);
  ASSERT_TRUE(m_socket->Create());
  EXPECT_EQ(ErrorOf(m_socket->Create()), platform::kWsaAlready);
  EXPECT_EQ(ErrorOf(m_socket->Attach(0)), platform::kWsaAlready);
  EXPECT_EQ(ErrorOf(m_socket->Connect("0.0.0.0", 80)), platform::kWsaAddressNotAvailable);
  EXPECT_EQ(ErrorOf(m_socket->Send(Bytes("x")) >= 0), platform::kWsaNotConnected);
  const Descriptor refusing(PlainSocket(SOCK_STREAM));
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", PortOf(refusing)));
  EXPECT_EQ(ErrorOf(m_socket->Send(Bytes("x")) >= 0), platform::kWsaRefused);  // before the event, not in its place
  ASSERT_TRUE(WaitFor("OnError 10061 16"));
  EXPECT_FALSE(m_recorder->Saw("OnConnect"));
  EXPECT_EQ(ErrorOf(m_socket->Send(Bytes("x")) >= 0), platform::kWsaNotConnected);
  EXPECT_EQ(ErrorOf(m_socket->Receive(m_room) >= 0), platform::kWsaNotConnected);
  EXPECT_TRUE(m_socket->Close_());
  // A failure that was not heard is the answer of the selection.
  ASSERT_TRUE(m_socket->Create(0, platform::kSockStream, 0));
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", PortOf(refusing)));
  EXPECT_EQ(ErrorOf(m_socket->AsyncSelect(platform::kFdAll)), platform::kWsaRefused);
  EXPECT_TRUE(m_socket->Close_());
  EXPECT_EQ(ErrorOf(m_socket->Attach(-1)), platform::kWsaNotSocket);
  EXPECT_EQ(m_socket->Detach(), -1);
  m_loop.DestroyWindow(m_loop.FindHiddenWindow(sockets::NotificationHelper::WindowName()));
  EXPECT_EQ(ErrorOf(m_socket->Create()), platform::kWsaNotInitialised);
}

TEST_F(AsyncSocket, ASecondConnectLeavesTheFirstAlone) {
  m_listener = Descriptor(PlainListener());
  const Descriptor refusing(PlainSocket(SOCK_STREAM));
  for (const bool refused : {false, true}) {
    const int port = PortOf(refused ? refusing : m_listener);
    m_socket = NewSocket();
    m_recorder->events.clear();
    ASSERT_TRUE(m_socket->Connect("127.0.0.1", port));
    EXPECT_EQ(ErrorOf(m_socket->Connect("127.0.0.1", port)), platform::kWsaAlready);
    ASSERT_TRUE(WaitFor(refused ? "OnError 10061 16" : "OnSend"));
    if (!refused) {
      EXPECT_EQ(ErrorOf(m_socket->Connect("127.0.0.1", port)), platform::kWsaIsConnected);
    }
    Settle();
    EXPECT_EQ(m_recorder->events, refused ? Events{"OnError 10061 16"} : (Events{"OnConnect", "OnSend"}));
  }
}

TEST_F(AsyncSocket, ASocketWhoseConnectCallFailedConnectsAgain) {
  m_listener = Descriptor(PlainListener());
  const Descriptor refusing(PlainSocket(SOCK_STREAM));
  m_socket = NewSocket();
  m_recorder->act = [&](cAsyncSocket& socket, const std::string& event) {
    if (event != "OnError 10061 16") return;
    const bool again = m_recorder->Count(event) == 1;
    EXPECT_TRUE(socket.Connect("127.0.0.1", PortOf(again ? refusing : m_listener)));
  };
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", PortOf(refusing)));
  ASSERT_TRUE(WaitFor("OnSend"));
  EXPECT_EQ(m_recorder->events, (Events{"OnError 10061 16", "OnError 10061 16", "OnConnect", "OnSend"}));
  m_peer = Descriptor(PlainAccept(m_listener));
  PlainSend(m_peer, "x");
  EXPECT_TRUE(WaitFor("OnReceive"));
}

TEST_F(AsyncSocket, AskingForTheErrorDoesNotKeepItFromTheEvents) {
  const Descriptor refusing(PlainSocket(SOCK_STREAM));
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", PortOf(refusing)));
  EXPECT_EQ(m_socket->SockOpt(platform::kSoError), platform::kWsaRefused);
  ASSERT_TRUE(WaitFor("OnError 10061 16"));
  EXPECT_EQ(m_recorder->events.size(), 1U);

  ConnectPair();
  PlainReset(m_peer);
  EXPECT_EQ(m_socket->SockOpt(platform::kSoError), platform::kWsaConnectionReset);
  ASSERT_TRUE(WaitFor("OnError 10054 32"));
  EXPECT_EQ(m_recorder->events.size(), 1U);
  EXPECT_EQ(m_socket->SockOpt(platform::kSoError), 0);
}

// --- Data ------------------------------------------------------------------------------------------------------------

TEST_F(AsyncSocket, ReadComesOnceAndAgainAfterAReceiveThatLeavesData) {
  ConnectPair();
  m_recorder->notify = true;
  PlainSend(m_peer, "12345678");
  ASSERT_TRUE(WaitFor("OnReceive"));
  PlainSend(m_peer, "9");
  Settle();
  EXPECT_EQ(m_recorder->events, (Events{"Before 1", "OnReceive", "After 1"}));
  EXPECT_EQ(m_socket->Receive(std::span(m_room).first(4)), 4);
  ASSERT_TRUE(Wait([&] { return m_recorder->Count("OnReceive") == 2; }));
  std::vector<std::uint8_t> rest;
  ASSERT_TRUE(m_socket->ReceiveArray(rest));
  EXPECT_EQ(cAsyncSocket::FromTextArray(rest, 0), "56789");
  Settle();
  EXPECT_EQ(m_recorder->Count("OnReceive"), 2);
  EXPECT_TRUE(m_socket->ReceiveArray(rest));
  EXPECT_TRUE(rest.empty());
  EXPECT_EQ(m_socket->Receive(m_room), -1);
  EXPECT_TRUE(m_socket->HasPendingEvent());
}

TEST_F(AsyncSocket, AnEmptyReceiveRearmsAndAStaleOrCancelledReadRaisesNoReceive) {
  ConnectPair();
  PlainSend(m_peer, "data");
  ASSERT_TRUE(WaitFor("OnReceive"));
  EXPECT_EQ(m_socket->Receive({}), 0);
  EXPECT_EQ(m_socket->LastError(), 0);
  ASSERT_TRUE(Wait([&] { return m_recorder->Count("OnReceive") == 2; }));
  EXPECT_EQ(m_socket->Receive({}), 0);         // posts a read …
  EXPECT_EQ(m_socket->ReceiveText(), "data");  // … that finds nothing
  m_recorder->notify = true;
  m_recorder->events.clear();
  Settle();
  EXPECT_EQ(m_recorder->events, (Events{"Before 1", "After 1"}));
  // A cancelled notification has neither an event nor an end.
  m_recorder->events.clear();
  m_recorder->cancelNext = true;
  PlainSend(m_peer, "x");
  ASSERT_TRUE(WaitFor("Before 1"));
  Settle();
  EXPECT_EQ(m_recorder->events, Events{"Before 1"});
}

TEST_F(AsyncSocket, DataComesBeforeTheCloseAndTheOtherSideStaysOpen) {
  ConnectPair();
  PlainSend(m_peer, "last words");
  shutdown(m_peer, SHUT_WR);
  ASSERT_TRUE(WaitFor("OnReceive"));
  Settle();
  EXPECT_FALSE(m_recorder->Saw("OnClose"));  // not while data waits
  EXPECT_EQ(m_socket->Receive(std::span(m_room).first(4)), 4);
  Settle();
  EXPECT_FALSE(m_recorder->Saw("OnClose"));
  EXPECT_EQ(m_socket->Receive(m_room), 6);
  ASSERT_TRUE(WaitFor("OnClose"));
  ASSERT_TRUE(m_socket->SendText("answer"));
  EXPECT_EQ(PlainReceive(m_peer, 6), "answer");
  EXPECT_EQ(m_socket->Receive(m_room), 0);
  Settle();
  EXPECT_EQ(m_recorder->Count("OnClose"), 1);
}

TEST_F(AsyncSocket, OurShutDownIsNoCloseOfThePeer) {
  ConnectPair();
  ASSERT_TRUE(m_socket->ShutDown(platform::kShutBoth));
  EXPECT_TRUE(AtEnd(m_peer));
  Settle();
  EXPECT_TRUE(m_recorder->events.empty());
  EXPECT_EQ(ErrorOf(m_socket->Send(Bytes("x")) >= 0), platform::kWsaShutDown);
}

TEST_F(AsyncSocket, BigTransfersBothWaysWithTinyBuffers) {
  constexpr std::size_t kSize = 4 << 20;
  const std::string data = Pattern(kSize);
  ConnectPair();
  ASSERT_TRUE(m_socket->SetSockOpt(platform::kSoSendBuffer, 2048));
  ASSERT_TRUE(m_socket->SetSockOpt(platform::kSoReceiveBuffer, 16384));
  std::thread sender([&] { PlainSend(m_peer, data); });
  std::string echoed;
  std::thread receiver([&] { echoed = PlainReceive(m_peer, kSize); });
  std::string received;
  std::size_t sent = 0;
  int sends = 0;
  const auto send = [&] {
    while (sent < kSize) {
      const std::int32_t count = m_socket->Send(Bytes(data).subspan(sent, std::min<std::size_t>(kSize - sent, 5000)));
      if (count < 0) break;
      sent += static_cast<std::size_t>(count);
    }
    EXPECT_TRUE(sent == kSize || m_socket->HasPendingEvent());
    ++sends;
  };
  m_recorder->act = [&](cAsyncSocket& socket, const std::string& event) {
    if (event == "OnSend") send();
    if (event != "OnReceive") return;
    std::array<std::uint8_t, 1000> room;
    const std::int32_t count = socket.Receive(room);
    if (count > 0) received.append(room.begin(), room.begin() + count);
  };
  send();
  EXPECT_TRUE(m_loop.WaitUntil([&] { return received.size() == kSize && sent == kSize; },
                               m_clock.Monotonic() + std::chrono::seconds{60}))
      << received.size() << ' ' << sent;
  m_socket->ShutDown();
  sender.join();
  receiver.join();
  EXPECT_TRUE(received == data);
  EXPECT_TRUE(echoed == data);
  EXPECT_GT(sends, 2);  // it had to wait for room
}

// --- Datagrams -------------------------------------------------------------------------------------------------------

TEST_F(AsyncSocket, DatagramsCarryTheirSender) {
  m_peer = Descriptor(PlainSocket(SOCK_DGRAM));
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->Create(0, kSockDatagram));
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", PortOf(m_peer)));
  ASSERT_TRUE(WaitFor("OnConnect"));
  ASSERT_TRUE(m_socket->SendText("ask", "localhost", PortOf(m_peer)));
  EXPECT_EQ(PlainReceive(m_peer, 3), "ask");
  EXPECT_EQ(ErrorOf(m_socket->SendText("ask", "no such host.", PortOf(m_peer))), platform::kWsaInvalid);
  EXPECT_FALSE(m_socket->SendText("ask"));  // it is not connected to anything

  for (int i = 0; i < 200; ++i) SendDatagram("");  // empty ones hide nothing
  SendDatagram("zeroth");
  ASSERT_TRUE(WaitFor("OnReceive"));
  EXPECT_EQ(m_socket->ReceiveText(), "zeroth");
  m_recorder->events.clear();
  SendDatagram("");
  Settle();
  SendDatagram("first");
  SendDatagram("second");
  ASSERT_TRUE(WaitFor("OnReceive"));
  std::string address;
  std::int32_t port = 0;
  std::vector<std::uint8_t> data;
  ASSERT_TRUE(m_socket->ReceiveArray(data, &address, &port));
  EXPECT_EQ(cAsyncSocket::FromTextArray(data, 0), "first");
  EXPECT_EQ(address, "127.0.0.1");
  EXPECT_EQ(port, PortOf(m_peer));
  ASSERT_TRUE(Wait([&] { return m_recorder->Count("OnReceive") == 2; }));
  std::string unwanted(sockets::kNoSender);
  EXPECT_EQ(m_socket->ReceiveText(&unwanted), "second");
  EXPECT_EQ(unwanted, sockets::kNoSender);
}

// --- Accepting -------------------------------------------------------------------------------------------------------

TEST_F(AsyncSocket, AcceptChain) {
  const auto listener = NewSocket();
  ASSERT_TRUE(listener->Create());
  EXPECT_FALSE(listener->Listen());  // not bound
  ASSERT_TRUE(listener->Bind("localhost", 0) && listener->Listen());
  auto accepted = std::make_shared<Recorder>();
  std::vector<std::shared_ptr<cAsyncSocket>> connections;
  std::string received;
  accepted->act = [&](cAsyncSocket& socket, const std::string& event) {
    if (event == "OnReceive") received += socket.ReceiveText();
  };
  m_recorder->act = [&](cAsyncSocket& socket, const std::string& event) {
    ASSERT_EQ(event, "OnAccept");
    std::shared_ptr<cAsyncSocket> connection;
    ASSERT_TRUE(socket.Accept(connection, "127.0.0.1", connections.empty() ? 0 : 1));
    connection->SetEvents(accepted);
    connections.push_back(connection);
  };
  std::vector<Descriptor> peers;
  for (int i = 0; i < 3; ++i) {
    peers.emplace_back(PlainConnect(PortOf(listener->SocketHandle())));
    PlainSend(peers.back(), "hello");
  }
  ASSERT_TRUE(Wait([&] { return received.size() == 15; }));
  EXPECT_EQ(m_recorder->events.size(), 3U);
  EXPECT_EQ(accepted->Count("OnSend"), 3);
  std::shared_ptr<cAsyncSocket> none;
  EXPECT_FALSE(listener->Accept(none));
  EXPECT_TRUE(listener->HasPendingEvent());
  EXPECT_EQ(none, nullptr);
  std::string address;
  std::int32_t port = 0;
  ASSERT_TRUE(connections[1]->GetPeerName(address, port));
  EXPECT_EQ(port, PortOf(peers[1]));
}

TEST_F(AsyncSocket, AttachAndDetach) {
  ConnectPair();
  const auto other = NewSocket();
  const platform::SocketHandle handle = m_socket->Detach();
  EXPECT_EQ(m_socket->SocketHandle(), -1);
  EXPECT_EQ(m_socket->SlotIndex(), -1);
  PlainSend(m_peer, "for the new owner");
  Settle();
  EXPECT_TRUE(m_recorder->events.empty());
  ASSERT_TRUE(other->Attach(handle));
  ASSERT_TRUE(WaitFor("OnReceive"));
  EXPECT_EQ(other->ReceiveText(), "for the new owner");
  EXPECT_TRUE(m_socket->Create());  // free for another one
}

// --- Options ---------------------------------------------------------------------------------------------------------

TEST_F(AsyncSocket, OptionsAndCommands) {
  ConnectPair();
  EXPECT_EQ(m_socket->SockOpt(platform::kSoType), platform::kSockStream);
  EXPECT_EQ(ErrorOf(m_socket->SockOpt(0x7777) != 0), platform::kWsaNoProtocolOption);
  EXPECT_EQ(ErrorOf(m_socket->BlockingMode() >= 0), platform::kWsaInvalid);
  std::int32_t argument = 0;
  EXPECT_FALSE(m_socket->IOCtl(platform::kIoNonBlocking, argument));
  ASSERT_TRUE(m_socket->AsyncSelect(0));
  EXPECT_EQ(m_socket->BlockingMode(), 0);
  EXPECT_EQ(m_socket->Receive(m_room), -1);  // it did not become blocking
  EXPECT_TRUE(m_socket->HasPendingEvent());
  PlainSend(m_peer, "abc");
  ASSERT_TRUE(Wait([&] { return m_socket->AvailableBytes() == 3; }));
  Settle();
  EXPECT_TRUE(m_recorder->events.empty());
  ASSERT_TRUE(m_socket->IOCtl(platform::kIoBytesToRead, argument));
  EXPECT_EQ(argument, 3);
  ASSERT_TRUE(m_socket->AsyncSelect(kFdRead));
  ASSERT_TRUE(WaitFor("OnReceive"));
  EXPECT_EQ(m_recorder->events.size(), 1U);
  EXPECT_EQ(m_socket->Send(Bytes("123")), 3);
  EXPECT_EQ(m_socket->LastSendBytes(), 3);
}

TEST_F(AsyncSocket, PostedEventsComeThroughTheDispatcher) {
  ConnectPair();
  m_recorder->notify = true;
  EXPECT_TRUE(m_socket->PostEvent(sockets::kForcedRead, true));
  EXPECT_EQ(m_recorder->events, (Events{"Before 16384", "OnReceive", "After 16384"}));
  m_recorder->events.clear();
  EXPECT_TRUE(m_socket->PostEvent(platform::kFdAccept));
  EXPECT_TRUE(m_socket->PostEvent(platform::kFdClose | (10054 << 16)));
  EXPECT_TRUE(m_recorder->events.empty());
  m_loop.RunQueued();
  EXPECT_EQ(m_recorder->events, (Events{"Before 8", "OnAccept", "After 8", "OnError 10054 32"}));
}

TEST_F(AsyncSocket, LocalHost) {
  m_socket = NewSocket();
  std::string name;
  std::string address;
  std::vector<platform::AdapterAddress> adapters;
  std::array<char, 256> own{};
  gethostname(own.data(), own.size());
  if (m_socket->GetLocalHost(name, address, adapters)) {
    EXPECT_EQ(name, own.data());
    EXPECT_TRUE(platform::ParseHost(address));
    EXPECT_EQ(adapters, platform::AdapterAddresses());
  } else {
    EXPECT_EQ(m_socket->LastError(), platform::kWsaInvalid);  // a machine that does not know its own name
  }
}

}  // namespace
}  // namespace quenmark::test
