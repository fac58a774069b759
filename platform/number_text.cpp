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

// The digits of a value, sign aside, as text with "." as mark.
class DigitText {
 public:
  explicit DigitText(double value) {
    if (!std::isfinite(value)) throw RunTimeError(kErrorOverflow, "Overflow");
    m_size = static_cast<std::size_t>(
        std::to_chars(m_buffer.data(), m_buffer.data() + m_buffer.size(), std::abs(value), std::chars_format::fixed)
            .ptr -
        m_buffer.data());
  }
  std::string_view View() const { return {m_buffer.data(), m_size}; }

 private:
  std::array<char, kLongestNumberText> m_buffer;
  std::size_t m_size = 0;
};

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
  const DigitText exact(value);
  const std::string_view digits = exact.View();
  const std::size_t places = static_cast<std::size_t>(std::max(decimals, 0));
  const std::size_t dot = std::min(digits.find('.'), digits.size());
  const std::string_view fraction = digits.substr(std::min(dot + 1, digits.size()));

  std::string rounded(digits.substr(0, dot));
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
