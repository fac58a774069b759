// Cutting and replacing in plain text.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::providers {

inline bool Contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

// Appends the pieces one after the other.
inline void AppendPieces(std::string& text, std::initializer_list<std::string_view> pieces) {
  for (const std::string_view piece : pieces) text.append(piece.data(), piece.size());
}

// Every occurrence replaced, once, from left to right; an empty `from` replaces nothing.
std::string ReplaceAll(std::string_view text, std::string_view from, std::string_view to);

// The text without any of these characters.
std::string WithoutCharacters(std::string_view text, std::string_view dropped);

// The text without leading and trailing blanks.
std::string_view Trimmed(std::string_view text);

// The pieces between the separators; an empty text has none. Views into `text`.
std::vector<std::string_view> Split(std::string_view text, char separator);

// What follows the last occurrence of the marker; "" when it does not occur.
std::string_view AfterLast(std::string_view text, std::string_view marker);

// The symbol, or symbols, as they may stand in the query of an address: a character that would end or change it there
// is written as %XX.
std::string InQuery(std::string_view symbols);

// The same in the path of an address.
std::string InPath(std::string_view symbols);

// What stands between the start marker and the next comma or the end of the text, trimmed; "" without the marker. So a
// JSON number is read whether or not another field follows it.
std::string_view ScalarAfter(std::string_view text, std::string_view marker);

}  // namespace quenmark::providers
