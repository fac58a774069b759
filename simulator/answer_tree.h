// What an endpoint answers, before it becomes JSON or XML. Numbers are kept as the text that is sent, so that they are
// exact.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quenmark::simulator {

struct Node {
  enum class Kind { kNull, kNumber, kText, kObject, kList };

  Kind kind = Kind::kNull;
  std::string text;                // kNumber, kText
  std::vector<std::string> names;  // kObject: one per entry of `values`, in sending order
  std::vector<Node> values;        // kObject, kList

  static Node Null() { return {}; }
  static Node Number(std::string text) { return {Kind::kNumber, std::move(text), {}, {}}; }
  static Node Number(std::int64_t value) { return Number(std::to_string(value)); }
  static Node Text(std::string text) { return {Kind::kText, std::move(text), {}, {}}; }
  static Node List(std::vector<Node> elements) { return {Kind::kList, {}, {}, std::move(elements)}; }
  static Node Object() { return {Kind::kObject, {}, {}, {}}; }

  bool operator==(const Node&) const = default;

  // Appends an entry to an object and returns the object.
  Node& Add(std::string name, Node value);
};

// How the providers write a list: null for none, the bare element for one, a list for more.
Node ProviderList(std::vector<Node> elements);

// The same tree with every number as text: what was sent, character by character.
Node AsSentTexts(const Node& node);

std::string ToJson(const Node& node);
// An object's entries become elements; an entry of a list repeats its element's name.
std::string ToXml(const Node& node);

// `text` between double quotes. Bytes that are not UTF-8 become U+FFFD.
std::string QuotedJson(std::string_view text);

// `value` in units of 10^-decimals as the providers write numbers: trailing zeros cut, at least one decimal (284.0).
std::string DecimalText(std::int64_t value, int decimals);

}  // namespace quenmark::simulator
