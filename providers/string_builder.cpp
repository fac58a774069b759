#include "providers/string_builder.h"

#include "platform/code_page.h"
#include "platform/run_time_error.h"

#include <limits>

namespace quenmark::providers {

namespace {

constexpr std::int32_t kErrorOutOfStringSpace = 14;
constexpr std::int64_t kMostBytes = std::numeric_limits<std::int32_t>::max();

[[noreturn]] void RaiseSubscript() {
  throw platform::RunTimeError(platform::kErrorSubscript, "Subscript out of range");
}

// Appends UTF-8 text; most of what is built is ASCII and needs no decoding.
void AppendUnits(std::u16string& units, std::string_view text) {
  const std::size_t old = units.size();
  units.resize(old + text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    if (byte >= 0x80) {
      units.resize(old + at);
      units += platform::ToUtf16(text.substr(at));
      return;
    }
    units[old + at] = byte;
  }
}

}  // namespace

void cStringBuilder::ChunkSize(std::int32_t size) {
  if (size < 1 || size > kMostBytes / 2)
    throw platform::RunTimeError(platform::kErrorInvalidCall, "Invalid chunk size");
  m_chunkSize = size * 2;
}

std::string cStringBuilder::toString() const {
  return platform::FromUtf16(m_units);
}

void cStringBuilder::TheString(std::string_view text) {
  if (text.empty()) {
    Clear();
    return;
  }
  std::u16string units;
  AppendUnits(units, text);
  Reserve(units.size());
  m_units = std::move(units);
}

void cStringBuilder::Clear() {
  m_units = {};
  m_capacity = 0;
}

void cStringBuilder::Append(std::string_view text) {
  const std::size_t old = m_units.size();
  AppendUnits(m_units, text);
  try {
    Reserve(m_units.size());
  } catch (...) {
    m_units.resize(old);
    throw;
  }
}

void cStringBuilder::AppendNL(std::string_view text) {
  Append(text);
  Append("\r\n");
}

void cStringBuilder::Insert(std::int32_t position, std::string_view text) {
  if (position < 1 || position > Length()) RaiseSubscript();
  const std::u16string units = platform::ToUtf16(text);
  Reserve(m_units.size() + units.size());
  m_units.insert(static_cast<std::size_t>(position - 1), units);
}

void cStringBuilder::Remove(std::int32_t position, std::int32_t count) {
  if (position < 1 || count < 0 || position > Length() || count > Length() - position) RaiseSubscript();
  m_units.erase(static_cast<std::size_t>(position - 1), static_cast<std::size_t>(count));
}

std::int32_t cStringBuilder::Find(std::string_view text, std::int32_t start, CompareMode mode) const {
  if (start < 1 || start > Length()) return 0;
  const std::size_t found = FindUnits(m_units, platform::ToUtf16(text), static_cast<std::size_t>(start - 1), mode);
  return found == std::u16string::npos ? 0 : static_cast<std::int32_t>(found + 1);
}

void cStringBuilder::HeapMinimize() {
  const std::int32_t used = Length() * 2;
  while (m_capacity - used > m_chunkSize) m_capacity -= m_chunkSize;
  m_units.shrink_to_fit();
}

// Grows the capacity by whole chunks until so many units fit. The memory itself grows by doubling.
void cStringBuilder::Reserve(std::size_t units) {
  if (units > kMostBytes / 2) throw platform::RunTimeError(kErrorOutOfStringSpace, "Out of string space");
  const std::int64_t missing = static_cast<std::int64_t>(units) * 2 - m_capacity;
  if (missing <= 0) return;
  const std::int64_t chunks = (missing + m_chunkSize - 1) / m_chunkSize;
  const std::int64_t capacity = m_capacity + chunks * m_chunkSize;
  if (capacity > kMostBytes) throw platform::RunTimeError(kErrorOutOfStringSpace, "Out of string space");
  m_capacity = static_cast<std::int32_t>(capacity);
}

}  // namespace quenmark::providers
