#include "providers/json_objects.h"

#include <cstddef>

namespace quenmark::providers {
namespace {

// Position behind the text literal that begins with the quote at `position`; the end of the text when it is not closed.
std::size_t SkipLiteral(std::string_view text, std::size_t position) {
  for (++position; position < text.size(); ++position) {
    if (text[position] == '\\') {
      ++position;
    } else if (text[position] == '"') {
      return position + 1;
    }
  }
  return text.size();
}

}  // namespace

std::optional<std::string_view> JsonObjects::Next() {
  std::size_t depth = 0;
  std::size_t start = 0;
  for (std::size_t position = 0; position < m_rest.size();) {
    const char c = m_rest[position];
    if (c == '"') {
      position = SkipLiteral(m_rest, position);
      continue;
    }
    ++position;
    if (c == '{' || c == '[') {
      if (depth++ == 0) start = position;
    } else if (c == '}' || c == ']') {
      if (depth == 0) break;
      if (--depth == 0 && c == '}') {
        const std::string_view object = m_rest.substr(start, position - 1 - start);
        m_rest.remove_prefix(position);
        return object;
      }
    }
  }
  m_rest = {};
  return std::nullopt;
}

std::string_view TextAfter(std::string_view text, std::string_view marker) {
  const std::size_t found = text.find(marker);
  return found == std::string_view::npos ? std::string_view{} : text.substr(found + marker.size());
}

}  // namespace quenmark::providers
