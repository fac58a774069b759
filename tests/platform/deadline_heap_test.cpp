#include "platform/deadline_heap.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <tuple>

namespace quenmark::platform {
namespace {

MonotonicTime At(int time) {
  return MonotonicTime{} + std::chrono::milliseconds{time};
}

// Equal deadlines come in the order in which they were set.
TEST(DeadlineHeap, AgreesWithASortedSet) {
  DeadlineHeap heap;
  EXPECT_EQ(heap.FirstDue(), MonotonicTime::max());
  std::set<std::tuple<int, int, DeadlineHeap::Slot>> reference;  // due, step, slot
  std::mt19937 random(7);
  for (int i = 0; i < 20'000; ++i) {
    const auto slot = static_cast<DeadlineHeap::Slot>(random() % 50);
    std::erase_if(reference, [slot](const auto& entry) { return std::get<2>(entry) == slot; });
    if (random() % 3 == 0) {
      heap.Remove(slot);
    } else {
      const int due = static_cast<int>(random() % 100);
      heap.Set(slot, At(due));
      reference.insert({due, i, slot});
    }
    ASSERT_EQ(heap.Empty(), reference.empty());
    if (reference.empty()) continue;
    ASSERT_EQ(heap.FirstDue(), At(std::get<0>(*reference.begin())));
    ASSERT_EQ(heap.First(), std::get<2>(*reference.begin()));
  }
}

}  // namespace
}  // namespace quenmark::platform
