#include "platform/deadline_heap.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace quenmark::platform {
namespace {

MonotonicTime At(int time) {
  return MonotonicTime{} + std::chrono::milliseconds{time};
}

TEST(DeadlineHeap, EqualDeadlinesComeInTheOrderTheyWereSet) {
  DeadlineHeap heap;
  for (const DeadlineHeap::Slot slot : {3u, 1u, 2u}) heap.Set(slot, At(5));
  heap.Set(3, At(5));  // set again: now the last
  for (const DeadlineHeap::Slot slot : {1u, 2u, 3u}) {
    EXPECT_EQ(heap.First(), slot);
    heap.Remove(slot);
  }
  EXPECT_TRUE(heap.Empty());
  EXPECT_EQ(heap.FirstDue(), MonotonicTime::max());
}

TEST(DeadlineHeap, AgreesWithASortedMap) {
  DeadlineHeap heap;
  std::map<DeadlineHeap::Slot, int> reference;
  std::mt19937 random(7);
  for (int i = 0; i < 20'000; ++i) {
    const auto slot = static_cast<DeadlineHeap::Slot>(random() % 50);
    if (random() % 3 == 0) {
      heap.Remove(slot);
      reference.erase(slot);
    } else {
      const int due = static_cast<int>(random() % 1000);
      heap.Set(slot, At(due));
      reference[slot] = due;
    }
    int first = -1;
    for (const auto& [key, due] : reference) first = first < 0 || due < first ? due : first;
    ASSERT_EQ(heap.Empty(), reference.empty());
    if (reference.empty()) continue;
    ASSERT_EQ(heap.FirstDue(), At(first));
    ASSERT_EQ(reference.at(heap.First()), first);
  }
}

}  // namespace
}  // namespace quenmark::platform
