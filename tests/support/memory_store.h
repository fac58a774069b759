// The settings store's rules in their simplest form: applications, sections and keys in the order of their first save.
#pragma once

#include "platform/code_page.h"
#include "platform/settings_store.h"

#include <string>
#include <string_view>
#include <vector>

namespace quenmark::test {

class MemoryStore final : public platform::SettingsStore {
 public:
  void Read(std::string_view application, std::string_view section, std::string_view key, std::string& value) override {
    const Node* node = Find(Find(Find(&m_root, application), section), key);
    value = node == nullptr ? "" : node->value;
  }
  void SaveSetting(std::string_view application, std::string_view section, std::string_view key,
                   std::string_view value) override {
    Make(Make(Make(m_root, application), section), key).value = value;
    ++m_revision;
  }
  Pairs GetAllSettings(std::string_view application, std::string_view section) override {
    Pairs pairs;
    if (const Node* parent = Find(Find(&m_root, application), section)) {
      for (const Node& node : parent->children) pairs.emplace_back(node.name, node.value);
    }
    return pairs;
  }
  std::uint64_t SectionRevision(std::string_view, std::string_view) override { return m_revision; }
  void DeleteSetting(std::string_view application, std::string_view section, std::string_view key) override {
    Node* parent = Find(&m_root, application);
    Remove(Find(parent, section), key);
    if (const Node* node = Find(parent, section); node != nullptr && node->children.empty()) Remove(parent, section);
    if (parent != nullptr && parent->children.empty()) Remove(&m_root, application);
  }
  void DeleteSection(std::string_view application, std::string_view section) override {
    Node* parent = Find(&m_root, application);
    Remove(parent, section);
    if (parent != nullptr && parent->children.empty()) Remove(&m_root, application);
  }
  void DeleteApplication(std::string_view application) override { Remove(&m_root, application); }
  std::vector<std::string> Applications() override { return Names(&m_root); }
  std::vector<std::string> Sections(std::string_view application) override { return Names(Find(&m_root, application)); }
  void Flush() override {}

 private:
  struct Node {
    std::string name;
    std::string value;
    std::vector<Node> children;
  };
  static Node* Find(Node* parent, std::string_view name) {
    if (parent == nullptr) return nullptr;
    for (Node& node : parent->children) {
      if (platform::EqualsIgnoreAsciiCase(node.name, name)) return &node;
    }
    return nullptr;
  }
  static Node& Make(Node& parent, std::string_view name) {
    if (Node* node = Find(&parent, name)) return *node;
    return parent.children.emplace_back(Node{std::string(name), {}, {}});
  }
  void Remove(Node* parent, std::string_view name) {
    const auto named = [&](const Node& node) { return platform::EqualsIgnoreAsciiCase(node.name, name); };
    if (parent != nullptr && std::erase_if(parent->children, named) > 0) ++m_revision;
  }
  static std::vector<std::string> Names(const Node* parent) {
    std::vector<std::string> names;
    if (parent == nullptr) return names;
    for (const Node& node : parent->children) names.push_back(node.name);
    return names;
  }

  Node m_root;
  std::uint64_t m_revision = 1;
};

}  // namespace quenmark::test
