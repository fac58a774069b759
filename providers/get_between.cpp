#include "providers/get_between.h"

#include "providers/text_pieces.h"

#include <cstring>

namespace quenmark::providers {

namespace {

// Position of `marker` at or after `from`, npos when it does not occur. The C library's search stays linear for hostile
// texts and looks at many bytes at a time.
std::size_t FindMarker(std::string_view text, std::string_view marker, std::size_t from) {
  if (marker.empty()) return from;
  const char* const begin = text.data() + from;
  const std::size_t size = text.size() - from;
  const void* const found = marker.size() == 1 ? std::memchr(begin, static_cast<unsigned char>(marker.front()), size)
                                               : memmem(begin, size, marker.data(), marker.size());
  if (found == nullptr) return std::string_view::npos;
  return static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
}

}  // namespace

std::string_view GetBetween(std::string_view text, std::string_view start, std::string_view end) {
  if (text.empty()) return {};
  const std::size_t found = FindMarker(text, start, 0);
  if (found == std::string_view::npos) return {};
  const std::size_t first = found + start.size();
  const std::size_t last = FindMarker(text, end, first);
  if (last == std::string_view::npos) return {};
  return Trimmed(text.substr(first, last - first));
}

}  // namespace quenmark::providers
