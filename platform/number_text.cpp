#include "platform/number_text.h"

#include "platform/run_time_error.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace quenmark::platform {

namespace {

// The longest shortest-form text of a finite double: sign, "0.", 323 zeros and 17 digits.
constexpr std::size_t kLongestNumberText = 400;

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

std::string_view TrimBlanks(std::string_view text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// [sign] digits [. digits] [e [sign] digits], with a digit in front of or behind the dot.
bool IsPlainNumber(std::string_view text) {
  std::size_t at = 0;
  const auto skipDigits = [&] {
    const std::size_t start = at;
    while (at < text.size() && IsDigit(text[at])) ++at;
    return at - start;
  };
  const auto skipSign = [&] {
    if (at < text.size() && (text[at] == '+' || text[at] == '-')) ++at;
  };
  skipSign();
  std::size_t digits = skipDigits();
  if (at < text.size() && text[at] == '.') {
    ++at;
    digits += skipDigits();
  }
  if (digits == 0) return false;
  if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
    ++at;
    skipSign();
    if (skipDigits() == 0) return false;
  }
  return at == text.size();
}

// Powers of ten that a double holds exactly, as many as are needed here.
constexpr std::array<double, 16> kTens = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                          1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};

// Up to 15 digits with at most one dot, as prices are: the digits as a whole number and the power of ten are exact, so
// their quotient is rounded once, like the number itself. Nothing for any other text.
std::optional<double> ReadShortNumber(std::string_view text) {
  constexpr std::size_t kMostDigits = 15;
  if (text.empty() || text.size() > kMostDigits + 1) return std::nullopt;
  std::int64_t whole = 0;
  std::size_t dot = text.size();
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (IsDigit(text[at])) {
      whole = whole * 10 + (text[at] - '0');
    } else if (text[at] == '.' && dot == text.size()) {
      dot = at;
    } else {
      return std::nullopt;
    }
  }
  const bool hasDot = dot < text.size();
  const std::size_t digits = text.size() - (hasDot ? 1 : 0);
  if (digits == 0 || digits > kMostDigits) return std::nullopt;
  return static_cast<double>(whole) / kTens[hasDot ? digits - dot : 0];
}

// The digits of a value, sign aside, as text with "." as mark.
class DigitText {
 public:
  explicit DigitText(double value) {
    if (!std::isfinite(value)) throw RunTimeError(kErrorOverflow, "Overflow");
    value = std::abs(value);
    if (!WriteShort(value)) End(std::to_chars(Begin(), Limit(), value, std::chars_format::fixed).ptr);
  }
  std::string_view View() const { return {m_buffer.data(), m_size}; }

 private:
  // A value with at most four decimals, as prices are. Two texts of up to 15 digits never mean the same double, so the
  // one found, without zeros at its end, is the shortest.
  bool WriteShort(double value) {
    constexpr std::int64_t kScale = 10'000;
    constexpr double kLargest = 1e10;
    if (value > kLargest) return false;
    auto scaled = static_cast<std::int64_t>(value * kScale);  // or one more, as the product was rounded
    if (static_cast<double>(scaled) / kScale != value) ++scaled;
    if (static_cast<double>(scaled) / kScale != value) return false;
    char* end = std::to_chars(Begin(), Limit(), scaled / kScale).ptr;
    std::int64_t fraction = scaled % kScale;
    if (fraction != 0) *end++ = '.';
    for (std::int64_t unit = kScale / 10; fraction != 0; unit /= 10) {
      *end++ = static_cast<char>('0' + fraction / unit);
      fraction %= unit;
    }
    End(end);
    return true;
  }
  char* Begin() { return m_buffer.data(); }
  char* Limit() { return m_buffer.data() + m_buffer.size(); }
  void End(const char* end) { m_size = static_cast<std::size_t>(end - m_buffer.data()); }

  std::array<char, kLongestNumberText> m_buffer;
  std::size_t m_size = 0;
};

// A number of moderate size without grouping, when its rounding is beyond doubt: the digits that decide it differ from
// the value by far less than the distance from a half that is asked for. False otherwise.
bool FormatShort(double value, int decimals, char decimalMark, std::string& text) {
  constexpr double kLargest = 1e9;
  constexpr double kDoubt = 1e-3;
  if (decimals < 0 || decimals > 4) return false;
  const double scaled = std::abs(value) * kTens[static_cast<std::size_t>(decimals)];
  if (!(scaled < kLargest)) return false;
  auto units = static_cast<std::int64_t>(scaled);
  const double rest = scaled - static_cast<double>(units);
  if (std::abs(rest - 0.5) < kDoubt) return false;
  if (rest > 0.5) ++units;
  std::array<char, 16> digits;
  char* const limit = digits.data() + digits.size();
  char* begin = limit;
  const bool isNegative = value < 0 && units != 0;
  for (int place = 0; place <= decimals || units != 0; ++place, units /= 10) {
    if (place == decimals && place > 0) *--begin = decimalMark;
    *--begin = static_cast<char>('0' + units % 10);
  }
  if (isNegative) *--begin = '-';
  text.assign(begin, limit);
  return true;
}

// Adds one unit at the last digit of a text of digits with at most one dot.
void Increment(std::string& digits) {
  for (std::size_t at = digits.size(); at-- > 0;) {
    if (digits[at] == '.') continue;
    if (digits[at] != '9') {
      ++digits[at];
      return;
    }
    digits[at] = '0';
  }
  digits.insert(digits.begin(), '1');
}

}  // namespace

void AppendNumber(std::string& text, double value, const Locale& locale) {
  const DigitText digits(value);
  if (value < 0) text += '-';
  const std::size_t start = text.size();
  text += digits.View();
  if (locale.decimalMark == '.') return;
  const std::size_t mark = text.find('.', start);
  if (mark != std::string::npos) text[mark] = locale.decimalMark;
}

std::string NumberText(double value, const Locale& locale) {
  std::string text;
  AppendNumber(text, value, locale);
  return text;
}

std::string WithDotMark(std::string_view text) {
  std::string result(text);
  const std::size_t lastComma = text.rfind(',');
  const std::size_t lastDot = text.rfind('.');
  if (lastComma == std::string_view::npos) return result;
  const bool commaIsMark = lastDot == std::string_view::npos || lastComma > lastDot;
  result.erase(std::remove(result.begin(), result.end(), commaIsMark ? '.' : ','), result.end());
  std::replace(result.begin(), result.end(), ',', '.');
  return result;
}

std::optional<double> ParseNumber(std::string_view text) {
  if (const std::optional<double> value = ReadShortNumber(text)) return value;
  text = TrimBlanks(text);
  std::string withDot;
  if (text.find(',') != std::string_view::npos) {
    withDot = WithDotMark(text);
    text = withDot;
  }
  if (!IsPlainNumber(text)) return std::nullopt;
  if (text.front() == '+') text.remove_prefix(1);
  double value = 0;
  const std::from_chars_result result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec != std::errc{}) return std::nullopt;
  return value;
}

double ReadNumber(std::string_view text) {
  return ParseNumber(text).value_or(0);
}

bool IsNumeric(std::string_view text) {
  return ParseNumber(text).has_value();
}

std::string FormatDecimal(double value, int decimals, bool grouping, char decimalMark) {
  std::string rounded;
  if (!grouping && FormatShort(value, decimals, decimalMark, rounded)) return rounded;
  const DigitText exact(value);
  const std::string_view digits = exact.View();
  const std::size_t places = static_cast<std::size_t>(std::max(decimals, 0));
  const std::size_t dot = std::min(digits.find('.'), digits.size());
  const std::string_view fraction = digits.substr(std::min(dot + 1, digits.size()));

  rounded = digits.substr(0, dot);
  if (places > 0) {
    rounded += '.';
    rounded += fraction.substr(0, places);
    if (fraction.size() < places) rounded.append(places - fraction.size(), '0');
  }
  if (fraction.size() > places && fraction[places] >= '5') Increment(rounded);

  const bool isZero = rounded.find_first_not_of("0.") == std::string::npos;
  std::size_t wholeDigits = std::min(rounded.find('.'), rounded.size());
  if (wholeDigits < rounded.size()) rounded[wholeDigits] = decimalMark;
  if (grouping) {
    const char groupMark = decimalMark == '.' ? ',' : '.';
    while (wholeDigits > 3) {
      wholeDigits -= 3;
      rounded.insert(wholeDigits, 1, groupMark);
    }
  }
  if (value < 0 && !isZero) rounded.insert(rounded.begin(), '-');
  return rounded;
}

}  // namespace quenmark::platform
