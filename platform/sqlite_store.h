// The settings store in a SQLite file: docs/formats/store.md describes the file and how processes share it.
//
// Writes collect in memory and are committed together: by Flush, by the loop's turn hook, or by the first write that
// comes 1 ms or more after the first of them. Values read are kept in memory and are read again once another process
// has committed anything; every read looks for that, which costs a few nanoseconds. Listing (GetAllSettings,
// Applications, Sections) commits first.
#pragma once

#include "platform/clock.h"
#include "platform/run_time_error.h"
#include "platform/settings_store.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::platform {

class MessageLoop;

inline constexpr std::int32_t kErrorStoreFault = 57;  // the store or its device failed, or the file is not a store
inline constexpr std::int32_t kErrorStoreBusy = 70;   // another process kept the store locked for too long

// Longest application, section or key, and longest value, in bytes; longer ones are a RunTimeError.
inline constexpr std::size_t kStoreNameLimit = 16u << 20;
inline constexpr std::size_t kStoreValueLimit = 512u << 20;

class SqliteStore final : public SettingsStore {
 public:
  // Opens the store, creating the file and its missing folders. Faults are RunTimeErrors of one sentence: no path, a
  // folder that cannot be made, a file that is not a settings store or was written by a newer version (it is left as it
  // is), a store that stays locked for longer than `busyLimit`. The clock must outlive the store.
  static std::unique_ptr<SqliteStore> Open(const std::string& path, Clock& clock,
                                           std::chrono::milliseconds busyLimit = std::chrono::seconds{10});
  // Commits what is pending as well as it can.
  ~SqliteStore() override;
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;

  // Commits before the loop sleeps, and in a burst 1 ms after the first write. A commit that fails is tried again until
  // it succeeds; its writes stay readable meanwhile. Takes the loop's turn hook; either may be destroyed first.
  void AttachTo(MessageLoop& loop);
  // Told once when a commit of the turn hook or of SaveSetting begins to fail.
  void OnFault(std::function<void(const std::string& description)> report);

  // Throws when the store cannot be read.
  void Read(std::string_view application, std::string_view section, std::string_view key, std::string& value) override;
  // Does nothing when the store already holds just this value. Throws when a name or the value is too long, or when
  // failing commits have left more than 64 MB pending.
  void SaveSetting(std::string_view application, std::string_view section, std::string_view key,
                   std::string_view value) override;
  Pairs GetAllSettings(std::string_view application, std::string_view section) override;
  // After another process's commit this scans the section once.
  std::uint64_t SectionRevision(std::string_view application, std::string_view section) override;
  void DeleteSetting(std::string_view application, std::string_view section, std::string_view key) override;
  void DeleteSection(std::string_view application, std::string_view section) override;
  void DeleteApplication(std::string_view application) override;
  std::vector<std::string> Applications() override;
  std::vector<std::string> Sections(std::string_view application) override;
  // Throws when the commit fails; the writes stay pending then.
  void Flush() override;

 private:
  class Core;

 public:
  explicit SqliteStore(std::unique_ptr<Core> core);  // for Open

 private:
  std::unique_ptr<Core> m_core;
};

}  // namespace quenmark::platform
