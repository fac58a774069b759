// One value of a JSON tree. The tree's memory belongs to the JsonDocument that made it; values, members and the texts
// they give out stay valid until that document goes away.
#pragma once

#include "platform/clock.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace quenmark::providers {

struct JsonMember;

enum class JsonKind : std::uint8_t {
  kEmpty,  // no value: a number that did not convert, or a key that is not there
  kNull,
  kBoolean,
  kNumber,  // a decimal of up to 29 digits, 28 of them behind the mark
  kText,
  kDate,
  kObject,  // unique keys, in order of insertion
  kList,
};

class JsonValue {
 public:
  JsonValue() = default;  // empty
  static JsonValue Null();
  static JsonValue OfBoolean(bool value);

  JsonKind Kind() const { return m_kind; }
  bool IsEmpty() const { return m_kind == JsonKind::kEmpty; }
  bool IsNull() const { return m_kind == JsonKind::kNull; }
  bool IsNumber() const { return m_kind == JsonKind::kNumber; }
  bool IsText() const { return m_kind == JsonKind::kText; }
  bool IsObject() const { return m_kind == JsonKind::kObject; }
  bool IsList() const { return m_kind == JsonKind::kList; }

  // The elements of a list and the members of an object; none for every other kind.
  std::span<const JsonValue> Items() const;
  std::span<const JsonMember> Members() const;

  // The member of that key (case-sensitive), null when there is none or this is no object.
  const JsonValue* Find(std::string_view key) const;
  // The same, an empty value when there is none: at.At("quotes").At("quote") asks without checks.
  const JsonValue& At(std::string_view key) const;

  // The characters of a text, or of a number in plain decimal form (no exponent, no needless zeros); "" for other
  // kinds.
  std::string_view Characters() const;
  // What the value gives where a text is wanted: numbers in plain decimal form, "True" or "False", dates as
  // dd/mm/yyyy HH:MM:ss without a time of midnight, "" when empty. Null is RunTimeError 94, an object or list 13.
  std::string Text() const;
  // What the value gives where a number is wanted: texts through the tolerant reader, true is -1, empty is 0. Null is
  // RunTimeError 94; a text that is no number, a date, an object or a list is 13.
  double Number() const;
  // False for every kind but a true Boolean.
  bool Boolean() const { return m_kind == JsonKind::kBoolean && m_size != 0; }
  // The time of a date, 1970-01-01 for every other kind.
  platform::CivilTime Date() const;

 private:
  friend class JsonDocument;
  JsonValue(JsonKind kind, const void* data, std::uint32_t size) : m_data(data), m_size(size), m_kind(kind) {}

  const void* m_data = nullptr;  // characters, JsonValue[], JsonMember[] or CivilTime, by kind
  std::uint32_t m_size = 0;      // how many of them; a Boolean's value
  JsonKind m_kind = JsonKind::kEmpty;
};

struct JsonMember {
  std::string_view key;
  JsonValue value;
};

}  // namespace quenmark::providers
