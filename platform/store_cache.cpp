#include "platform/store_cache.h"

#include "platform/code_page.h"

#include <cstring>

namespace quenmark::platform {

namespace {

constexpr std::uint64_t kOnes = 0x0101010101010101;
constexpr std::size_t kNodeBytes = 160;  // of a map node and its list of buckets

// Eight bytes at once: a byte in A to Z gets bit 5 set.
std::uint64_t FoldWord(std::uint64_t word) {
  const std::uint64_t low = word & (kOnes * 0x7F);
  const std::uint64_t fromA = low + kOnes * (0x80 - 'A');
  const std::uint64_t aboveZ = low + kOnes * (0x7F - 'Z');
  const std::uint64_t upper = (fromA ^ aboveZ) & ~word & (kOnes * 0x80);
  return word | (upper >> 2);
}

std::uint64_t FoldedWord(std::string_view name, std::size_t at) {
  std::uint64_t word = 0;
  const std::size_t left = name.size() - at;
  std::memcpy(&word, name.data() + at, left < sizeof word ? left : sizeof word);
  return FoldWord(word);
}

}  // namespace

std::size_t FoldedHash::operator()(std::string_view name) const {
  std::uint64_t hash = name.size() * 0x9E3779B97F4A7C15;
  for (std::size_t at = 0; at < name.size(); at += sizeof(std::uint64_t)) {
    hash = (hash ^ FoldedWord(name, at)) * 0xD6E8FEB86659FD93;
    hash ^= hash >> 32;
  }
  return hash;
}

bool FoldedEqual::operator()(std::string_view left, std::string_view right) const {
  if (left.size() != right.size()) return false;
  for (std::size_t at = 0; at < left.size(); at += sizeof(std::uint64_t)) {
    if (FoldedWord(left, at) != FoldedWord(right, at)) return false;
  }
  return true;
}

std::string FoldName(std::string_view name) {
  return AsciiLower(name);
}

CachedApplication& StoreCache::Application(std::string_view application) {
  auto found = m_applications.find(application);
  if (found == m_applications.end()) {
    found = m_applications.try_emplace(FoldName(application)).first;
    m_bytes += kNodeBytes + application.size();
  }
  return found->second;
}

CachedSection& StoreCache::Section(std::string_view application, std::string_view section) {
  if (m_last != nullptr && m_lastName == section && m_lastApplication == application) return *m_last;
  Application(application);
  auto& [applicationName, holder] = *m_applications.find(application);
  auto found = holder.sections.find(section);
  if (found == holder.sections.end()) {
    found = holder.sections.try_emplace(FoldName(section)).first;
    found->second.application = &applicationName;
    found->second.name = &found->first;
    found->second.cleared = holder.cleared;
    found->second.revision = NextRevision();
    m_bytes += kNodeBytes + sizeof(CachedSection) + section.size();
  }
  m_lastApplication.assign(application);
  m_lastName.assign(section);
  m_last = &found->second;
  return *m_last;
}

StoreCache::EntryNode& StoreCache::Entry(CachedSection& section, std::string_view key, Generation generation) {
  auto found = section.entries.find(key);
  if (found == section.entries.end()) {
    found = section.entries.try_emplace(FoldName(key)).first;
    m_bytes += kNodeBytes + key.size();
    if (section.cleared) found->second.pending = true;
    // A section without a row has no entries.
    if (section.row == 0 && section.knownIn == generation) found->second.knownIn = generation;
  }
  return *found;
}

void StoreCache::SetValue(CachedEntry& entry, std::string_view value) {
  m_bytes -= entry.value.size();
  entry.value.assign(value);
  m_bytes += value.size();
}

void StoreCache::Forget(CachedSection& section) {
  for (const auto& [key, entry] : section.entries) m_bytes -= kNodeBytes + key.size() + entry.value.size();
  section.entries.clear();
}

void StoreCache::Clear() {
  m_applications.clear();
  m_last = nullptr;
  m_bytes = 0;
}

}  // namespace quenmark::platform
