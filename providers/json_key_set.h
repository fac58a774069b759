// Finds repeated keys while an object is being parsed.
#pragma once

#include "providers/json_value.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace quenmark::providers {

// The keys of the members from `first` to the end of a vector that grows meanwhile. Few keys are compared one by one,
// many through a hash table; the author of a hostile text cannot know its seed.
class JsonKeySet {
 public:
  JsonKeySet(const std::vector<JsonMember>& members, std::size_t first, std::uint64_t seed)
      : m_members(members), m_first(first), m_seed(seed) {}

  bool Contains(std::string_view key) {
    const std::size_t count = m_members.size() - m_first;
    if (count <= kFew) {
      return std::any_of(m_members.begin() + static_cast<std::ptrdiff_t>(m_first), m_members.end(),
                         [&](const JsonMember& member) { return member.key == key; });
    }
    if (count * 2 >= m_slots.size()) Grow(count);
    while (m_indexed < count) Place(m_indexed++);
    for (std::size_t slot = FirstSlot(key); m_slots[slot] != 0; slot = NextSlot(slot)) {
      if (m_members[m_first + m_slots[slot] - 1].key == key) return true;
    }
    return false;
  }

 private:
  static constexpr std::size_t kFew = 16;

  void Grow(std::size_t count) {
    std::size_t size = 64;
    while (size < count * 4) size *= 2;
    m_slots.assign(size, 0);
    m_indexed = 0;
  }
  void Place(std::size_t index) {
    std::size_t slot = FirstSlot(m_members[m_first + index].key);
    while (m_slots[slot] != 0) slot = NextSlot(slot);
    m_slots[slot] = static_cast<std::uint32_t>(index + 1);
  }
  std::size_t NextSlot(std::size_t slot) const { return (slot + 1) & (m_slots.size() - 1); }
  std::size_t FirstSlot(std::string_view key) const {
    std::uint64_t hash = m_seed ^ key.size();
    for (std::size_t at = 0; at < key.size(); at += sizeof hash) {
      std::uint64_t word = 0;
      std::memcpy(&word, key.data() + at, std::min(sizeof word, key.size() - at));
      hash = (hash ^ word) * 0xD6E8FEB86659FD93u;
      hash ^= hash >> 32;
    }
    return static_cast<std::size_t>(hash) & (m_slots.size() - 1);
  }

  const std::vector<JsonMember>& m_members;
  std::size_t m_first;
  std::uint64_t m_seed;
  std::size_t m_indexed = 0;           // members that have a slot
  std::vector<std::uint32_t> m_slots;  // index of a member + 1; 0: free
};

}  // namespace quenmark::providers
