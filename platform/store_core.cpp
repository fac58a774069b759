#include "platform/store_core.h"

#include "platform/run_time_error.h"

#include <exception>
#include <utility>

namespace quenmark::platform {

namespace {

using namespace std::chrono_literals;

constexpr auto kLongestPending = 1ms;
constexpr std::size_t kCacheBytes = 64u << 20;
constexpr std::size_t kPendingBytes = 64u << 20;
// A commit that the caller does not ask for must not hold the loop for long; it is tried again.
constexpr auto kFirstTry = 1000ms;
constexpr auto kFurtherTry = 20ms;
constexpr auto kRetryEvery = 100ms;

void CheckSizes(std::string_view application, std::string_view section, std::string_view key, std::string_view value) {
  if (application.size() > kStoreNameLimit || section.size() > kStoreNameLimit || key.size() > kStoreNameLimit) {
    throw RunTimeError(kErrorInvalidCall, "A name of a setting is too long.");
  }
  if (value.size() > kStoreValueLimit) throw RunTimeError(kErrorInvalidCall, "The value of a setting is too long.");
}

void Mix(std::uint64_t& digest, std::string_view bytes) {
  digest = (digest ^ std::hash<std::string_view>{}(bytes)) * 0x9E3779B97F4A7C15;
  digest ^= digest >> 29;
}

}  // namespace

SqliteStore::Core::Core(const std::string& path, Clock& clock, std::chrono::milliseconds busyLimit)
    : m_clock(clock),
      m_busyLimit(busyLimit),
      m_database(path, clock, busyLimit),
      m_checkpointer(path, clock),
      m_findEntry(m_database.Handle(), "SELECT id, value FROM entry WHERE section = ?1 AND folded = ?2"),
      m_findRow(m_database.Handle(), "SELECT id FROM entry WHERE section = ?1 AND folded = ?2"),
      m_update(m_database.Handle(), "UPDATE entry SET value = ?2 WHERE id = ?1"),
      m_insert(m_database.Handle(), "INSERT INTO entry(section, folded, name, value) VALUES(?1, ?2, ?3, ?4)"),
      m_deleteEntry(m_database.Handle(), "DELETE FROM entry WHERE id = ?1"),
      m_findSection(m_database.Handle(),
                    "SELECT s.id FROM application a JOIN section s ON s.application = a.id "
                    "WHERE a.folded = ?1 AND s.folded = ?2"),
      m_insertSection(m_database.Handle(), "INSERT INTO section(application, folded, name) VALUES(?1, ?2, ?3)"),
      m_dropSection(m_database.Handle(),
                    "DELETE FROM section WHERE id = ?1 AND NOT EXISTS(SELECT 1 FROM entry WHERE section = ?1)"),
      m_deleteEntries(m_database.Handle(), "DELETE FROM entry WHERE section = ?1"),
      m_findApplication(m_database.Handle(), "SELECT id FROM application WHERE folded = ?1"),
      m_insertApplication(m_database.Handle(), "INSERT INTO application(folded, name) VALUES(?1, ?2)"),
      m_dropApplication(m_database.Handle(),
                        "DELETE FROM application WHERE folded = ?1 AND NOT EXISTS("
                        "SELECT 1 FROM section WHERE application = application.id)"),
      m_deleteApplicationEntries(
          m_database.Handle(),
          "DELETE FROM entry WHERE section IN (SELECT s.id FROM section s JOIN application a ON s.application = a.id "
          "WHERE a.folded = ?1)"),
      m_deleteApplicationSections(
          m_database.Handle(),
          "DELETE FROM section WHERE application = (SELECT id FROM application WHERE folded = ?1)"),
      m_listEntries(m_database.Handle(),
                    "SELECT name, value FROM entry INDEXED BY entry_order WHERE section = ?1 ORDER BY id"),
      m_listSections(m_database.Handle(),
                     "SELECT s.name FROM section s JOIN application a ON s.application = a.id WHERE a.folded = ?1 "
                     "ORDER BY s.id"),
      m_listApplications(m_database.Handle(), "SELECT name FROM application ORDER BY id") {}

SqliteStore::Core::~Core() {
  IgnoreErrors([&] { Commit(m_busyLimit); });
}

// --- Reading
// -----------------------------------------------------------------------------------------------------------

CachedSection& SqliteStore::Core::SectionOf(std::string_view application, std::string_view section) {
  // Nothing points into the cache while no write is pending.
  if (m_cache.Bytes() > kCacheBytes && m_writes.empty()) m_cache.Clear();
  return m_cache.Section(application, section);
}

SqliteStore::Core::EntryNode& SqliteStore::Core::KnownEntry(CachedSection& section, std::string_view key) {
  NoticeForeignChanges();
  EntryNode& entry = m_cache.Entry(section, key, m_generation);
  if (!entry.second.pending && entry.second.knownIn != m_generation) LoadEntry(section, entry);
  return entry;
}

void SqliteStore::Core::LoadEntry(CachedSection& section, EntryNode& node) {
  auto& [key, entry] = node;
  // Section rows are never used again, so an entry found under one that was known earlier is the right one; only when
  // there is none the section itself must be looked up.
  if (section.row == 0 && section.knownIn != m_generation) FindSection(section);
  while (true) {
    const ResetAtEnd reset(m_findEntry);
    if (section.row != 0 && m_findEntry.Bind(1, section.row).Bind(2, key).Step()) {
      entry.row = m_findEntry.Integer(0);
      entry.present = true;
      m_cache.SetValue(entry, m_findEntry.Bytes(1));
      entry.knownIn = m_generation;
      return;
    }
    if (section.knownIn == m_generation) break;
    FindSection(section);
  }
  entry.row = 0;
  entry.present = false;
  m_cache.SetValue(entry, {});
  entry.knownIn = m_generation;
}

void SqliteStore::Core::FindSection(CachedSection& section) {
  m_findSection.Bind(1, *section.application).Bind(2, *section.name);
  section.row = SingleInteger(m_findSection).value_or(0);
  section.knownIn = m_generation;
}

void SqliteStore::Core::Read(std::string_view application, std::string_view section, std::string_view key,
                             std::string& value) {
  value.assign(KnownEntry(SectionOf(application, section), key).second.value);
}

std::uint64_t SqliteStore::Core::Revision(std::string_view application, std::string_view section) {
  CachedSection& cached = SectionOf(application, section);
  NoticeForeignChanges();
  if (cached.digestIn == m_generation) return cached.revision;
  const std::uint64_t digest = Digest(cached);
  if (digest != cached.digest) cached.revision = m_cache.NextRevision();
  cached.digest = digest;
  cached.digestIn = m_generation;
  return cached.revision;
}

std::uint64_t SqliteStore::Core::Digest(const CachedSection& section) {
  std::uint64_t digest = 1;
  m_findSection.Bind(1, *section.application).Bind(2, *section.name);
  m_listEntries.Bind(1, SingleInteger(m_findSection).value_or(0));
  while (m_listEntries.Step()) {
    Mix(digest, m_listEntries.Bytes(0));
    Mix(digest, m_listEntries.Bytes(1));
  }
  return digest == 0 ? 1 : digest;
}

SettingsStore::Pairs SqliteStore::Core::List(std::string_view application, std::string_view section) {
  Flush();
  Pairs pairs;
  CachedSection& cached = SectionOf(application, section);
  NoticeForeignChanges();
  FindSection(cached);
  const ResetAtEnd reset(m_listEntries);
  m_listEntries.Bind(1, cached.row);
  while (m_listEntries.Step()) pairs.emplace_back(m_listEntries.Bytes(0), m_listEntries.Bytes(1));
  return pairs;
}

std::vector<std::string> SqliteStore::Core::Applications() {
  Flush();
  std::vector<std::string> names;
  const ResetAtEnd reset(m_listApplications);
  while (m_listApplications.Step()) names.emplace_back(m_listApplications.Bytes(0));
  return names;
}

std::vector<std::string> SqliteStore::Core::Sections(std::string_view application) {
  Flush();
  const std::string folded = FoldName(application);
  std::vector<std::string> names;
  const ResetAtEnd reset(m_listSections);
  m_listSections.Bind(1, folded);
  while (m_listSections.Step()) names.emplace_back(m_listSections.Bytes(0));
  return names;
}

// --- Writing
// -----------------------------------------------------------------------------------------------------------

void SqliteStore::Core::Add(Kind kind, CachedSection* section, EntryNode* entry, CachedApplication* application,
                            std::string_view applicationName, std::string_view sectionName, std::string_view key) {
  const std::size_t spelling = m_spellings.size();
  m_spellings.append(applicationName).append(sectionName).append(key);
  m_writes.push_back(
      {kind, section, entry, application, spelling, applicationName.size(), sectionName.size(), key.size()});
  if (m_writes.size() == 1) m_firstWrite = m_clock.Monotonic();
  if (entry != nullptr) {
    entry->second.pending = true;
    entry->second.saved = kind == Kind::kSave;
  }
  if (section != nullptr) {
    ++section->pendingWrites;
    section->revision = m_cache.NextRevision();
    section->digest = 0;
  }
}

void SqliteStore::Core::Save(std::string_view application, std::string_view section, std::string_view key,
                             std::string_view value) {
  CheckSizes(application, section, key, value);
  if (m_pendingBytes > kPendingBytes) Commit(m_busyLimit);
  CachedSection& cached = SectionOf(application, section);
  NoticeForeignChanges();
  EntryNode& node = m_cache.Entry(cached, key, m_generation);
  CachedEntry& entry = node.second;
  const bool known = entry.pending || entry.knownIn == m_generation;
  if (known && entry.present && entry.value == value) return;
  m_cache.SetValue(entry, value);
  entry.present = true;
  m_pendingBytes += value.size();
  if (entry.pending && entry.saved) {
    cached.revision = m_cache.NextRevision();
  } else {
    Add(Kind::kSave, &cached, &node, nullptr, application, section, key);
  }
  CommitWhenDue();
}

void SqliteStore::Core::DeleteSetting(std::string_view application, std::string_view section, std::string_view key) {
  CachedSection& cached = SectionOf(application, section);
  EntryNode& node = KnownEntry(cached, key);
  if (!node.second.present) return;
  node.second.present = false;
  m_cache.SetValue(node.second, {});
  Add(Kind::kDeleteEntry, &cached, &node, nullptr, application, section, key);
  CommitWhenDue();
}

// Every entry of the section is gone, as far as readers in this process can see.
void SqliteStore::Core::ClearSection(CachedSection& section) {
  for (auto& [key, entry] : section.entries) {
    m_cache.SetValue(entry, {});
    entry.present = false;
    entry.pending = true;
    entry.saved = false;
  }
  section.cleared = true;
}

void SqliteStore::Core::DeleteSection(std::string_view application, std::string_view section) {
  CachedSection& cached = SectionOf(application, section);
  NoticeForeignChanges();
  if (cached.pendingWrites == 0 && !cached.cleared) {
    if (cached.knownIn != m_generation) FindSection(cached);
    if (cached.row == 0) return;
  }
  ClearSection(cached);
  Add(Kind::kDeleteSection, &cached, nullptr, nullptr, application, section, {});
  CommitWhenDue();
}

void SqliteStore::Core::DeleteApplication(std::string_view application) {
  CachedApplication& cached = m_cache.Application(application);
  for (auto& [name, section] : cached.sections) {
    ClearSection(section);
    section.revision = m_cache.NextRevision();
    section.digest = 0;
  }
  cached.cleared = true;
  Add(Kind::kDeleteApplication, nullptr, nullptr, &cached, application, {}, {});
  CommitWhenDue();
}

// --- Committing
// --------------------------------------------------------------------------------------------------------

void SqliteStore::Core::AttachTo(MessageLoop& loop) {
  m_attached = std::make_shared<bool>(true);
  loop.SetTurnHook([this, &loop, attached = std::weak_ptr<bool>(m_attached)](bool aboutToWait) {
    if (!attached.expired()) OnTurn(loop, aboutToWait);
  });
}

void SqliteStore::Core::OnTurn(MessageLoop& loop, bool aboutToWait) {
  if (m_writes.empty()) return;
  if (aboutToWait || m_clock.Monotonic() - m_firstWrite >= kLongestPending) TryCommit();
  // When that has failed, waking the loop is enough: this function tries again.
  if (!m_writes.empty() && m_failing) m_retryCall = loop.CallAt(m_retryCall, m_retryAt, [] {});
}

void SqliteStore::Core::CommitWhenDue() {
  if (m_clock.Monotonic() - m_firstWrite >= kLongestPending) TryCommit();
}

void SqliteStore::Core::TryCommit() {
  if (m_failing && m_clock.Monotonic() < m_retryAt) return;
  try {
    Commit(m_failing ? kFurtherTry : std::min<std::chrono::milliseconds>(kFirstTry, m_busyLimit));
  } catch (const std::exception& fault) {
    if (!m_failing && m_report) m_report(fault.what());
    m_failing = true;
    m_retryAt = m_clock.Monotonic() + kRetryEvery;
  }
}

void SqliteStore::Core::Commit(std::chrono::milliseconds busyLimit) {
  if (m_writes.empty()) return;
  m_database.BeginWrite(busyLimit);
  bool changed = false;
  try {
    NoticeForeignChanges();
    for (const Write& write : m_writes) changed |= CarryOut(write);
    m_database.CommitWrite(changed);
  } catch (...) {
    // Rows learned in the transaction do not count; the numbers of sections it made will be given to others.
    ++m_generation;
    for (const Write& write : m_writes) {
      if (write.section != nullptr) write.section->row = 0;
    }
    IgnoreErrors([&] { m_database.RollBack(); });
    throw;
  }
  Settle();
  m_failing = false;
  m_checkpointer.OnCommit(m_database.LogPages());
}

void SqliteStore::Core::Settle() {
  for (const Write& write : m_writes) {
    if (write.entry != nullptr) write.entry->second.pending = write.entry->second.saved = false;
    if (write.section != nullptr) write.section->pendingWrites = 0;
  }
  for (const Write& write : m_writes) {
    if (write.kind == Kind::kDeleteSection) {
      m_cache.Forget(*write.section);
      write.section->cleared = false;
    } else if (write.kind == Kind::kDeleteApplication) {
      write.application->cleared = false;
      for (auto& [name, section] : write.application->sections) {
        m_cache.Forget(section);
        section.cleared = false;
      }
    }
  }
  m_writes.clear();
  m_spellings.clear();
  m_pendingBytes = 0;
}

bool SqliteStore::Core::CarryOut(const Write& write) {
  if (write.section != nullptr) write.section->digest = 0;
  switch (write.kind) {
    case Kind::kSave:
      return CarryOutSave(write);
    case Kind::kDeleteEntry:
      return CarryOutDeleteEntry(write);
    case Kind::kDeleteSection:
      return CarryOutDeleteSection(*write.section);
    case Kind::kDeleteApplication:
      return CarryOutDeleteApplication(write);
  }
  return false;
}

// Makes the entry's row known, and its section's when that is needed.
void SqliteStore::Core::ResolveRow(CachedSection& section, EntryNode& node) {
  auto& [key, entry] = node;
  if (entry.knownIn == m_generation) return;
  if (section.knownIn != m_generation) FindSection(section);
  entry.row = 0;
  if (section.row != 0) {
    m_findRow.Bind(1, section.row).Bind(2, key);
    entry.row = SingleInteger(m_findRow).value_or(0);
  }
  entry.knownIn = m_generation;
}

bool SqliteStore::Core::CarryOutSave(const Write& write) {
  auto& [key, entry] = *write.entry;
  ResolveRow(*write.section, *write.entry);
  if (entry.row != 0) {
    m_update.Bind(1, entry.row).Bind(2, entry.value).Run();
    return true;
  }
  MakeSection(write);
  const std::string_view name =
      std::string_view(m_spellings).substr(write.spelling + write.applicationSize + write.sectionSize, write.keySize);
  m_insert.Bind(1, write.section->row).Bind(2, key).Bind(3, name).Bind(4, entry.value).Run();
  entry.row = sqlite3_last_insert_rowid(m_database.Handle());
  return true;
}

void SqliteStore::Core::MakeSection(const Write& write) {
  CachedSection& section = *write.section;
  if (section.knownIn != m_generation) FindSection(section);
  if (section.row != 0) return;
  const std::string_view names = std::string_view(m_spellings).substr(write.spelling);
  m_findApplication.Bind(1, *section.application);
  std::int64_t application = SingleInteger(m_findApplication).value_or(0);
  if (application == 0) {
    m_insertApplication.Bind(1, *section.application).Bind(2, names.substr(0, write.applicationSize)).Run();
    application = sqlite3_last_insert_rowid(m_database.Handle());
  }
  const std::string_view name = names.substr(write.applicationSize, write.sectionSize);
  m_insertSection.Bind(1, application).Bind(2, *section.name).Bind(3, name).Run();
  section.row = sqlite3_last_insert_rowid(m_database.Handle());
}

bool SqliteStore::Core::CarryOutDeleteEntry(const Write& write) {
  CachedEntry& entry = write.entry->second;
  ResolveRow(*write.section, *write.entry);
  if (entry.row == 0) return false;
  m_deleteEntry.Bind(1, entry.row).Run();
  entry.row = 0;
  DropIfEmpty(*write.section);
  return true;
}

// A section exists while it has entries, an application while it has sections.
void SqliteStore::Core::DropIfEmpty(CachedSection& section) {
  if (section.knownIn != m_generation) FindSection(section);
  if (m_dropSection.Bind(1, section.row).Run() == 0) return;
  section.row = 0;
  m_dropApplication.Bind(1, *section.application).Run();
}

bool SqliteStore::Core::CarryOutDeleteSection(CachedSection& section) {
  if (section.knownIn != m_generation) FindSection(section);
  for (auto& [key, entry] : section.entries) {
    entry.row = 0;
    entry.knownIn = m_generation;
  }
  if (section.row == 0) return false;
  m_deleteEntries.Bind(1, section.row).Run();
  DropIfEmpty(section);
  return true;
}

bool SqliteStore::Core::CarryOutDeleteApplication(const Write& write) {
  const std::string folded = FoldName(std::string_view(m_spellings).substr(write.spelling, write.applicationSize));
  for (auto& [name, section] : write.application->sections) {
    section.row = 0;
    section.knownIn = m_generation;
    section.digest = 0;
    for (auto& [key, entry] : section.entries) {
      entry.row = 0;
      entry.knownIn = m_generation;
    }
  }
  m_deleteApplicationEntries.Bind(1, folded).Run();
  const int sections = m_deleteApplicationSections.Bind(1, folded).Run();
  m_dropApplication.Bind(1, folded).Run();
  return sections > 0;
}

}  // namespace quenmark::platform
