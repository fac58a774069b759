#include "platform/deadline_heap.h"

namespace quenmark::platform {

void DeadlineHeap::Set(Slot slot, MonotonicTime due) {
  Remove(slot);
  if (slot >= m_positions.size()) m_positions.resize(slot + std::size_t{1}, kAbsent);
  m_entries.push_back({due, ++m_sequence, slot});
  m_positions[slot] = m_entries.size() - 1;
  SiftUp(m_entries.size() - 1);
}

void DeadlineHeap::Remove(Slot slot) {
  if (slot >= m_positions.size() || m_positions[slot] == kAbsent) return;
  const std::size_t position = m_positions[slot];
  m_positions[slot] = kAbsent;
  const Entry last = m_entries.back();
  m_entries.pop_back();
  if (position == m_entries.size()) return;
  Place(position, last);
  SiftUp(position);
  SiftDown(m_positions[last.slot]);
}

void DeadlineHeap::Place(std::size_t position, const Entry& entry) {
  m_entries[position] = entry;
  m_positions[entry.slot] = position;
}

void DeadlineHeap::SiftUp(std::size_t position) {
  const Entry entry = m_entries[position];
  while (position > 0) {
    const std::size_t parent = (position - 1) / 2;
    if (!(entry < m_entries[parent])) break;
    Place(position, m_entries[parent]);
    position = parent;
  }
  Place(position, entry);
}

void DeadlineHeap::SiftDown(std::size_t position) {
  const Entry entry = m_entries[position];
  for (;;) {
    std::size_t child = 2 * position + 1;
    if (child >= m_entries.size()) break;
    if (child + 1 < m_entries.size() && m_entries[child + 1] < m_entries[child]) ++child;
    if (!(m_entries[child] < entry)) break;
    Place(position, m_entries[child]);
    position = child;
  }
  Place(position, entry);
}

}  // namespace quenmark::platform
