// A growable text, addressed in UTF-16 code units as its callers count.
#pragma once

#include "providers/text_compare.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace quenmark::providers {

// Lengths and positions are UTF-16 code units, positions count from 1. Capacity grows and shrinks by whole chunks. Text
// that would grow past 2^31 - 1 bytes of content is RunTimeError 14 (out of string space).
class cStringBuilder {
 public:
  std::int32_t Length() const { return static_cast<std::int32_t>(m_units.size()); }
  std::int32_t Capacity() const { return m_capacity / 2; }

  // Growth step, 8192 at first. A step below 1 or above 2^30 - 1 is RunTimeError 5.
  std::int32_t ChunkSize() const { return m_chunkSize / 2; }
  void ChunkSize(std::int32_t size);

  // The content as UTF-8; half of a surrogate pair is U+FFFD.
  std::string toString() const;
  // Replaces the content; an empty text gives the capacity back, too.
  void TheString(std::string_view text);
  void Clear();

  void Append(std::string_view text);
  void AppendByVal(std::string_view text) { Append(text); }
  void AppendNL(std::string_view text);  // followed by CR LF

  // Puts the text in front of the unit at `position`. A position below 1 or behind the last unit is RunTimeError 9.
  void Insert(std::int32_t position, std::string_view text);
  void InsertByVal(std::int32_t position, std::string_view text) { Insert(position, text); }
  // Takes out `count` units from `position` on. A position below 1, a negative count, or position + count behind the
  // last unit is RunTimeError 9.
  void Remove(std::int32_t position, std::int32_t count);

  // Position of the text at or after `start`, 0 when it does not occur there. An empty text occurs everywhere.
  std::int32_t Find(std::string_view text, std::int32_t start = 1, CompareMode mode = CompareMode::kBinary) const;

  // Gives back whole chunks until less than one more than needed is left.
  void HeapMinimize();

 private:
  void Reserve(std::size_t units);

  std::u16string m_units;
  std::int32_t m_capacity = 0;  // bytes, two per unit
  std::int32_t m_chunkSize = 16384;
};

}  // namespace quenmark::providers
