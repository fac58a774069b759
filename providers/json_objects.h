// The objects of one list of a JSON answer, found by structure rather than by a full parse.
#pragma once

#include <optional>
#include <string_view>

namespace quenmark::providers {

// Walks the top-level objects of a list. Braces and brackets inside texts and inside nested objects and lists do not
// count. An object that the text does not close is not handed out.
class JsonObjects {
 public:
  // `list` begins right behind the "[" of the list; the walk ends at the "]" that closes it or where the text ends.
  // The text must outlive the walk.
  explicit JsonObjects(std::string_view list) : m_rest(list) {}

  // The next object without its outer braces.
  std::optional<std::string_view> Next();

 private:
  std::string_view m_rest;
};

// What follows the first occurrence of `marker`, "" when it does not occur.
std::string_view TextAfter(std::string_view text, std::string_view marker);

}  // namespace quenmark::providers
