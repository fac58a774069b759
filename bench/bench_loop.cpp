// The message loop against its bare parts, and the process list. A run in which the loop allocates per event is an
// error.
#include "platform/message_loop.h"
#include "platform/process_list.h"
#include "tests/sockets/allocation_count.h"

#include <benchmark/benchmark.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <deque>
#include <functional>

namespace {

using namespace quenmark::platform;

constexpr int kBatch = 1000;

void FinishWithout(benchmark::State& state, std::uint64_t before, std::int64_t perIteration) {
  if (quenmark::test::AllocationCount() != before) state.SkipWithError("the loop allocates per event");
  state.SetItemsProcessed(state.iterations() * perIteration);
}

void PostAndDispatch(benchmark::State& state) {
  SystemClock clock;
  MessageLoop loop(clock);
  std::uint64_t sum = 0;
  const WindowId window = loop.CreateHiddenWindow("bench", [&sum](const Message& message) { sum += message.wParam; });
  for (int i = 0; i < kBatch; ++i) loop.Post({window, 1, 1, 0});
  loop.RunQueued();
  const std::size_t before = quenmark::test::AllocationCount();
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) loop.Post({window, 1, 1, 0});
    loop.RunQueued();
  }
  if (sum != (static_cast<std::uint64_t>(state.iterations()) + 1) * kBatch) state.SkipWithError("messages were lost");
  FinishWithout(state, before, kBatch);
}
BENCHMARK(PostAndDispatch);

// The ceiling: a queue of messages and one handler, nothing else.
void BareDeque(benchmark::State& state) {
  std::deque<Message> queue;
  std::uint64_t sum = 0;
  const std::function<void(const Message&)> handler = [&sum](const Message& message) { sum += message.wParam; };
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) queue.push_back({1, 1, 1, 0});
    while (!queue.empty()) {
      const Message message = queue.front();
      queue.pop_front();
      handler(message);
    }
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BareDeque);

// From a readable descriptor to its message, one at a time.
void ReadyToMessage(benchmark::State& state) {
  SystemClock clock;
  MessageLoop loop(clock);
  const int descriptor = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  std::uint64_t seen = 0;
  const WindowId window = loop.CreateHiddenWindow("bench", [&](const Message&) {
    std::uint64_t count = 0;
    if (read(descriptor, &count, sizeof count) == sizeof count) seen += count;
  });
  loop.Watch(descriptor, {.read = true}, Trigger::kEdge, [&](Readiness) { loop.Post({window, 1, 0, 0}); });
  const std::function<bool()> done = [&seen] { return seen > 0; };
  const std::uint64_t one = 1;
  const std::size_t before = quenmark::test::AllocationCount();
  for (auto _ : state) {
    seen = 0;
    if (write(descriptor, &one, sizeof one) != sizeof one) state.SkipWithError("no write");
    loop.WaitUntil(done, MonotonicTime::max());
  }
  FinishWithout(state, before, 1);
  close(descriptor);
}
BENCHMARK(ReadyToMessage);

// The ceiling of that: the same system calls without the loop.
void BareEpoll(benchmark::State& state) {
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  const int descriptor = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN | EPOLLET;
  epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event);
  const std::uint64_t one = 1;
  for (auto _ : state) {
    std::uint64_t count = 0;
    std::array<epoll_event, 64> events;
    if (write(descriptor, &one, sizeof one) != sizeof one) state.SkipWithError("no write");
    if (epoll_wait(epoll, events.data(), 64, -1) != 1) state.SkipWithError("no event");
    if (read(descriptor, &count, sizeof count) != sizeof count) state.SkipWithError("no read");
  }
  state.SetItemsProcessed(state.iterations());
  close(descriptor);
  close(epoll);
}
BENCHMARK(BareEpoll);

void RestartTimer(benchmark::State& state) {
  SystemClock clock;
  MessageLoop loop(clock);
  const WindowId window = loop.CreateHiddenWindow("bench", [](const Message&) {});
  for (std::uintptr_t timer = 1; timer <= 10; ++timer) loop.SetTimer(window, timer, std::chrono::hours{1});
  const std::size_t before = quenmark::test::AllocationCount();
  for (auto _ : state) {
    loop.SetTimer(window, 5, std::chrono::hours{2});
    loop.KillTimer(window, 5);
  }
  FinishWithout(state, before, 1);
}
BENCHMARK(RestartTimer);

void ListProcesses(benchmark::State& state) {
  SystemClock clock;
  MessageLoop loop(clock);
  SystemProcessList list(loop);
  std::size_t found = 0;
  for (auto _ : state) found = list.List().size();
  state.counters["processes"] = static_cast<double>(found);
  state.counters["per_process"] =
      benchmark::Counter(static_cast<double>(found) * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(ListProcesses);

}  // namespace

BENCHMARK_MAIN();
