#include "providers/text_pieces.h"

#include <fmt/format.h>

#include <iterator>

namespace quenmark::providers {
namespace {

// The text with these characters as %XX.
std::string Escaped(std::string_view text, std::string_view special) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    if (special.find(c) == std::string_view::npos) {
      escaped += c;
    } else {
      fmt::format_to(std::back_inserter(escaped), "%{:02X}", c);
    }
  }
  return escaped;
}

}  // namespace

std::string ReplaceAll(std::string_view text, std::string_view from, std::string_view to) {
  if (from.empty()) return std::string(text);
  std::string result;
  result.reserve(text.size());
  for (;;) {
    const std::size_t found = text.find(from);
    result += text.substr(0, found);
    if (found == std::string_view::npos) return result;
    result += to;
    text.remove_prefix(found + from.size());
  }
}

std::string WithoutCharacters(std::string_view text, std::string_view dropped) {
  std::string result;
  result.reserve(text.size());
  for (const char c : text) {
    if (dropped.find(c) == std::string_view::npos) result += c;
  }
  return result;
}

std::string_view Trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::vector<std::string_view> Split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  if (text.empty()) return pieces;
  for (;;) {
    const std::size_t end = text.find(separator);
    pieces.push_back(text.substr(0, end));
    if (end == std::string_view::npos) return pieces;
    text.remove_prefix(end + 1);
  }
}

std::string_view AfterLast(std::string_view text, std::string_view marker) {
  const std::size_t found = text.rfind(marker);
  return found == std::string_view::npos ? std::string_view{} : text.substr(found + marker.size());
}

std::string InQuery(std::string_view symbols) {
  return Escaped(symbols, "%&#+");
}

std::string InPath(std::string_view symbols) {
  return Escaped(symbols, "%?#");
}

std::string_view ScalarAfter(std::string_view text, std::string_view marker) {
  const std::size_t found = text.find(marker);
  if (found == std::string_view::npos) return {};
  text.remove_prefix(found + marker.size());
  return Trimmed(text.substr(0, text.find(',')));
}

}  // namespace quenmark::providers
