#include "platform/stop_signals.h"

#include "tests/support/manual_clock.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <array>

namespace quenmark::platform {
namespace {

using namespace std::chrono_literals;

bool Blocked(int number) {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return sigismember(&mask, number) == 1;
}

TEST(StopSignals, BothBecomeACallOnTheLoopEvenWhenIgnoredBefore) {
  test::ManualClock clock;
  MessageLoop loop(clock);
  signal(SIGINT, SIG_IGN);  // as a shell starts its background jobs
  {
    int stops = 0;
    const StopSignals signals(loop, [&stops] { ++stops; });
    int expected = 0;
    for (const int number : {SIGTERM, SIGINT}) {
      kill(getpid(), number);
      EXPECT_EQ(stops, expected);
      loop.WaitUntil([&] { return stops > expected; }, clock.Monotonic() + 1ms);
      EXPECT_EQ(stops, ++expected);
    }
    EXPECT_TRUE(Blocked(SIGTERM));
  }
  EXPECT_FALSE(Blocked(SIGTERM));
  EXPECT_FALSE(Blocked(SIGINT));
  EXPECT_EQ(signal(SIGINT, SIG_DFL), SIG_IGN);
}

TEST(StopSignals, WritingToAClosedPipeIsAnError) {
  IgnoreBrokenPipes();
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  close(ends[0]);
  EXPECT_EQ(write(ends[1], "x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
  close(ends[1]);
}

}  // namespace
}  // namespace quenmark::platform
