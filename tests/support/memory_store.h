// The settings store's rules in their simplest form: a list of entries in stored order.
#pragma once

#include "platform/code_page.h"
#include "platform/settings_store.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::test {

class MemoryStore final : public platform::SettingsStore {
 public:
  void Read(std::string_view application, std::string_view section, std::string_view key, std::string& value) override {
    const Entry* entry = Find(application, section, key);
    value = entry == nullptr ? std::string{} : entry->value;
  }
  void SaveSetting(std::string_view application, std::string_view section, std::string_view key,
                   std::string_view value) override {
    ++m_revision;
    if (Entry* entry = Find(application, section, key)) {
      entry->value = value;
      return;
    }
    // The names keep the spelling of their first save.
    const auto spelled = std::find_if(m_entries.begin(), m_entries.end(),
                                      [&](const Entry& entry) { return Same(entry.application, application); });
    const auto inSection = std::find_if(m_entries.begin(), m_entries.end(), [&](const Entry& entry) {
      return Same(entry.application, application) && Same(entry.section, section);
    });
    Entry entry;
    entry.application = spelled == m_entries.end() ? std::string(application) : spelled->application;
    entry.section = inSection == m_entries.end() ? std::string(section) : inSection->section;
    entry.key = key;
    entry.value = value;
    m_entries.push_back(std::move(entry));
  }
  Pairs GetAllSettings(std::string_view application, std::string_view section) override {
    Pairs pairs;
    for (const Entry& entry : m_entries) {
      if (Same(entry.application, application) && Same(entry.section, section))
        pairs.emplace_back(entry.key, entry.value);
    }
    return pairs;
  }
  std::uint64_t SectionRevision(std::string_view, std::string_view) override { return m_revision; }
  void DeleteSetting(std::string_view application, std::string_view section, std::string_view key) override {
    Erase([&](const Entry& entry) {
      return Same(entry.application, application) && Same(entry.section, section) && Same(entry.key, key);
    });
  }
  void DeleteSection(std::string_view application, std::string_view section) override {
    Erase([&](const Entry& entry) { return Same(entry.application, application) && Same(entry.section, section); });
  }
  void DeleteApplication(std::string_view application) override {
    Erase([&](const Entry& entry) { return Same(entry.application, application); });
  }
  std::vector<std::string> Applications() override {
    std::vector<std::string> names;
    for (const Entry& entry : m_entries) AddOnce(names, entry.application);
    return names;
  }
  std::vector<std::string> Sections(std::string_view application) override {
    std::vector<std::string> names;
    for (const Entry& entry : m_entries) {
      if (Same(entry.application, application)) AddOnce(names, entry.section);
    }
    return names;
  }
  void Flush() override {}

 private:
  struct Entry {
    std::string application;
    std::string section;
    std::string key;
    std::string value;
  };

  static bool Same(std::string_view left, std::string_view right) {
    return platform::EqualsIgnoreAsciiCase(left, right);
  }
  static void AddOnce(std::vector<std::string>& names, const std::string& name) {
    if (std::none_of(names.begin(), names.end(), [&](const std::string& known) { return Same(known, name); })) {
      names.push_back(name);
    }
  }
  Entry* Find(std::string_view application, std::string_view section, std::string_view key) {
    const auto found = std::find_if(m_entries.begin(), m_entries.end(), [&](const Entry& entry) {
      return Same(entry.application, application) && Same(entry.section, section) && Same(entry.key, key);
    });
    return found == m_entries.end() ? nullptr : &*found;
  }
  template <typename Condition>
  void Erase(Condition condition) {
    if (std::erase_if(m_entries, condition) > 0) ++m_revision;
  }

  std::vector<Entry> m_entries;
  std::uint64_t m_revision = 1;
};

}  // namespace quenmark::test
