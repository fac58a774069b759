// JSON numbers as decimals: an integer of 96 bits, scaled by a power of ten from 0 to 28.
#pragma once

#include <string>
#include <string_view>

namespace quenmark::providers {

// True when the text is what DecimalText would make of it, so that no conversion is needed. May answer false for such a
// text that is long.
bool IsPlainDecimal(std::string_view text);

// Converts [sign] digits [. digits] [e [sign] digits] to plain decimal form: no exponent, no needless zeros, digits
// that 96 bits cannot hold rounded off (halves away from zero). False when the text is no such number or lies out of
// range.
bool DecimalText(std::string_view text, std::string& result);

}  // namespace quenmark::providers
