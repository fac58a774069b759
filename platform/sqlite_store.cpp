#include "platform/sqlite_store.h"

#include "platform/store_core.h"

#include <filesystem>
#include <system_error>
#include <utility>

namespace quenmark::platform {

std::unique_ptr<SqliteStore> SqliteStore::Open(const std::string& path, Clock& clock,
                                               std::chrono::milliseconds busyLimit) {
  if (path.empty()) {
    throw RunTimeError(kErrorStoreFault,
                       "There is no place for the settings store: neither FEEDER_STORE nor a home directory is set.");
  }
  // Whatever link it is reached by, every process uses the same files beside it.
  std::error_code unresolved;
  std::filesystem::path whole = std::filesystem::absolute(path, unresolved);
  if (auto resolved = std::filesystem::weakly_canonical(whole, unresolved); !unresolved) whole = std::move(resolved);
  return std::make_unique<SqliteStore>(std::make_unique<Core>(whole.string(), clock, busyLimit));
}

SqliteStore::SqliteStore(std::unique_ptr<Core> core) : m_core(std::move(core)) {}

SqliteStore::~SqliteStore() = default;

void SqliteStore::AttachTo(MessageLoop& loop) {
  m_core->AttachTo(loop);
}

void SqliteStore::OnFault(std::function<void(const std::string&)> report) {
  m_core->OnFault(std::move(report));
}

void SqliteStore::Read(std::string_view application, std::string_view section, std::string_view key,
                       std::string& value) {
  m_core->Read(application, section, key, value);
}

void SqliteStore::SaveSetting(std::string_view application, std::string_view section, std::string_view key,
                              std::string_view value) {
  m_core->Save(application, section, key, value);
}

SettingsStore::Pairs SqliteStore::GetAllSettings(std::string_view application, std::string_view section) {
  return m_core->List(application, section);
}

std::uint64_t SqliteStore::SectionRevision(std::string_view application, std::string_view section) {
  return m_core->Revision(application, section);
}

void SqliteStore::DeleteSetting(std::string_view application, std::string_view section, std::string_view key) {
  m_core->DeleteSetting(application, section, key);
}

void SqliteStore::DeleteSection(std::string_view application, std::string_view section) {
  m_core->DeleteSection(application, section);
}

void SqliteStore::DeleteApplication(std::string_view application) {
  m_core->DeleteApplication(application);
}

std::vector<std::string> SqliteStore::Applications() {
  return m_core->Applications();
}

std::vector<std::string> SqliteStore::Sections(std::string_view application) {
  return m_core->Sections(application);
}

void SqliteStore::Flush() {
  m_core->Flush();
}

}  // namespace quenmark::platform
