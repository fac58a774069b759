// The waiting calls.
#include "platform/winsock_errors.h"
#include "tests/sockets/socket_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/name_server.h"

#include <thread>

namespace quenmark::test {
namespace {

using platform::kFdConnect;
using platform::kFdRead;
using platform::kFdWrite;
using platform::kTimeoutResult;

class AsyncSocketSync : public SocketTest {
 protected:
  // Runs once, that many milliseconds from now.
  void Later(int delay, std::function<void()> work) {
    const std::size_t own = m_timers.size();
    m_timers.push_back(std::make_unique<platform::Timer>(m_loop, milliseconds{delay}, [this, own, work] {
      m_timers[own]->SetEnabled(false);
      work();
    }));
    m_timers.back()->SetEnabled(true);
  }

  std::vector<std::unique_ptr<platform::Timer>> m_timers;
};

TEST_F(AsyncSocketSync, ConnectKeepsTheEventForTheQueueAlsoARefusal) {
  m_listener = Descriptor(PlainListener());
  const Descriptor refusing(PlainSocket(SOCK_STREAM));
  for (const auto& [port, told] :
       {std::pair(PortOf(m_listener), "OnConnect"), std::pair(PortOf(refusing), "OnError 10061 16")}) {
    m_socket = NewSocket();
    ASSERT_TRUE(m_socket->SyncConnect("localhost", port, 5000));
    EXPECT_EQ(m_socket->LastError(), 0);
    m_recorder->events.clear();  // the name was resolved
    m_loop.RunQueued();
    EXPECT_FALSE(m_recorder->Saw(told));
    m_socket->SyncProcessMsgQueue();
    EXPECT_EQ(m_recorder->Count(told), 1);
    m_socket->SyncProcessMsgQueue();
    EXPECT_EQ(m_recorder->Count(told), 1);
  }
}

TEST_F(AsyncSocketSync, ASilentNameServerEndsWithTheTimeoutAndTheLoopLives) {
  NameServer server(m_loop);
  server.silent = true;
  m_services.nameServers = server.Address();
  int ticks = 0;
  int mainTicks = 0;
  platform::Timer timer(m_loop, milliseconds{5}, [&] { ++ticks; });
  platform::Timer mainTimer(
      m_loop, milliseconds{5}, [&] { ++mainTicks; }, platform::TimerKind::kMainTick);
  timer.SetEnabled(true);
  mainTimer.SetEnabled(true);
  m_socket = NewSocket();
  const auto start = m_clock.Monotonic();
  EXPECT_EQ(ErrorOf(m_socket->SyncConnect("slow.test", 80, 300)), kTimeoutResult);
  EXPECT_GE(m_clock.Monotonic() - start, milliseconds{300});
  EXPECT_GT(ticks, 3);
  EXPECT_EQ(mainTicks, 0);
  EXPECT_TRUE(m_socket->HasPendingResolve());
  EXPECT_FALSE(m_socket->SyncWaitForEvent(20, sockets::kResolved));
  EXPECT_TRUE(m_socket->Close_());
  EXPECT_FALSE(m_socket->HasPendingResolve());
  m_loop.Sleep(milliseconds{20});
  EXPECT_TRUE(m_recorder->events.empty());
}

TEST_F(AsyncSocketSync, AWaitForTheResolution) {
  NameServer server(m_loop);
  m_services.nameServers = server.Address();
  m_socket = NewSocket();
  EXPECT_TRUE(m_socket->SyncWaitForEvent(1000, sockets::kResolved));  // none is pending
  EXPECT_EQ(ErrorOf(m_socket->SyncWaitForEvent(1000, kFdConnect)), platform::kWsaNotSocket);
  ASSERT_TRUE(m_socket->Connect("nowhere.test.", 80));
  EXPECT_TRUE(m_socket->SyncWaitForEvent(5000, sockets::kResolved));
  EXPECT_EQ(m_recorder->events, Events{"OnError 11001 32768"});
}

TEST_F(AsyncSocketSync, OtherSocketsLookupsAreNotLostInAWait) {
  NameServer server(m_loop);
  server.names["a.test"] = {{127, 0, 0, 1}};
  m_services.nameServers = server.Address();
  ConnectPair();
  const auto other = NewSocket();
  const auto third = NewSocket();
  const auto thirdEvents = std::make_shared<Recorder>();
  third->SetEvents(thirdEvents);
  ASSERT_TRUE(third->Connect("nowhere.test.", 80));
  ASSERT_TRUE(other->Connect("a.test", PortOf(m_listener)));
  EXPECT_TRUE(third->HasPendingResolve() && other->HasPendingResolve());
  EXPECT_FALSE(m_socket->SyncWaitForEvent(100, kFdRead));
  EXPECT_TRUE(m_recorder->Saw("OnResolve 127.0.0.1"));
  EXPECT_TRUE(m_recorder->Saw("OnConnect"));
  EXPECT_EQ(thirdEvents->events, Events{"OnError 11001 32768"});
}

TEST_F(AsyncSocketSync, ReceivesWhatIsNeededInPieces) {
  ConnectPair();
  std::vector<std::uint8_t> data;
  PlainSend(m_peer, "abc");
  Later(5, [&] { PlainSend(m_peer, "def"); });
  Later(15, [&] { PlainSend(m_peer, "ghi"); });
  ASSERT_TRUE(m_socket->SyncReceiveArray(data, 8, 5000));
  EXPECT_EQ(cAsyncSocket::FromTextArray(data, 0), "abcdefgh");
  ASSERT_TRUE(m_socket->SyncReceiveArray(data, 0, 5000));
  EXPECT_EQ(cAsyncSocket::FromTextArray(data, 0), "i");
  PlainSend(m_peer, "xy");
  EXPECT_EQ(ErrorOf(m_socket->SyncReceiveArray(data, 3, 20)), kTimeoutResult);
  EXPECT_EQ(cAsyncSocket::FromTextArray(data, 0), "xy");
  ASSERT_TRUE(m_socket->SetSockOpt(platform::kSoReceiveTimeout, 30));
  EXPECT_EQ(ErrorOf(m_socket->SyncReceiveArray(data, 1)), kTimeoutResult);
  std::int32_t received = -1;
  EXPECT_FALSE(m_socket->SyncReceive(m_room, received, 10));
  EXPECT_EQ(received, 0);
  Later(5, [&] { PlainSend(m_peer, "12"); });
  EXPECT_TRUE(m_socket->SyncReceive(m_room, received, 5000));
  EXPECT_EQ(received, 2);
  EXPECT_TRUE(m_socket->SyncReceive({}, received, 5000));
  EXPECT_EQ(received, 0);
}

TEST_F(AsyncSocketSync, TextCutWithinACharacterComesOutWhole) {
  ConnectPair();
  const std::string text = "\u20acuro \U0001F600";
  for (std::size_t i = 0; i < text.size(); ++i) {
    Later(static_cast<int>(i) + 1, [this, &text, i] { PlainSend(m_peer, text.substr(i, 1)); });
  }
  EXPECT_EQ(m_socket->SyncReceiveText(7, 5000), text);  // UTF-16 units
  EXPECT_EQ(m_socket->LastError(), 0);
  PlainSend(m_peer, std::string("\xE9\x80", 2));
  EXPECT_EQ(m_socket->SyncReceiveText(3, 30, nullptr, nullptr, 1252), "\u00e9\u20ac");
  EXPECT_EQ(m_socket->LastError(), kTimeoutResult);
}

TEST_F(AsyncSocketSync, ThePeersCloseEndsAWaitForData) {
  ConnectPair();
  PlainSend(m_peer, "end");
  m_peer.Close();
  std::vector<std::uint8_t> data;
  EXPECT_EQ(ErrorOf(m_socket->SyncReceiveArray(data, 10, 5000)), platform::kWsaNotConnected);
  EXPECT_EQ(data.size(), 3U);
  // The close was seen in a wait and not told yet: the next wait need not run into its timeout.
  EXPECT_EQ(ErrorOf(m_socket->SyncReceiveArray(data, 10, 5000)), platform::kWsaNotConnected);
  m_socket->SyncProcessMsgQueue();
  EXPECT_EQ(m_recorder->Count("OnClose"), 1);
}

TEST_F(AsyncSocketSync, SendsEverythingOrSaysWhyNot) {
  ConnectPair();
  ASSERT_TRUE(m_socket->SetSockOpt(platform::kSoSendBuffer, 4096));
  const std::string data = Pattern(3 << 20);
  std::string received;
  std::thread reader([&] { received = PlainReceive(m_peer, data.size()); });
  EXPECT_TRUE(m_socket->SyncSend(Bytes(data), 10'000));
  reader.join();
  EXPECT_TRUE(received == data);
  EXPECT_EQ(ErrorOf(m_socket->SyncSend(Bytes(Pattern(16 << 20)), 30)), kTimeoutResult);  // nobody reads
  EXPECT_TRUE(m_socket->SyncSendArray({}, 30));
  EXPECT_EQ(m_socket->LastError(), 0);
}

TEST_F(AsyncSocketSync, EchoOfAnotherProgram) {
  ChildProcess echo("python3", {"-c",
                                "import socket\n"
                                "listener = socket.create_server(('127.0.0.1', 0))\n"
                                "print(listener.getsockname()[1], flush=True)\n"
                                "peer = listener.accept()[0]\n"
                                "for data in iter(lambda: peer.recv(4096), b''): peer.sendall(data)\n"});
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->SyncConnect("localhost", std::stoi(echo.ReadLine().value_or("0"))));
  std::vector<std::uint8_t> data;
  for (const std::size_t size : {1U, 1000U, 65'536U}) {
    const std::string sent = Pattern(size);
    ASSERT_TRUE(m_socket->SyncSendArray(Bytes(sent)));
    ASSERT_TRUE(m_socket->SyncReceiveArray(data, static_cast<std::int32_t>(size)));
    EXPECT_TRUE(std::equal(data.begin(), data.end(), Bytes(sent).begin()));
  }
  ASSERT_TRUE(m_socket->ShutDown());
  EXPECT_EQ(ErrorOf(m_socket->SyncReceiveArray(data, 1)), platform::kWsaNotConnected);
  EXPECT_EQ(echo.Wait(), 0);
}

TEST_F(AsyncSocketSync, CancelCloseAndDropEndAWait) {
  ConnectPair();
  Later(5, [&] { m_socket->SyncCancelWait(); });
  EXPECT_EQ(ErrorOf(m_socket->SyncWaitForEvent(0, kFdRead)), platform::kWsaInterrupted);
  const auto other = NewSocket();
  m_recorder->act = [&](cAsyncSocket&, const std::string& event) {
    if (event == "OnConnect") m_socket->SyncCancelWait();
  };
  ASSERT_TRUE(other->Connect("127.0.0.1", PortOf(m_listener)));
  EXPECT_EQ(ErrorOf(m_socket->SyncWaitForEvent(0, kFdRead)), platform::kWsaInterrupted);
  m_recorder->act = [](cAsyncSocket& socket, const std::string& event) {
    if (event == "OnMessagePending") socket.Close_();
  };
  m_loop.Post({m_loop.CreateHiddenWindow("any", [](const platform::Message&) {}), 2000, 0, 0});
  EXPECT_EQ(ErrorOf(m_socket->SyncWaitForEvent(0, kFdRead)), platform::kWsaInterrupted);
  EXPECT_EQ(m_socket->SocketHandle(), -1);
  m_recorder->act = nullptr;
  ConnectPair();
  std::weak_ptr<cAsyncSocket> weak = m_socket;
  Later(5, [&] { m_socket.reset(); });
  EXPECT_FALSE(m_socket->SyncWaitForEvent(0, kFdRead));
  EXPECT_TRUE(weak.expired());
}

TEST_F(AsyncSocketSync, AWaitThatAHandlerThrowsThroughLeavesNothingBehind) {
  ConnectPair();
  m_loop.Post({m_loop.CreateHiddenWindow("any", [](const platform::Message&) { throw 1; }), 2000, 0, 0});
  EXPECT_THROW(m_socket->SyncWaitForEvent(5000, kFdRead), int);
  PlainSend(m_peer, "x");
  EXPECT_TRUE(WaitFor("OnReceive"));
}

TEST_F(AsyncSocketSync, AHandledPendingMessageStaysQueued) {
  ConnectPair();
  int delivered = 0;
  m_loop.Post({m_loop.CreateHiddenWindow("any", [&](const platform::Message&) { ++delivered; }), 2000, 0, 0});
  m_recorder->pendingHandled = true;
  EXPECT_EQ(ErrorOf(m_socket->SyncWaitForEvent(20, kFdRead)), kTimeoutResult);
  EXPECT_EQ(delivered, 0);
  EXPECT_GT(m_recorder->pendingCalls, 0);
  EXPECT_LE(m_recorder->pendingCalls, 25);  // once a millisecond
  m_recorder->pendingHandled = false;
  EXPECT_FALSE(m_socket->SyncWaitForEvent(20, kFdRead));
  EXPECT_EQ(delivered, 1);
}

TEST_F(AsyncSocketSync, AWaitWithinAWaitDisturbsNeither) {
  ConnectPair();
  const auto outer = m_socket;
  const Descriptor outerPeer = std::move(m_peer);
  ConnectPair();
  const auto inner = m_socket;
  std::int32_t innerError = 0;
  Later(5, [&] {
    PlainSend(outerPeer, "for the outer");  // arrives while the inner waits
    EXPECT_FALSE(inner->SyncWaitForEvent(50, kFdRead));
    innerError = inner->LastError();
  });
  EXPECT_TRUE(outer->SyncWaitForEvent(5000, kFdRead));
  EXPECT_EQ(innerError, kTimeoutResult);
  EXPECT_EQ(outer->ReceiveText(), "for the outer");
  EXPECT_FALSE(m_recorder->Saw("OnReceive"));
  outer->SyncProcessMsgQueue();  // its data is gone: no OnReceive
  EXPECT_FALSE(m_recorder->Saw("OnReceive"));

  // The outer timeout still ends the outer wait.
  Later(5, [&] { EXPECT_FALSE(inner->SyncWaitForEvent(10, kFdRead)); });
  const auto start = m_clock.Monotonic();
  EXPECT_FALSE(outer->SyncWaitForEvent(60, kFdRead));
  EXPECT_EQ(outer->LastError(), kTimeoutResult);
  EXPECT_GE(m_clock.Monotonic() - start, milliseconds{60});

  // On one socket: what the inner wait takes counts for the outer one; a cancelled inner one leaves the outer alone.
  Later(5, [&] {
    PlainSend(outerPeer, "x");
    Later(20, [&] { outer->SyncCancelWait(); });
    EXPECT_FALSE(outer->SyncWaitForEvent(5000, kFdWrite));
    EXPECT_EQ(outer->LastError(), platform::kWsaInterrupted);
  });
  EXPECT_TRUE(outer->SyncWaitForEvent(5000, kFdRead));
}

TEST_F(AsyncSocketSync, KeptNotificationsDoNotPileUp) {
  ConnectPair();
  std::vector<std::uint8_t> data;
  for (int i = 0; i < 100; ++i) {
    Later(1, [&] { PlainSend(m_peer, "x"); });
    ASSERT_TRUE(m_socket->SyncReceiveArray(data, 1, 5000));
  }
  PlainSend(m_peer, "y");
  m_socket->SyncWaitForEvent(5000, kFdRead);
  for (int i = 0; i < 3; ++i) m_socket->PostEvent(kFdRead | (10061 << 16));
  EXPECT_FALSE(m_socket->SyncWaitForEvent(10, kFdWrite));
  m_socket->SyncProcessMsgQueue();
  EXPECT_EQ(m_recorder->events, (Events{"OnReceive", "OnError 10061 1"}));
}

TEST_F(AsyncSocketSync, WhatAWaitHasKeptIsToldAlsoWhenAHandlerThrowsThroughIt) {
  ConnectPair();
  PlainSend(m_peer, "x");
  const auto window = m_loop.CreateHiddenWindow("any", [](const platform::Message&) { throw 1; });
  Later(20, [&] { m_loop.Post({window, 2000, 0, 0}); });
  EXPECT_THROW(m_socket->SyncWaitForEvent(5000, kFdWrite), int);  // READ is kept meanwhile
  EXPECT_TRUE(m_recorder->events.empty());
  EXPECT_TRUE(Wait([&] { return m_recorder->Saw("OnReceive"); }));
}

TEST_F(AsyncSocketSync, WhatIsPutBackComesBeforeWhatHasComeSince) {
  StartPair();
  PlainSend(m_peer, "x");
  // In front of all notifications, so that it throws when one of them has been taken.
  m_loop.Post({m_loop.CreateHiddenWindow("any", [](const platform::Message&) { throw 1; }), 2000, 0, 0});
  EXPECT_THROW(m_socket->SyncWaitForEvent(5000, platform::kFdOutOfBand), int);
  ASSERT_TRUE(WaitFor("OnReceive"));
  Settle();
  EXPECT_EQ(m_recorder->events, (Events{"OnConnect", "OnSend", "OnReceive"}));
}

}  // namespace
}  // namespace quenmark::test
