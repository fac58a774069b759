#include "websocket/header_text.h"

#include "platform/code_page.h"

#include <algorithm>
#include <charconv>

namespace quenmark::websocket {

namespace {}  // namespace

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kBlanks = " \t";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::optional<std::int32_t> ParseNumber(std::string_view text) {
  std::string_view digits = Trim(text);
  if (digits.starts_with('+')) {
    digits.remove_prefix(1);
    if (digits.starts_with('-')) return std::nullopt;
  }
  std::int32_t value = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, value);
  if (error != std::errc() || stop != end) return std::nullopt;
  return value;
}

std::size_t FindIgnoreCase(std::string_view text, std::string_view wanted, std::size_t from) {
  if (from > text.size()) return std::string_view::npos;
  const auto found =
      std::search(text.begin() + static_cast<std::ptrdiff_t>(from), text.end(), wanted.begin(), wanted.end(),
                  [](char a, char b) { return platform::AsciiLower(a) == platform::AsciiLower(b); });
  if (found == text.end() && !wanted.empty()) return std::string_view::npos;
  return static_cast<std::size_t>(found - text.begin());
}

bool ContainsIgnoreCase(std::string_view text, std::string_view wanted) {
  return FindIgnoreCase(text, wanted) != std::string_view::npos;
}

std::string NormaliseList(std::string_view list) {
  std::string_view rest = Trim(list);
  std::string result;
  if (rest.empty()) return result;
  for (;;) {
    const std::size_t comma = rest.find(',');
    result += Trim(rest.substr(0, comma));
    if (comma == std::string_view::npos) return result;
    result += ", ";
    rest.remove_prefix(comma + 1);
  }
}

std::string_view GetHeader(std::string_view block, std::string_view name) {
  std::string wanted(name);
  if (!name.ends_with(':')) wanted += ':';
  const std::size_t start = FindIgnoreCase(block, wanted);
  if (start == std::string_view::npos) return {};
  const std::size_t value = start + wanted.size();
  const std::size_t end = block.find("\r\n", value);
  if (end == std::string_view::npos) return {};
  return Trim(block.substr(value, end - value));
}

}  // namespace quenmark::websocket
