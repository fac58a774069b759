// Number text that providers and the charting application agree on.
#pragma once

#include "platform/locale.h"
#include "platform/number_text.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace quenmark::providers {

using platform::IsNumeric;
using platform::ReadNumber;

// A number format engine with a locale of its own.
class VFormat {
 public:
  // `system` gives the marks of every locale but 127 and 1033.
  explicit VFormat(const platform::Locale& system = {}) : m_system(system) {}

  std::int32_t LCID() const { return m_localeId; }
  void LCID(std::int32_t localeId) { m_localeId = localeId; }

  // Formats with a pattern of "#" and "0", with "," between them for grouping and "." before the decimals, halves
  // rounded away from zero. A text is read as a number. Any other pattern, and a text that is no number, is
  // RunTimeError 5.
  std::string Format(double value, std::string_view pattern) const;
  std::string Format(std::string_view value, std::string_view pattern) const;

 private:
  platform::Locale m_system;
  std::int32_t m_localeId = platform::kLocaleInvariant;
};

// The value with that many decimals, halves rounded away from zero, no sign on zero. `localSeparators` exchanges the
// marks of locale `localeId` for the system's. What is not numeric gives "0".
std::string FormatNum(double value, int decimals, bool grouping, std::int32_t localeId, bool localSeparators,
                      const platform::Locale& system = {});
std::string FormatNum(std::string_view value, int decimals, bool grouping, std::int32_t localeId, bool localSeparators,
                      const platform::Locale& system = {});

// The value in hundredths, rounded: first to two decimals, then to a whole number. 0 for what is not numeric.
double ToHundredths(double value);
double ToHundredths(std::string_view value);

// left / right. Division by zero is RunTimeError 11 (0 / 0 is 6), a result out of range is 6.
double Divide(double left, double right);

}  // namespace quenmark::providers
