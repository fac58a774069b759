// The tolerant JSON parser and the serializer.
//
// The parser never fails: it collects complaints and returns what it has. Beyond JSON it takes comments, "(" and ")"
// between tokens, apostrophes around texts and keys, and keys without quotes. A value that consumes nothing ends its
// list or object; more than kJsonLevels levels of nesting end the whole parse. Cost is linear in the text, whatever it
// holds.
#pragma once

#include "providers/json_value.h"

#include <cstddef>
#include <memory>
#include <memory_resource>
#include <span>
#include <string>
#include <string_view>

namespace quenmark::providers {

inline constexpr std::size_t kJsonLevels = 512;
// Bytes of complaints kept; the one that crosses the limit is cut, later ones are dropped.
inline constexpr std::size_t kJsonErrorLimit = 1u << 20;
// Bytes of a text that is parsed at all; a longer one is "Invalid JSON".
inline constexpr std::size_t kJsonTextLimit = 1u << 30;

// Owns the memory of a tree. Moving it keeps all values valid.
class JsonDocument {
 public:
  JsonDocument();

  // The root object or list, null when the first significant character opened neither.
  const JsonValue* Root() const { return m_hasRoot ? &m_root : nullptr; }
  // The root, or an empty value when there is none.
  const JsonValue& Value() const { return m_root; }
  // The parser's complaints, "" when it had none.
  const std::string& GetParserErrors() const { return m_errors; }

  // Values made by hand; what they are made of is copied into the document.
  JsonValue MakeText(std::string_view text);
  JsonValue MakeNumber(double value);  // a value that is not finite is a RunTimeError (overflow)
  JsonValue MakeDate(const platform::CivilTime& time);
  JsonValue MakeList(std::span<const JsonValue> items);
  // Keys must be unique.
  JsonValue MakeObject(std::span<const JsonMember> members);

 private:
  friend class JsonParser;

  std::string_view Keep(std::string_view characters);
  // Values over memory that is the document's already.
  static JsonValue Wrap(JsonKind kind, std::string_view characters);
  JsonValue KeepList(std::span<const JsonValue> items);
  JsonValue KeepObject(std::span<const JsonMember> members);

  std::unique_ptr<std::pmr::monotonic_buffer_resource> m_memory;
  JsonValue m_root;
  bool m_hasRoot = false;
  std::string m_errors;
};

// Parses a copy of the text.
JsonDocument ParseJson(std::string_view text);

// The value as JSON text, ASCII except for what keys hold. Keys are written as they are. An empty value is "null".
std::string ToJson(const JsonValue& value);

}  // namespace quenmark::providers
