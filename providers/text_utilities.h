// Decoders for texts that are stored or scraped. None of them fails: what cannot be decoded ends the result or stays.
#pragma once

#include <string>
#include <string_view>

namespace quenmark::providers {

// The decoded bytes, each as one character of Windows-1252, as UTF-8. White space is skipped; decoding ends at the
// first group of four that holds another character.
std::string Base64DecodeText(std::string_view base64);

// "+" is a blank; %uXXXX, UTF-8 escapes of one, two and three bytes, and Windows-1252 bytes below %C0 and from %F0 on.
std::string UrlDecode(std::string_view text);

// True when the pattern (ECMAScript syntax, case ignored) matches somewhere in the text. False for a pattern that is
// none and for texts above 64 KB. Patterns are this program's own: the engine backtracks.
bool RegexTest(std::string_view text, std::string_view pattern);

}  // namespace quenmark::providers
