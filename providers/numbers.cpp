#include "providers/numbers.h"

#include "platform/run_time_error.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

namespace quenmark::providers {

namespace {

constexpr int kMostDecimals = std::numeric_limits<std::int16_t>::max();

[[noreturn]] void RaiseInvalidCall() {
  throw platform::RunTimeError(platform::kErrorInvalidCall, "Invalid procedure call or argument");
}

// What a pattern asks for.
struct Pattern {
  bool grouping = false;
  std::size_t wholeDigits = 0;     // at least
  std::size_t decimals = 0;        // at most
  std::size_t neededDecimals = 0;  // at least
};

std::optional<Pattern> ReadPattern(std::string_view text) {
  if (text.empty() || text.find_first_not_of("#0,.") != std::string_view::npos) return std::nullopt;
  const std::size_t dot = std::min(text.find('.'), text.size());
  const std::string_view whole = text.substr(0, dot);
  const std::string_view fraction = text.substr(std::min(dot + 1, text.size()));
  if (fraction.find_first_of(".,") != std::string_view::npos || fraction.size() > kMostDecimals) return std::nullopt;
  Pattern pattern;
  pattern.grouping = whole.find(',') != std::string_view::npos;
  pattern.wholeDigits = static_cast<std::size_t>(std::count(whole.begin(), whole.end(), '0'));
  pattern.decimals = fraction.size();
  const std::size_t lastNeeded = fraction.rfind('0');
  pattern.neededDecimals = lastNeeded == std::string_view::npos ? 0 : lastNeeded + 1;
  return pattern;
}

// A locale's decimal mark; the group mark is the other of "." and ",".
char DecimalMark(std::int32_t localeId, const platform::Locale& system) {
  const bool isFixed = localeId == platform::kLocaleInvariant || localeId == platform::kLocaleEnglishUs;
  return isFixed ? '.' : system.decimalMark;
}

}  // namespace

std::string VFormat::Format(double value, std::string_view pattern) const {
  const std::optional<Pattern> parts = ReadPattern(pattern);
  if (!parts) RaiseInvalidCall();
  const char mark = DecimalMark(m_localeId, m_system);
  std::string text = platform::FormatDecimal(value, static_cast<int>(parts->decimals), parts->grouping, mark);
  for (std::size_t spare = parts->decimals - parts->neededDecimals; spare > 0 && text.back() == '0'; --spare) {
    text.pop_back();
  }
  if (parts->decimals > 0 && text.back() == mark) text.pop_back();
  const std::size_t sign = text.front() == '-' ? 1 : 0;
  const std::size_t whole = std::min(text.find(mark), text.size()) - sign;
  if (whole < parts->wholeDigits) text.insert(sign, parts->wholeDigits - whole, '0');
  if (parts->wholeDigits == 0 && whole == 1 && text[sign] == '0') text.erase(sign, 1);
  return text;
}

std::string VFormat::Format(std::string_view value, std::string_view pattern) const {
  const std::optional<double> number = platform::ParseNumber(value);
  if (!number) RaiseInvalidCall();
  return Format(*number, pattern);
}

std::string FormatNum(double value, int decimals, bool grouping, std::int32_t localeId, bool localSeparators,
                      const platform::Locale& system) {
  if (!std::isfinite(value)) return "0";
  const char localeMark = DecimalMark(localeId, system);
  std::string text = platform::FormatDecimal(value, std::clamp(decimals, 0, kMostDecimals), grouping, localeMark);
  if (!localSeparators || localeMark == system.decimalMark) return text;
  for (char& c : text) {
    if (c == localeMark) {
      c = system.decimalMark;
    } else if (grouping && c == system.decimalMark) {
      c = localeMark;
    }
  }
  return text;
}

std::string FormatNum(std::string_view value, int decimals, bool grouping, std::int32_t localeId, bool localSeparators,
                      const platform::Locale& system) {
  const std::optional<double> number = platform::ParseNumber(value);
  if (!number) return "0";
  return FormatNum(*number, decimals, grouping, localeId, localSeparators, system);
}

double ToHundredths(double value) {
  const double rounded = ReadNumber(FormatNum(value, 2, false, platform::kLocaleEnglishUs, true));
  return ReadNumber(FormatNum(rounded * 100, 0, false, platform::kLocaleEnglishUs, true));
}

double ToHundredths(std::string_view value) {
  return ToHundredths(ReadNumber(value));
}

double Divide(double left, double right) {
  if (right == 0) {
    const bool isIndefinite = left == 0;
    throw platform::RunTimeError(isIndefinite ? platform::kErrorOverflow : platform::kErrorDivisionByZero,
                                 isIndefinite ? "Overflow" : "Division by zero");
  }
  const double quotient = left / right;
  if (!std::isfinite(quotient)) throw platform::RunTimeError(platform::kErrorOverflow, "Overflow");
  return quotient;
}

}  // namespace quenmark::providers
