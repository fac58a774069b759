// Deadlines by slot number: the earliest first, equal ones in the order they were set; any slot can be moved or
// removed.
#pragma once

#include "platform/clock.h"

#include <cstdint>
#include <vector>

namespace quenmark::platform {

// Allocates only while more slots are in use than ever before.
class DeadlineHeap {
 public:
  using Slot = std::uint32_t;

  // Adds the slot, or moves it when it is in.
  void Set(Slot slot, MonotonicTime due);
  // Does nothing when the slot is not in.
  void Remove(Slot slot);
  bool Empty() const { return m_entries.empty(); }
  // Not to be called while empty.
  Slot First() const { return m_entries.front().slot; }
  // MonotonicTime::max() while empty.
  MonotonicTime FirstDue() const { return m_entries.empty() ? MonotonicTime::max() : m_entries.front().due; }

 private:
  struct Entry {
    MonotonicTime due;
    std::uint64_t sequence = 0;
    Slot slot = 0;

    bool operator<(const Entry& other) const { return due != other.due ? due < other.due : sequence < other.sequence; }
  };
  static constexpr std::size_t kAbsent = SIZE_MAX;

  void Place(std::size_t position, const Entry& entry);
  void SiftUp(std::size_t position);
  void SiftDown(std::size_t position);

  std::vector<Entry> m_entries;
  std::vector<std::size_t> m_positions;  // by slot
  std::uint64_t m_sequence = 0;
};

}  // namespace quenmark::platform
