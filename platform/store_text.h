// Values of the store as text on a terminal or a command line.
#pragma once

#include <string>
#include <string_view>

namespace quenmark::platform {

// TAB, LF, CR and backslash as \t \n \r \\, so that a name or value stays on its line and in its column.
std::string EscapeLine(std::string_view text);

// Base64 with padding and without line breaks (RFC 4648 §4).
std::string EncodeBase64(std::string_view bytes);

}  // namespace quenmark::platform
