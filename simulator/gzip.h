#pragma once

#include <string>
#include <string_view>

namespace quenmark::simulator {

// `text` in gzip form (RFC 1952). Throws std::runtime_error when memory is short.
std::string Gzip(std::string_view text);

}  // namespace quenmark::simulator
