#include "platform/number_text.h"
#include "providers/json.h"

#include <memory>
#include <type_traits>
#include <vector>

namespace quenmark::providers {

namespace {

// Copies elements into memory that is given back as a whole.
template <typename Element>
const Element* CopyInto(std::pmr::memory_resource& memory, std::span<const Element> elements) {
  static_assert(std::is_trivially_destructible_v<Element>);
  if (elements.empty()) return nullptr;
  auto* const copy = static_cast<Element*>(memory.allocate(elements.size_bytes(), alignof(Element)));
  std::uninitialized_copy(elements.begin(), elements.end(), copy);
  return copy;
}

}  // namespace

JsonDocument::JsonDocument() : m_memory(std::make_unique<std::pmr::monotonic_buffer_resource>()) {}

JsonValue JsonDocument::MakeText(std::string_view text) {
  return Wrap(JsonKind::kText, Keep(text));
}

JsonValue JsonDocument::MakeNumber(double value) {
  return Wrap(JsonKind::kNumber, Keep(platform::NumberText(value)));
}

JsonValue JsonDocument::MakeDate(const platform::CivilTime& time) {
  return {JsonKind::kDate, CopyInto(*m_memory, std::span(&time, 1)), 1};
}

JsonValue JsonDocument::MakeList(std::span<const JsonValue> items) {
  return KeepList(items);
}

JsonValue JsonDocument::MakeObject(std::span<const JsonMember> members) {
  std::vector<JsonMember> kept(members.begin(), members.end());
  for (JsonMember& member : kept) member.key = Keep(member.key);
  return KeepObject(kept);
}

std::string_view JsonDocument::Keep(std::string_view characters) {
  return {CopyInto(*m_memory, std::span(characters.data(), characters.size())), characters.size()};
}

JsonValue JsonDocument::Wrap(JsonKind kind, std::string_view characters) {
  return {kind, characters.data(), static_cast<std::uint32_t>(characters.size())};
}

JsonValue JsonDocument::KeepList(std::span<const JsonValue> items) {
  return {JsonKind::kList, CopyInto(*m_memory, items), static_cast<std::uint32_t>(items.size())};
}

JsonValue JsonDocument::KeepObject(std::span<const JsonMember> members) {
  return {JsonKind::kObject, CopyInto(*m_memory, members), static_cast<std::uint32_t>(members.size())};
}

}  // namespace quenmark::providers
