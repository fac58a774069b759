// Closing and dropping inside handlers, slots and handles in use again, descriptors, allocations.
#include "platform/winsock_errors.h"
#include "tests/sockets/allocation_count.h"
#include "tests/sockets/socket_fixture.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <tuple>

namespace quenmark::test {
namespace {

using sockets::NotificationHelper;
using sockets::NotifyRecord;

// --- Handlers that end their socket ----------------------------------------------------------------------------------

enum class Ending { kClose, kDrop, kReopen };

void PrintTo(Ending ending, std::ostream* out) {
  *out << (ending == Ending::kClose ? "close" : ending == Ending::kDrop ? "drop" : "reopen");
}

class EndsInHandler : public SocketTest, public testing::WithParamInterface<std::tuple<std::string, Ending>> {
 protected:
  // Makes every event happen to a socket that does not end earlier.
  void Play(const bool& ended) {
    m_listener = Descriptor(PlainListener());
    m_socket = NewSocket();
    ASSERT_TRUE(m_socket->Create(0, platform::kSockStream, platform::kFdAll, "127.0.0.1"));
    ASSERT_TRUE(m_socket->Connect("localhost", PortOf(m_listener)));
    pollfd connection{m_listener, POLLIN, 0};
    ASSERT_TRUE(Wait([&] { return ended || poll(&connection, 1, 0) == 1; }));
    if (ended) return;
    m_peer = Descriptor(PlainAccept(m_listener));
    PlainSend(m_peer, "data");
    m_peer.Close();
  }
};

TEST_P(EndsInHandler, NothingFollowsAndNothingLeaks) {
  const auto& [event, ending] = GetParam();
  const std::size_t before = OpenDescriptors();
  std::weak_ptr<cAsyncSocket> weak;
  bool ended = false;
  m_recorder->notify = true;
  m_recorder->act = [&, wanted = event, how = ending](cAsyncSocket& socket, const std::string& seen) {
    if (seen == "OnReceive") socket.ReceiveText();
    EXPECT_FALSE(ended) << seen;
    if (seen != wanted) return;
    ended = true;
    if (how == Ending::kDrop) {
      weak = m_socket;
      m_socket.reset();
      EXPECT_FALSE(weak.expired());  // it lives until the handler returns
      EXPECT_GE(socket.SocketHandle(), 0);
      return;
    }
    EXPECT_TRUE(socket.Close_());
    EXPECT_TRUE(how == Ending::kClose || socket.Create(0, platform::kSockStream, 0));
  };
  Play(ended);
  EXPECT_TRUE(Wait([&] { return ended; }));
  Settle();
  EXPECT_TRUE(weak.expired());
  m_recorder->act = nullptr;
  m_socket.reset();
  m_listener.Close();
  EXPECT_EQ(OpenDescriptors(), before);
}

INSTANTIATE_TEST_SUITE_P(, EndsInHandler,
                         testing::Combine(testing::Values("OnResolve 127.0.0.1", "Before 16", "OnConnect", "After 16",
                                                          "OnSend", "Before 1", "OnReceive", "After 1", "Before 32",
                                                          "OnClose", "After 32"),
                                          testing::Values(Ending::kClose, Ending::kDrop, Ending::kReopen)));

class SocketLifetime : public SocketTest {};

TEST_F(SocketLifetime, ClosingInOnErrorAndOnAccept) {
  m_recorder->act = [&](cAsyncSocket& socket, const std::string&) { socket.Close_(); };
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", PortOf(Descriptor(PlainSocket(SOCK_STREAM)))));
  ASSERT_TRUE(WaitFor("OnError 10061 16"));
  EXPECT_EQ(m_socket->SocketHandle(), -1);

  const int port = Listen(*m_socket);
  const Descriptor first(PlainConnect(port));
  const Descriptor second(PlainConnect(port));
  ASSERT_TRUE(WaitFor("OnAccept"));
  Settle();
  EXPECT_EQ(m_recorder->events.size(), 2U);
}

TEST_F(SocketLifetime, ClosedReopenedOrDroppedWhileCreateLooksItsAddressUp) {
  for (const Ending ending : {Ending::kClose, Ending::kReopen, Ending::kDrop}) {
    const std::size_t before = OpenDescriptors();
    m_socket = NewSocket();
    cAsyncSocket* const socket = m_socket.get();
    platform::SocketHandle reopened = -1;
    const platform::WindowId window = m_loop.CreateHiddenWindow("any", [&](const platform::Message&) {
      if (ending == Ending::kDrop) return m_socket.reset();
      EXPECT_TRUE(m_socket->Close_());
      if (ending == Ending::kReopen && m_socket->Create()) reopened = m_socket->SocketHandle();
    });
    ASSERT_TRUE(m_loop.Post({window, 2000, 0, 0}));
    EXPECT_FALSE(socket->Create(1, platform::kSockStream, platform::kFdAll, "no such host."));
    if (m_socket != nullptr) {
      EXPECT_EQ(m_socket->LastError(), platform::kWsaInterrupted);
      EXPECT_EQ(m_socket->SocketHandle(), reopened);
    }
    EXPECT_EQ(reopened != -1, ending == Ending::kReopen);
    m_socket.reset();
    EXPECT_EQ(OpenDescriptors(), before);
  }
}

TEST_F(SocketLifetime, AnOwnerThatIsDroppedLivesUntilItsHandlerReturns) {
  ConnectPair();
  std::weak_ptr<Recorder> weak = m_recorder;
  m_recorder->act = [&](cAsyncSocket&, const std::string&) {
    m_recorder.reset();
    EXPECT_FALSE(weak.expired());
  };
  PlainSend(m_peer, "x");
  ASSERT_TRUE(Wait([&] { return weak.expired(); }));
  PlainSend(m_peer, "y");
  EXPECT_GT(m_socket->AvailableBytes(), 0);
  Settle();
}

// --- Slots -----------------------------------------------------------------------------------------------------------

TEST_F(SocketLifetime, OneHelperForAllSocketsOfTheLoopAndOnlyAsLongAsThey) {
  auto first = NewSocket();
  const platform::WindowId window = m_loop.FindHiddenWindow(NotificationHelper::WindowName());
  ASSERT_NE(window, 0U);
  EXPECT_NE(NotificationHelper::WindowName().find(":AsyncSocket Helper Window"), std::string::npos);
  auto second = NewSocket();
  EXPECT_EQ(NotificationHelper::Of(m_loop, {})->Window(), window);
  platform::MessageLoop otherLoop(m_clock);
  EXPECT_NE(NotificationHelper::Of(otherLoop, {}), NotificationHelper::Of(m_loop, {}));
  std::weak_ptr<NotificationHelper> helper = NotificationHelper::Of(m_loop, {});
  m_recorder.reset();
  second.reset();
  EXPECT_FALSE(helper.expired());
  first.reset();
  EXPECT_TRUE(helper.expired());
  EXPECT_EQ(m_loop.FindHiddenWindow(NotificationHelper::WindowName()), 0U);
}

TEST_F(SocketLifetime, TheTableDoublesUntilTheLastMessageNumberAndTakesItsSlotsInTurn) {
  const auto helper = NotificationHelper::Of(m_loop, {});
  const auto filler = NewSocket();
  for (std::int32_t i = 0; i < 512; ++i) ASSERT_EQ(helper->Register(filler), i);
  EXPECT_EQ(helper->TableSize(), 512);
  m_listener = Descriptor(PlainListener());
  m_socket = NewSocket();
  ASSERT_TRUE(m_socket->Connect("127.0.0.1", PortOf(m_listener)));
  EXPECT_EQ(m_socket->SlotIndex(), 512);
  EXPECT_EQ(helper->TableSize(), 1024);
  EXPECT_EQ(helper->RegisteredCount(), 513);
  platform::Message message;
  ASSERT_TRUE(Wait([&] { return m_loop.Peek(message, {helper->Window(), 1538, 1538}, false); }));
  ASSERT_TRUE(WaitFor("OnConnect"));
  // The search goes on behind the slot taken last, and wraps round.
  helper->Unregister(100);
  EXPECT_EQ(helper->RegisteredCount(), 512);
  for (std::int32_t i = 513; i < 1024; ++i) ASSERT_EQ(helper->Register(filler), i);
  EXPECT_EQ(helper->Register(filler), 100);
  EXPECT_EQ(helper->TableSize(), 1024);
  for (std::int32_t i = 1024; i < sockets::kLargestTableSize; ++i) ASSERT_EQ(helper->Register(filler), i);
  EXPECT_EQ(helper->TableSize(), sockets::kLargestTableSize);
  m_socket = NewSocket();  // frees slot 512
  ASSERT_TRUE(m_socket->Create());
  EXPECT_EQ(m_socket->SlotIndex(), 512);
  const auto last = NewSocket();
  EXPECT_FALSE(last->Create());
  EXPECT_EQ(last->LastError(), 10024);
  helper->Unregister(sockets::kLargestTableSize - 1);
  EXPECT_TRUE(last->Create());
  EXPECT_EQ(last->SlotIndex() + static_cast<std::int32_t>(sockets::kMessageFirstSocket), 0xBFFF);
}

TEST_F(SocketLifetime, StaleAndStrangeNotificationsAreIgnored) {
  ConnectPair();
  const auto helper = NotificationHelper::Of(m_loop, {});
  const auto slot = static_cast<std::uint32_t>(m_socket->SlotIndex());
  const std::int32_t handle = m_socket->SocketHandle();
  const std::uint32_t own = 1026 + slot;
  const std::array<NotifyRecord, 8> table = {{{own, handle, 2},      // read after the wrap
                                              {own, handle, 8},      // the end, not read
                                              {own, handle + 1, 2},  // another handle
                                              {own, -1, 0},          // the end of a wait
                                              {own + 1, handle, 2},  // an empty slot
                                              {70'000, handle, 2},   // no such slot
                                              {1025, 12'345, 0},     // no such lookup
                                              {0, handle, 2}}};
  EXPECT_EQ(helper->NotifyProc(table, 2, 1), 0);
  EXPECT_EQ(m_recorder->events, Events{"OnSend"});
}

TEST_F(SocketLifetime, ASuccessorOfSlotAndHandleSeesNothingOfItsPredecessor) {
  ConnectPair();
  const std::int32_t handle = m_socket->SocketHandle();
  PlainSend(m_peer, "for the first");
  const auto helper = NotificationHelper::Of(m_loop, {});
  platform::Message message;
  ASSERT_TRUE(Wait([&] {
    return m_loop.Peek(message, {helper->Window(), 1026, 0xBFFF}, false) || m_recorder->Saw("OnReceive");
  }));
  m_socket->PostEvent(platform::kFdClose);
  m_socket->Close_();
  m_recorder->events.clear();
  std::vector<std::shared_ptr<cAsyncSocket>> sockets;
  for (int i = 0; i < 512; ++i) {  // comes round to the same slot
    sockets.assign(1, NewSocket());
    ASSERT_TRUE(sockets[0]->Create());
    EXPECT_EQ(sockets[0]->SocketHandle(), handle);
  }
  Settle();
  EXPECT_TRUE(m_recorder->events.empty());
}

TEST_F(SocketLifetime, TenThousandCyclesLeaveNoDescriptor) {
  m_listener = Descriptor(PlainListener(128));
  const auto keeper = NewSocket();
  const std::size_t before = OpenDescriptors();
  for (int i = 0; i < 10'000; ++i) {
    m_socket = NewSocket();
    ASSERT_TRUE(m_socket->Create(0, i % 2 == 0 ? platform::kSockStream : platform::kSockDatagram));
    if (i % 20 == 0) {
      ASSERT_TRUE(m_socket->Connect("127.0.0.1", PortOf(m_listener)));
      const Descriptor peer(PlainAccept(m_listener));
      if (i % 60 == 0) m_loop.RunQueued();
    } else if (i % 22 == 0) {
      ASSERT_TRUE(m_socket->Connect("localhost", 9));
    }
    if (i % 3 == 0) m_socket->Close_();
    m_socket.reset();
  }
  m_listener.Close();
  EXPECT_EQ(OpenDescriptors(), before - 1);
  EXPECT_EQ(NotificationHelper::Of(m_loop, {})->RegisteredCount(), 0);
}

// --- Allocations -----------------------------------------------------------------------------------------------------

TEST_F(SocketLifetime, ANotificationAllocatesNothing) {
  ConnectPair();
  std::size_t received = 0;
  struct Counter : sockets::AsyncSocketEvents {
    explicit Counter(std::size_t& total) : m_total(total) {}
    void OnReceive(cAsyncSocket& socket) override {
      std::array<std::uint8_t, 16> room;
      const std::int32_t count = socket.Receive(room);
      if (count > 0) m_total += static_cast<std::size_t>(count);
      socket.Send(std::span(room).first(1));
    }
    std::size_t& m_total;
  };
  const auto counter = std::make_shared<Counter>(received);
  m_socket->SetEvents(counter);
  const std::function<bool()> arrived = [&] { return received % 64 == 0 && received > 0; };
  std::array<char, 64> data{};
  std::size_t before = 0;
  for (int i = 0; i < 100; ++i) {
    if (i == 10) before = AllocationCount();  // the queues have their size by then
    received = 0;
    send(m_peer, data.data(), data.size(), 0);
    m_loop.WaitUntil(arrived, m_clock.Monotonic() + std::chrono::seconds{20});
  }
  EXPECT_EQ(AllocationCount() - before, 0U);
  EXPECT_EQ(received, 64U);
}

}  // namespace
}  // namespace quenmark::test
