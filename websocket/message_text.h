// Text of messages.
#pragma once

#include <string>
#include <string_view>

namespace quenmark::websocket {

bool IsUtf8(std::string_view text);
// The text itself when it is well-formed, otherwise `repaired`, which gets it with U+FFFD for what is malformed.
std::string_view AsUtf8(std::string_view text, std::string& repaired);

}  // namespace quenmark::websocket
