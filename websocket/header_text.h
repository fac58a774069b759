// Text pieces that the URL, the request and the answer share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quenmark::websocket {

// Without blanks and tabs at both ends.
std::string_view Trim(std::string_view text);
// A whole decimal number with an optional sign, blanks around it ignored; nothing when it is none or leaves 32 bits.
std::optional<std::int32_t> ParseNumber(std::string_view text);
// First occurrence from `from` on, ASCII letters compared without regard to case; npos when there is none.
std::size_t FindIgnoreCase(std::string_view text, std::string_view wanted, std::size_t from = 0);
bool ContainsIgnoreCase(std::string_view text, std::string_view wanted);
// The items of a comma-separated list, each trimmed, joined by ", ". Empty items stay.
std::string NormaliseList(std::string_view list);
// The trimmed text between "name:" (anywhere in the block, any case) and the next CR LF; empty when either is missing.
std::string_view GetHeader(std::string_view block, std::string_view name);

}  // namespace quenmark::websocket
