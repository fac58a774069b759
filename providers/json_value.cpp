#include "providers/json_value.h"

#include "platform/date_text.h"
#include "platform/number_text.h"
#include "platform/run_time_error.h"

namespace quenmark::providers {

namespace {

constexpr std::int32_t kErrorInvalidUseOfNull = 94;

[[noreturn]] void RaiseInvalidUseOfNull() {
  throw platform::RunTimeError(kErrorInvalidUseOfNull, "Invalid use of Null");
}

}  // namespace

JsonValue JsonValue::Null() {
  return {JsonKind::kNull, nullptr, 0};
}

JsonValue JsonValue::OfBoolean(bool value) {
  return {JsonKind::kBoolean, nullptr, value ? 1u : 0u};
}

std::span<const JsonValue> JsonValue::Items() const {
  if (m_kind != JsonKind::kList) return {};
  return {static_cast<const JsonValue*>(m_data), m_size};
}

std::span<const JsonMember> JsonValue::Members() const {
  if (m_kind != JsonKind::kObject) return {};
  return {static_cast<const JsonMember*>(m_data), m_size};
}

const JsonValue* JsonValue::Find(std::string_view key) const {
  for (const JsonMember& member : Members()) {
    if (member.key == key) return &member.value;
  }
  return nullptr;
}

const JsonValue& JsonValue::At(std::string_view key) const {
  static const JsonValue none;
  const JsonValue* const found = Find(key);
  return found == nullptr ? none : *found;
}

std::string_view JsonValue::Characters() const {
  if (m_kind != JsonKind::kText && m_kind != JsonKind::kNumber) return {};
  return {static_cast<const char*>(m_data), m_size};
}

std::string JsonValue::Text() const {
  switch (m_kind) {
    case JsonKind::kEmpty:
      return {};
    case JsonKind::kNull:
      RaiseInvalidUseOfNull();
    case JsonKind::kBoolean:
      return m_size != 0 ? "True" : "False";
    case JsonKind::kNumber:
    case JsonKind::kText:
      return std::string(Characters());
    case JsonKind::kDate: {
      const platform::CivilTime time = Date();
      const bool midnight = platform::SecondsSinceMidnight(time) == 0;
      return platform::FormatPattern(time, midnight ? "dd/mm/yyyy" : "dd/mm/yyyy HH:MM:ss");
    }
    case JsonKind::kObject:
    case JsonKind::kList:
      break;
  }
  platform::RaiseTypeMismatch();
}

double JsonValue::Number() const {
  switch (m_kind) {
    case JsonKind::kEmpty:
      return 0;
    case JsonKind::kNull:
      RaiseInvalidUseOfNull();
    case JsonKind::kBoolean:
      return m_size != 0 ? -1 : 0;
    case JsonKind::kNumber:
    case JsonKind::kText: {
      const std::optional<double> number = platform::ParseNumber(Characters());
      if (number) return *number;
      break;
    }
    case JsonKind::kDate:
    case JsonKind::kObject:
    case JsonKind::kList:
      break;
  }
  platform::RaiseTypeMismatch();
}

platform::CivilTime JsonValue::Date() const {
  return m_kind == JsonKind::kDate ? *static_cast<const platform::CivilTime*>(m_data) : platform::CivilTime{};
}

}  // namespace quenmark::providers
