// Text of messages.
#pragma once

#include <string>
#include <string_view>

namespace quenmark::websocket {

bool IsUtf8(std::string_view text);
// Replaces what is malformed by U+FFFD; leaves well-formed text as it is.
void RepairUtf8(std::string& text);

}  // namespace quenmark::websocket
