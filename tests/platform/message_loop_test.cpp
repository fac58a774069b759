#include "platform/message_loop.h"

#include "tests/support/manual_clock.h"
#include "tests/support/plain_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace quenmark::platform {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

struct SocketPair {
  SocketPair() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) != 0) throw std::bad_alloc();
    own = test::Descriptor(ends[0]);
    peer = test::Descriptor(ends[1]);
  }
  void PeerWrites(std::string_view text) const { test::PlainSend(peer, text); }

  test::Descriptor own;
  test::Descriptor peer;
};

class MessageLoopTest : public ::testing::Test {
 protected:
  // A window that notes the numbers of its messages, timers as the negative of their identifier.
  WindowId NotingWindow(const char* name = "noting") {
    return loop.CreateHiddenWindow(name, [this](const Message& message) { Note(message); });
  }
  void Note(const Message& message) {
    noted.push_back(message.number == kMessageTimer ? -int(message.wParam) : int(message.number));
  }
  // A timer that runs.
  std::unique_ptr<Timer> Ticking(std::chrono::milliseconds interval, std::function<void()> tick,
                                 TimerKind kind = TimerKind::kMainTick) {
    auto timer = std::make_unique<Timer>(loop, interval, std::move(tick), kind);
    timer->SetEnabled(true);
    return timer;
  }
  MonotonicTime In(std::chrono::milliseconds time) { return clock.Monotonic() + time; }
  std::chrono::milliseconds Elapsed() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock.Monotonic() - start);
  }

  test::ManualClock clock;
  const MonotonicTime start = clock.Monotonic();
  MessageLoop loop{clock};
  std::vector<int> noted;
  const SocketPair pair;
  Message peeked;
};

TEST_F(MessageLoopTest, PostedMessagesRunInOrderAcrossTheGrowthOfTheQueue) {
  const WindowId window = NotingWindow();
  std::vector<int> expected;
  for (int round = 0; round < 3; ++round) {
    for (int i = 1; i <= 150; ++i) {
      ASSERT_TRUE(loop.Post({window, std::uint32_t(i), 0, 0}));
      expected.push_back(i);
    }
    loop.RunQueued();
  }
  EXPECT_EQ(noted, expected);
}

TEST_F(MessageLoopTest, WindowsAreFoundByNameAndTakeNothingOnceGone) {
  EXPECT_EQ(loop.FindHiddenWindow("a"), 0u);
  const WindowId window = NotingWindow("a");
  NotingWindow("a");
  EXPECT_EQ(loop.FindHiddenWindow("a"), window);
  EXPECT_TRUE(loop.Post({window, 1, 0, 0}));
  loop.DestroyWindow(window);
  EXPECT_FALSE(loop.Post({window, 2, 0, 0}));
  loop.Dispatch({window, 3, 0, 0});
  loop.RunQueued();
  EXPECT_THAT(noted, IsEmpty());
}

TEST_F(MessageLoopTest, PeekAndRemoveTakeWhatIsNamedAndLeaveTheRest) {
  const WindowId first = NotingWindow("first");
  const WindowId second = NotingWindow("second");
  for (std::uint32_t number = 1; number <= 4; ++number) {
    loop.Post({first, number, number * 10, 0});
    loop.Post({second, number + 100, 0, -1});
  }
  EXPECT_FALSE(loop.Peek(peeked, {first, 100, 200}, true));
  ASSERT_TRUE(loop.Peek(peeked, {0, 102, 103}, false));
  EXPECT_EQ(peeked.number, 102u);
  ASSERT_TRUE(loop.Peek(peeked, {second, 102, 103}, true));
  EXPECT_EQ(peeked.number, 102u);
  EXPECT_EQ(peeked.lParam, -1);
  ASSERT_TRUE(loop.Peek(peeked, {first, 2, 2}, true));
  EXPECT_EQ(peeked.wParam, 20u);
  loop.RemoveMessages(second, [](const Message& removed) { return removed.number % 2 == 0; });
  loop.RunQueued();
  EXPECT_THAT(noted, ElementsAre(1, 101, 3, 103, 4));
}

TEST_F(MessageLoopTest, TimersComeAfterPostedMessagesEarliestFirstAndOnceForAllTheyMissed) {
  const WindowId window = NotingWindow();
  loop.SetTimer(window, 1, 20ms);
  loop.SetTimer(window, 2, 10ms);
  loop.SetTimer(window, 3, 30ms);
  clock.Advance(25ms);
  loop.Post({window, 7, 0, 0});
  ASSERT_TRUE(loop.Peek(peeked, {window, kMessageTimer, kMessageTimer}, false));
  EXPECT_EQ(peeked.wParam, 2u);
  loop.RunQueued();
  EXPECT_THAT(noted, ElementsAre(7, -2, -1));
  clock.Advance(4ms);
  loop.RunQueued();
  EXPECT_EQ(noted.size(), 3u);
  clock.Advance(1ms);  // the beat goes on
  loop.RunQueued();
  EXPECT_THAT(noted, UnorderedElementsAre(7, -2, -1, -2, -3));
}

TEST_F(MessageLoopTest, OverdueTimersComeThoughMessagesNeverEnd) {
  const WindowId window = loop.CreateHiddenWindow("busy", [&](const Message& message) {
    if (message.number == kMessageTimer) {
      noted.push_back(int(Elapsed().count()));
      if (noted.size() == 2) loop.Quit();
      return;
    }
    if (Elapsed() > 10s) loop.Quit();
    clock.Advance(1ms);
    loop.Post(message);
  });
  loop.SetTimer(window, 1, 1000ms);
  loop.Post({window, 1, 0, 0});
  loop.Run();
  // Not when they are due, and not much later than their patience lasts.
  ASSERT_EQ(noted.size(), 2U);
  for (int beat = 0; beat < 2; ++beat) {
    EXPECT_THAT(noted[std::size_t(beat)] - 1000 * (beat + 1), ::testing::AllOf(::testing::Ge(250), ::testing::Lt(350)));
  }
}

TEST_F(MessageLoopTest, KilledAndRestartedTimers) {
  const WindowId window = NotingWindow();
  loop.SetTimer(window, 1, 10ms);
  loop.SetTimer(window, 2, 10ms);
  clock.Advance(15ms);
  loop.KillTimer(window, 1);          // due, not delivered
  loop.SetTimer(window, 2, 10ms);     // due, starts anew
  loop.SetTimer(window, 3, 0ms);      // counts as 1 ms
  loop.SetTimer(window + 9, 1, 1ms);  // no such window
  loop.RunQueued();
  EXPECT_THAT(noted, IsEmpty());
  loop.Sleep(10ms + 1ms);
  EXPECT_EQ(std::count(noted.begin(), noted.end(), -1), 0);
  EXPECT_EQ(std::count(noted.begin(), noted.end(), -2), 1);
  EXPECT_EQ(std::count(noted.begin(), noted.end(), -3), 10);
}

TEST_F(MessageLoopTest, AHandlerMayDestroyItsWindowWithMessagesAndTimersPending) {
  const auto big = std::make_shared<std::string>("kept");
  const WindowId window = loop.CreateHiddenWindow("self", [this, big](const Message& message) {
    loop.DestroyWindow(message.window);
    Note(message);
    EXPECT_EQ(*big, "kept");
  });
  loop.SetTimer(window, 5, 1ms);
  loop.Post({window, 1, 0, 0});
  loop.Post({window, 2, 0, 0});
  loop.Sleep(5ms);
  EXPECT_THAT(noted, ElementsAre(1));
  EXPECT_EQ(loop.FindHiddenWindow("self"), 0u);
  EXPECT_EQ(big.use_count(), 1);
}

TEST_F(MessageLoopTest, RunQueuedEndsThoughAHandlerPostsToItselfAndATimerComesDueAgain) {
  int runs = 0;
  const WindowId window = loop.CreateHiddenWindow("self", [&](const Message& message) {
    ++runs;
    loop.Post(message);
  });
  loop.Post({window, 1, 0, 0});
  loop.RunQueued();
  EXPECT_GT(runs, 1);
  loop.DestroyWindow(window);
  const WindowId slow = loop.CreateHiddenWindow("slow", [this](const Message& message) {
    Note(message);
    clock.Advance(3ms);
  });
  loop.SetTimer(slow, 1, 1ms);
  clock.Advance(1ms);
  loop.RunQueued();
  EXPECT_THAT(noted, ElementsAre(-1));
}

TEST_F(MessageLoopTest, DescriptorsAreLookedAtDuringALongRunOfMessages) {
  bool ready = false;
  const WindowId window = loop.CreateHiddenWindow("self", [&](const Message& message) { loop.Post(message); });
  loop.Watch(pair.own, {.read = true}, Trigger::kEdge, [&](Readiness) { ready = true; });
  loop.Post({window, 1, 0, 0});
  pair.PeerWrites("x");
  for (int i = 0; i < 100; ++i) {  // always finds a message, yet must not go blind
    ASSERT_TRUE(loop.Peek(peeked, {}, true));
    loop.Dispatch(peeked);
  }
  EXPECT_TRUE(ready);
}

TEST_F(MessageLoopTest, PeekSeesReadinessThatHasJustArrived) {
  const WindowId window = NotingWindow();
  loop.Watch(pair.own, {.read = true}, Trigger::kEdge, [&](Readiness ready) {
    loop.Post({window, ready.read ? 50u : 51u, 0, 0});
  });
  EXPECT_FALSE(loop.Peek(peeked, {}, false));
  pair.PeerWrites("x");
  EXPECT_TRUE(loop.Peek(peeked, {window, 50, 50}, true));
  EXPECT_FALSE(loop.Peek(peeked, {}, false));  // the edge has been told
  pair.PeerWrites("y");
  EXPECT_TRUE(loop.Peek(peeked, {window, 50, 50}, true));
}

TEST_F(MessageLoopTest, LevelTriggeredReadinessIsToldUntilItIsGoneAndCanBeSwitched) {
  int reads = 0;
  int writes = 0;
  const WatchId watch = loop.Watch(pair.own, {.read = true}, Trigger::kLevel, [&](Readiness ready) {
    reads += ready.read;
    writes += ready.write;
  });
  ASSERT_NE(watch, 0u);
  EXPECT_EQ(loop.Watch(-1, {.read = true}, Trigger::kLevel, [](Readiness) {}), 0u);
  pair.PeerWrites("x");
  for (int i = 0; i < 3; ++i) loop.Peek(peeked, {}, false);
  EXPECT_EQ(reads, 3);
  loop.ChangeWatch(watch, {.write = true});
  loop.Peek(peeked, {}, false);
  EXPECT_EQ(reads, 3);
  EXPECT_EQ(writes, 1);
  loop.Unwatch(watch);
  loop.Unwatch(watch);
  loop.Peek(peeked, {}, false);
  EXPECT_EQ(writes, 1);
}

TEST_F(MessageLoopTest, AReadyHandlerMayUnwatchItselfAndOthers) {
  const SocketPair other;
  std::array<WatchId, 2> watches{};
  int runs = 0;
  const auto handler = [&](Readiness) {
    ++runs;
    for (const WatchId watch : watches) loop.Unwatch(watch);
  };
  watches[0] = loop.Watch(pair.own, {.read = true}, Trigger::kLevel, handler);
  watches[1] = loop.Watch(other.own, {.read = true}, Trigger::kLevel, handler);
  pair.PeerWrites("x");
  other.PeerWrites("x");
  loop.RunQueued();
  EXPECT_EQ(runs, 1);
}

TEST_F(MessageLoopTest, UnwatchAfterTheDescriptorWasReusedLeavesTheNewWatchAlone) {
  std::optional<SocketPair> first(std::in_place);
  const WatchId old = loop.Watch(first->own, {.read = true}, Trigger::kLevel, [](Readiness) {});
  const int number = first->own;
  first.reset();
  const SocketPair second;
  ASSERT_EQ(second.own, number);
  bool ready = false;
  ASSERT_NE(loop.Watch(second.own, {.read = true}, Trigger::kEdge, [&](Readiness) { ready = true; }), 0u);
  loop.Unwatch(old);
  second.PeerWrites("x");
  loop.RunQueued();
  EXPECT_TRUE(ready);
}

TEST_F(MessageLoopTest, CallsRunOnceAtTheirTimeInOrderAndCanBeReplacedAndCancelled) {
  const auto note = [this](int number) { return [this, number] { noted.push_back(number); }; };
  const WatchId first = loop.CallAt(0, In(30ms), note(1));
  EXPECT_EQ(loop.CallAt(first, In(5ms), note(2)), first);
  const WatchId cancelled = loop.CallAt(0, In(1ms), note(3));
  loop.CancelCall(cancelled);
  loop.CallAt(0, In(10ms), note(4));
  loop.Sleep(50ms);
  EXPECT_THAT(noted, ElementsAre(2, 4));
  const WatchId again = loop.CallAt(first, In(1ms), note(5));  // has run: a new one
  EXPECT_NE(again, first);
  loop.CancelCall(first);
  loop.Sleep(5ms);
  EXPECT_THAT(noted, ElementsAre(2, 4, 5));
}

TEST_F(MessageLoopTest, WaitUntilEndsWhenDoneOrAtTheDeadlineToTheMillisecond) {
  const WindowId window = NotingWindow();
  loop.SetTimer(window, 1, 10ms);
  EXPECT_TRUE(loop.WaitUntil([this] { return noted.size() == 3; }, In(1000ms)));
  EXPECT_EQ(Elapsed(), 30ms);
  EXPECT_FALSE(loop.WaitUntil([] { return false; }, In(25ms)));
  EXPECT_EQ(Elapsed(), 55ms);
  EXPECT_EQ(noted.size(), 5u);
  bool done = false;
  loop.Watch(pair.own, {.read = true}, Trigger::kEdge, [&](Readiness) { done = true; });
  pair.PeerWrites("x");
  EXPECT_TRUE(loop.WaitUntil([&] { return done; }, In(1ms)));
  EXPECT_EQ(Elapsed(), 55ms);
}

TEST_F(MessageLoopTest, WaitsNestToAnyDepth) {
  int depth = 0;
  int deepest = 0;
  const WindowId window = loop.CreateHiddenWindow("nested", [&](const Message& message) {
    deepest = std::max(deepest, ++depth);
    if (message.wParam > 0) {
      loop.Post({message.window, 1, message.wParam - 1, 0});
      loop.Sleep(1ms);
    }
    --depth;
  });
  loop.Post({window, 1, 100, 0});
  loop.Sleep(1ms);
  EXPECT_EQ(deepest, 101);
  EXPECT_EQ(Elapsed(), 1ms);  // all of them waited for the same millisecond
}

// A tick that sleeps longer than its interval: it runs again only when it has ended, once, while other timers go on.
TEST_F(MessageLoopTest, AMainTickDoesNotNest) {
  int depth = 0;
  std::vector<long> begins;
  int others = 0;
  const auto tick = Ticking(100ms, [&] {
    EXPECT_EQ(++depth, 1);
    begins.push_back(Elapsed().count());
    loop.Sleep(250ms);
    --depth;
  });
  const auto other = Ticking(
      50ms, [&] { ++others; }, TimerKind::kOrdinary);
  loop.WaitUntil([&] { return begins.size() == 3; }, MonotonicTime::max());
  EXPECT_THAT(begins, ElementsAre(100, 350, 600));
  EXPECT_GE(others, 14);
}

TEST_F(MessageLoopTest, AMainTickThatThrowsTicksOn) {
  const auto tick = Ticking(10ms, [this] {
    noted.push_back(1);
    if (noted.size() == 1) throw std::runtime_error("out");
  });
  EXPECT_THROW(loop.Sleep(100ms), std::runtime_error);
  loop.Sleep(25ms);
  EXPECT_EQ(noted.size(), 3u);
}

TEST_F(MessageLoopTest, AMainTickThatCameDueDuringAPauseRunsOnceAfterwards) {
  const auto tick = Ticking(10ms, [this] { noted.push_back(1); });
  {
    const MessageLoop::MainTickPause pause(loop);
    loop.Sleep(35ms);
    EXPECT_EQ(Elapsed(), 35ms);
    EXPECT_THAT(noted, IsEmpty());
  }
  loop.RunQueued();
  EXPECT_THAT(noted, ElementsAre(1));
}

TEST_F(MessageLoopTest, DispatchOneDuringWaitTakesAnythingButTheMainTick) {
  const auto tick = Ticking(10ms, [this] { noted.push_back(1); });
  const auto other = Ticking(
      10ms, [this] { noted.push_back(2); }, TimerKind::kOrdinary);
  loop.Post({NotingWindow(), 3, 0, 0});
  loop.WaitForWork(10ms);  // returns at once, as something is queued, and dispatches nothing
  EXPECT_EQ(Elapsed(), 0ms);
  loop.WaitForReadiness(4ms);  // does not
  EXPECT_EQ(Elapsed(), 4ms);
  EXPECT_THAT(noted, IsEmpty());
  clock.Advance(6ms);
  EXPECT_TRUE(loop.DispatchOneDuringWait());
  EXPECT_TRUE(loop.DispatchOneDuringWait());
  EXPECT_FALSE(loop.DispatchOneDuringWait());
  EXPECT_THAT(noted, ElementsAre(3, 2));
  loop.WaitForWork(3ms);  // the due main tick is no work for such a wait
  EXPECT_EQ(Elapsed(), 13ms);
  loop.WaitForWork(10ms);  // the other timer is
  EXPECT_EQ(Elapsed(), 20ms);
  loop.RunQueued();
  EXPECT_THAT(noted, UnorderedElementsAre(3, 2, 1, 2));
}

TEST_F(MessageLoopTest, AQuitGivenBeforeEndsOneRun) {
  const WindowId window = loop.CreateHiddenWindow("quit", [this](const Message&) { loop.Quit(); });
  loop.Quit();
  loop.Run();
  loop.Post({window, 1, 0, 0});
  loop.Run();
  EXPECT_FALSE(loop.Peek(peeked, {}, false));
}

TEST_F(MessageLoopTest, TheHookRunsAfterEachMessageAndBeforeASleep) {
  const WindowId window = NotingWindow();
  std::vector<bool> calls;
  loop.SetTurnHook([&](bool aboutToWait) {
    calls.push_back(aboutToWait);
    loop.RunQueued();  // must not call the hook again from within
  });
  loop.Post({window, 1, 0, 0});
  loop.Sleep(1ms);
  EXPECT_THAT(calls, ElementsAre(false, true));
  calls.clear();
  loop.Post({window, 1, 0, 0});
  loop.RunQueued();
  EXPECT_THAT(calls, ElementsAre(false));
  EXPECT_THAT(noted, ElementsAre(1, 1));
  // A message posted by the hook is not slept over.
  loop.SetTurnHook([&](bool aboutToWait) {
    if (aboutToWait && noted.size() == 2) loop.Post({window, 1, 0, 0});
  });
  EXPECT_TRUE(loop.WaitUntil([this] { return noted.size() == 3; }, In(5ms)));
  EXPECT_EQ(Elapsed(), 1ms);
}

TEST_F(MessageLoopTest, WaitsInRealTimeWhileSomethingOutsideIsAwaited) {
  bool done = false;
  loop.Watch(pair.own, {.read = true}, Trigger::kEdge, [&](Readiness) { done = true; });
  const MessageLoop::OutsideWork outside(loop);
  // Both the short real wait and the timer that it passes are seen: the peer writes when the timer has fired.
  const auto timer = Ticking(20ms, [&] { pair.PeerWrites("x"); });
  const auto before = std::chrono::steady_clock::now();
  EXPECT_TRUE(loop.WaitUntil([&] { return done; }, In(60'000ms)));
  EXPECT_GE(std::chrono::steady_clock::now() - before, 19ms);
  EXPECT_EQ(Elapsed(), 20ms);
}

TEST_F(MessageLoopTest, TimerProperties) {
  std::vector<long> ticks;
  auto timer = std::make_unique<Timer>(loop, 100ms, [&] { ticks.push_back(Elapsed().count()); });
  loop.Sleep(150ms);
  timer->SetEnabled(true);  // at 150
  loop.Sleep(50ms);
  timer->SetEnabled(true);    // no change: goes on
  timer->SetInterval(100ms);  // no change: goes on
  loop.Sleep(60ms);           // tick at 250
  timer->SetInterval(30ms);   // at 260: starts anew
  loop.Sleep(65ms);           // ticks at 290 and 320
  timer->SetInterval(0ms);
  loop.Sleep(500ms);
  timer->SetInterval(40ms);  // at 825
  loop.Sleep(50ms);          // tick at 865
  timer->SetEnabled(false);
  loop.Sleep(500ms);
  EXPECT_THAT(ticks, ElementsAre(250, 290, 320, 865));
}

TEST_F(MessageLoopTest, ATickMayDestroyItsTimer) {
  std::string state = "a text that is too long to be stored within the function object";
  std::unique_ptr<Timer> timer = Ticking(5ms, [&, state] {
    timer.reset();
    noted.push_back(int(state.size()));
  });
  loop.Sleep(50ms);
  EXPECT_THAT(noted, ElementsAre(int(state.size())));
}

// Messages that never end come from handlers or with readiness, and handlers look into the queue or wait meanwhile.
TEST_F(MessageLoopTest, EveryKindOfBusynessLeavesRoomForOverdueTimers) {
  enum class Busy { kReadiness, kPeekingHandler, kWait };
  for (const Busy busy : {Busy::kReadiness, Busy::kPeekingHandler, Busy::kWait}) {
    noted.clear();
    const MonotonicTime begin = clock.Monotonic();
    const auto elapsed = [&] { return clock.Monotonic() - begin; };
    WindowId window = 0;
    window = loop.CreateHiddenWindow("busy", [&](const Message& message) {
      if (message.number == kMessageTimer) return Note(message);
      clock.Advance(1ms);
      Message next;
      if (busy == Busy::kPeekingHandler) loop.Peek(next, {window, 7, 7}, true);
      if (busy != Busy::kReadiness && elapsed() < 10s) loop.Post(message);
    });
    loop.SetTimer(window, 1, 1000ms);
    WatchId watch = 0;
    if (busy == Busy::kReadiness) {
      pair.PeerWrites("x");
      watch = loop.Watch(pair.own, {.read = true}, Trigger::kLevel, [&](Readiness) {
        if (elapsed() < 10s) loop.Post({window, 1, 0, 0});
      });
    } else {
      loop.Post({window, 1, 0, 0});
    }
    const auto done = [&] { return !noted.empty() || elapsed() >= 10s; };
    if (busy == Busy::kWait) {
      while (!done()) loop.DispatchOneDuringWait();
    } else {
      loop.WaitUntil(done, MonotonicTime::max());
    }
    EXPECT_GE(elapsed(), 1250ms) << int(busy);
    EXPECT_LT(elapsed(), 1400ms) << int(busy);
    loop.Unwatch(watch);
    loop.DestroyWindow(window);
  }
}

TEST_F(MessageLoopTest, ASlowTimerDoesNotHoldBackMessages) {
  int messages = 0;
  WindowId window = 0;
  window = loop.CreateHiddenWindow("slow", [&](const Message& message) {
    if (message.number == kMessageTimer) {
      clock.Advance(2s);
      return Note(message);
    }
    ++messages;
    if (Elapsed() < 1000s) loop.Post(message);
    clock.Advance(10ms);
  });
  loop.SetTimer(window, 1, 100ms);
  loop.SetTimer(window, 2, 100ms);
  loop.Post({window, 1, 0, 0});
  loop.WaitUntil([&] { return messages >= 200 || Elapsed() > 100s; }, MonotonicTime::max());
  EXPECT_EQ(messages, 200);
  // Each timer has its turn.
  EXPECT_THAT(noted, ::testing::AllOf(::testing::Contains(-1), ::testing::Contains(-2)));
}

TEST_F(MessageLoopTest, NoWaitBeginsWithoutTheHook) {
  const WindowId window = NotingWindow();
  loop.Post({window, 1, 0, 0});
  int waits = 0;
  loop.SetTurnHook([&](bool aboutToWait) { waits += aboutToWait ? 1 : 0; });
  loop.WaitForReadiness(4ms);
  EXPECT_EQ(waits, 1);
  EXPECT_EQ(Elapsed(), 4ms);
}

}  // namespace
}  // namespace quenmark::platform
