// The working parts of SqliteStore: reads through the cache, pending writes, and their commit.
#pragma once

#include "platform/clock.h"
#include "platform/message_loop.h"
#include "platform/sqlite_store.h"
#include "platform/store_cache.h"
#include "platform/store_checkpointer.h"
#include "platform/store_database.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::platform {

class SqliteStore::Core {
 public:
  Core(const std::string& path, Clock& clock, std::chrono::milliseconds busyLimit);
  ~Core();
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;

  void AttachTo(MessageLoop& loop);
  void OnFault(std::function<void(const std::string&)> report) { m_report = std::move(report); }

  void Read(std::string_view application, std::string_view section, std::string_view key, std::string& value);
  void Save(std::string_view application, std::string_view section, std::string_view key, std::string_view value);
  void DeleteSetting(std::string_view application, std::string_view section, std::string_view key);
  void DeleteSection(std::string_view application, std::string_view section);
  void DeleteApplication(std::string_view application);
  std::uint64_t Revision(std::string_view application, std::string_view section);
  Pairs List(std::string_view application, std::string_view section);
  std::vector<std::string> Applications();
  std::vector<std::string> Sections(std::string_view application);
  void Flush() { Commit(m_busyLimit); }

 private:
  using EntryNode = StoreCache::EntryNode;

  enum class Kind { kSave, kDeleteEntry, kDeleteSection, kDeleteApplication };
  // One uncommitted write. Writes are carried out in the order they were asked for; only a save to an entry whose last
  // pending write is a save is merged into that.
  struct Write {
    Kind kind;
    CachedSection* section;          // not of kDeleteApplication
    EntryNode* entry;                // of kSave and kDeleteEntry
    CachedApplication* application;  // of kDeleteApplication
    // The spelling of the names, in m_spellings.
    std::size_t spelling;
    std::size_t applicationSize;
    std::size_t sectionSize;
    std::size_t keySize;
  };

  void NoticeForeignChanges() {
    if (m_database.SeesForeignChange()) ++m_generation;
  }
  CachedSection& SectionOf(std::string_view application, std::string_view section);
  EntryNode& KnownEntry(CachedSection& section, std::string_view key);
  void LoadEntry(CachedSection& section, EntryNode& entry);
  void FindSection(CachedSection& section);
  std::uint64_t Digest(const CachedSection& section);

  void Add(Kind kind, CachedSection* section, EntryNode* entry, CachedApplication* application,
           std::string_view applicationName, std::string_view sectionName, std::string_view key);
  void ClearSection(CachedSection& section);
  void CommitWhenDue();
  void TryCommit();
  void Commit(std::chrono::milliseconds busyLimit);
  void OnTurn(MessageLoop& loop, bool aboutToWait);

  bool CarryOut(const Write& write);
  bool CarryOutSave(const Write& write);
  bool CarryOutDeleteEntry(const Write& write);
  bool CarryOutDeleteSection(CachedSection& section);
  bool CarryOutDeleteApplication(const Write& write);
  void ResolveRow(CachedSection& section, EntryNode& entry);
  void MakeSection(const Write& write);
  void DropIfEmpty(CachedSection& section);
  void Settle();

  Clock& m_clock;
  const std::chrono::milliseconds m_busyLimit;
  StoreDatabase m_database;
  StoreCheckpointer m_checkpointer;
  StoreCache m_cache;
  Generation m_generation = 0;

  std::vector<Write> m_writes;
  std::string m_spellings;
  std::size_t m_pendingBytes = 0;  // of the values handed in since the last commit
  MonotonicTime m_firstWrite{};

  bool m_failing = false;
  MonotonicTime m_retryAt{};
  std::function<void(const std::string&)> m_report;
  std::shared_ptr<bool> m_attached;  // lives as long as the loop's hook may call
  WatchId m_retryCall = 0;

  Statement m_findEntry, m_findRow, m_update, m_insert, m_deleteEntry;
  Statement m_findSection, m_insertSection, m_dropSection, m_deleteEntries;
  Statement m_findApplication, m_insertApplication, m_dropApplication, m_deleteApplicationEntries,
      m_deleteApplicationSections;
  Statement m_listEntries, m_listSections, m_listApplications;
};

}  // namespace quenmark::platform
