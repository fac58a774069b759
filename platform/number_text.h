// Numbers to text and back, without the C locale.
#pragma once

#include "platform/locale.h"

#include <optional>
#include <string>
#include <string_view>

namespace quenmark::platform {

// Shortest text that reads back to the same double, never grouped, never with an exponent, no sign on zero. A value
// that is not finite is a RunTimeError (overflow).
std::string NumberText(double value, const Locale& locale = {});
// The same, appended to `text`.
void AppendNumber(std::string& text, double value, const Locale& locale = {});

// A text read as a number: blanks trimmed, sign, the decimal-mark rule (with both "," and "." the later one is the
// mark, the other is dropped; a lone "," is the mark), exponent. Anything else is no number.
std::optional<double> ParseNumber(std::string_view text);
// The tolerant reader: what is no number reads as 0.
double ReadNumber(std::string_view text);
bool IsNumeric(std::string_view text);

// The text with "." as decimal mark and no grouping, by the same rule; the text itself is not checked.
std::string WithDotMark(std::string_view text);

// A number formatted with "#0", "#,##0", "#0.00", ... of the given locale: halves away from zero on the decimal digits
// of the shortest text, no sign on a result of zero.
std::string FormatDecimal(double value, int decimals, bool grouping, char decimalMark);

}  // namespace quenmark::platform
