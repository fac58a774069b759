// The settings store: string values addressed by application name, section and key, shared by several processes.
//
// Names compare without regard to the case of A to Z and keep the spelling of their first save. A missing value reads
// as "". Stored order is the order of first insertion: saving an existing key keeps its place, deleting and saving
// again moves it to the end. Names and values may hold any bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quenmark::platform {

class SettingsStore {
 public:
  using Pairs = std::vector<std::pair<std::string, std::string>>;  // key, value

  virtual ~SettingsStore() = default;

  // Reads one value into `value` ("" when missing), reusing its memory.
  virtual void Read(std::string_view application, std::string_view section, std::string_view key,
                    std::string& value) = 0;
  std::string GetSetting(std::string_view application, std::string_view section, std::string_view key) {
    std::string value;
    Read(application, section, key, value);
    return value;
  }

  // Creates or replaces one value. The caller sees it at once, others after the next commit.
  virtual void SaveSetting(std::string_view application, std::string_view section, std::string_view key,
                           std::string_view value) = 0;

  // All pairs of a section in stored order.
  virtual Pairs GetAllSettings(std::string_view application, std::string_view section) = 0;

  // A number that changes whenever anything in the section has changed, by this process or another. Equal numbers mean
  // an unchanged section; the values themselves mean nothing.
  virtual std::uint64_t SectionRevision(std::string_view application, std::string_view section) = 0;

  // Deleting what is not there does nothing.
  virtual void DeleteSetting(std::string_view application, std::string_view section, std::string_view key) = 0;
  virtual void DeleteSection(std::string_view application, std::string_view section) = 0;
  virtual void DeleteApplication(std::string_view application) = 0;

  // Application names, and the sections of one, in stored order.
  virtual std::vector<std::string> Applications() = 0;
  virtual std::vector<std::string> Sections(std::string_view application) = 0;

  // Commits what has been written. Returns when other processes can read it.
  virtual void Flush() = 0;
};

}  // namespace quenmark::platform
