// What a process knows of the store: values read and values written but not yet committed, found by names without
// regard to the case of A to Z.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

namespace quenmark::platform {

// Hash and equality of names, the case of A to Z ignored.
struct FoldedHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view name) const;
};
struct FoldedEqual {
  using is_transparent = void;
  bool operator()(std::string_view left, std::string_view right) const;
};

// A to Z as a to z.
std::string FoldName(std::string_view name);

template <typename Value>
using FoldedMap = std::unordered_map<std::string, Value, FoldedHash, FoldedEqual>;  // keys are folded

// A generation numbers the stretch between two changes by other processes; what was learned in an earlier one must be
// looked up again. Generations start at 1.
using Generation = std::uint64_t;

struct CachedEntry {
  std::string value;       // "" when not present
  std::int64_t row = 0;    // its row in the file, 0 when it has none
  Generation knownIn = 0;  // when `row`, and without pending writes `value`, were last known to be so
  bool present = false;
  bool pending = false;  // value and presence are those of uncommitted writes
  bool saved = false;    // the last pending write that touched it is a save, into which a further one is merged
};

struct CachedSection {
  FoldedMap<CachedEntry> entries;
  std::int64_t row = 0;
  Generation knownIn = 0;
  bool cleared = false;  // an uncommitted deletion covers every entry that is not cached
  std::size_t pendingWrites = 0;
  std::uint64_t revision = 0;  // changes with every change seen
  std::uint64_t digest = 0;    // of the committed contents in `digestIn`, 0 when not known
  Generation digestIn = 0;
  const std::string* application = nullptr;  // folded names: keys of the maps that hold it
  const std::string* name = nullptr;
};

struct CachedApplication {
  FoldedMap<CachedSection> sections;
  bool cleared = false;
};

// References stay valid until Clear or Forget.
class StoreCache {
 public:
  using EntryNode = FoldedMap<CachedEntry>::value_type;

  CachedApplication& Application(std::string_view application);
  CachedSection& Section(std::string_view application, std::string_view section);
  EntryNode& Entry(CachedSection& section, std::string_view key, Generation generation);

  // Changes a cached value, counting its memory.
  void SetValue(CachedEntry& entry, std::string_view value);
  // Drops the entries of a section.
  void Forget(CachedSection& section);
  void Clear();

  FoldedMap<CachedApplication>& Applications() { return m_applications; }
  // Memory in use, roughly.
  std::size_t Bytes() const { return m_bytes; }
  // A number that was not a revision before.
  std::uint64_t NextRevision() { return ++m_lastRevision; }

 private:
  FoldedMap<CachedApplication> m_applications;
  std::size_t m_bytes = 0;
  std::uint64_t m_lastRevision = 0;

  // The section asked for last, by the exact names it was asked by.
  std::string m_lastApplication;
  std::string m_lastName;
  CachedSection* m_last = nullptr;
};

}  // namespace quenmark::platform
