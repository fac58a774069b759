#include "providers/json_number.h"

#include <algorithm>
#include <cstdint>

namespace quenmark::providers {

namespace {

constexpr std::string_view kLargest = "79228162514264337593543950335";  // 2^96 - 1
constexpr std::int64_t kMostPlaces = 28;
constexpr std::size_t kSafeDigits = 28;  // any number of so many digits fits
constexpr std::int64_t kExponentBound = 1'000'000'000'000;

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

// A number as it was written: digits without leading or trailing zeros, times ten to the exponent.
struct Scanned {
  bool negative = false;
  std::string digits;  // "" for zero
  std::int64_t exponent = 0;
};

class NumberScanner {
 public:
  explicit NumberScanner(std::string_view text) : m_text(text) {}

  bool Scan(Scanned& number) {
    number.negative = TakeSign();
    std::size_t count = TakeDigits(number.digits);
    if (Take('.')) {
      const std::size_t places = TakeDigits(number.digits);
      number.exponent = -static_cast<std::int64_t>(places);
      count += places;
    }
    if (count == 0) return false;
    if (Take('e') || Take('E')) {
      const bool negative = TakeSign();
      std::string digits;
      if (TakeDigits(digits) == 0) return false;
      std::int64_t written = 0;
      for (const char digit : digits) written = std::min(written * 10 + (digit - '0'), kExponentBound);
      number.exponent += negative ? -written : written;
    }
    if (m_at != m_text.size()) return false;
    number.digits.erase(0, std::min(number.digits.find_first_not_of('0'), number.digits.size()));
    while (!number.digits.empty() && number.digits.back() == '0') {
      number.digits.pop_back();
      ++number.exponent;
    }
    return true;
  }

 private:
  bool Take(char c) {
    if (m_at == m_text.size() || m_text[m_at] != c) return false;
    ++m_at;
    return true;
  }
  bool TakeSign() { return !Take('+') && Take('-'); }
  std::size_t TakeDigits(std::string& digits) {
    const std::size_t start = m_at;
    while (m_at < m_text.size() && IsDigit(m_text[m_at])) ++m_at;
    digits.append(m_text, start, m_at - start);
    return m_at - start;
  }

  std::string_view m_text;
  std::size_t m_at = 0;
};

// Keeps the first `kept` digits, rounded; the exponent follows.
Scanned Rounded(const Scanned& number, std::int64_t kept) {
  const auto size = static_cast<std::int64_t>(number.digits.size());
  if (kept >= size) return number;
  Scanned result{number.negative, {}, number.exponent + (size - kept)};
  if (kept < 0) return result;
  const auto count = static_cast<std::size_t>(kept);
  result.digits = number.digits.substr(0, count);
  if (number.digits[count] >= '5') {
    std::size_t at = count;
    while (at > 0 && result.digits[at - 1] == '9') result.digits[--at] = '0';
    if (at > 0) {
      ++result.digits[at - 1];
    } else {
      result.digits.insert(result.digits.begin(), '1');
    }
  }
  while (!result.digits.empty() && result.digits.back() == '0') {
    result.digits.pop_back();
    ++result.exponent;
  }
  return result;
}

// The integer of the decimal fits into 96 bits.
bool Fits(const Scanned& number) {
  std::string integer = number.digits;
  const std::int64_t zeros = std::max<std::int64_t>(number.exponent, 0);
  if (static_cast<std::int64_t>(integer.size()) + zeros > static_cast<std::int64_t>(kLargest.size())) return false;
  integer.append(static_cast<std::size_t>(zeros), '0');
  return integer.size() < kLargest.size() || integer <= kLargest;
}

void Write(const Scanned& number, std::string& result) {
  result.clear();
  if (number.digits.empty()) {
    result.assign(1, '0');
    return;
  }
  if (number.negative) result += '-';
  const auto size = static_cast<std::int64_t>(number.digits.size());
  const std::int64_t whole = size + number.exponent;  // digits in front of the mark
  if (whole <= 0) {
    result += "0.";
    result.append(static_cast<std::size_t>(-whole), '0');
    result += number.digits;
  } else if (number.exponent >= 0) {
    result += number.digits;
    result.append(static_cast<std::size_t>(number.exponent), '0');
  } else {
    result.append(number.digits, 0, static_cast<std::size_t>(whole));
    result += '.';
    result.append(number.digits, static_cast<std::size_t>(whole));
  }
}

}  // namespace

bool IsPlainDecimal(std::string_view text) {
  std::size_t at = !text.empty() && text.front() == '-' ? 1 : 0;
  if (text.size() - at > kSafeDigits || at == text.size()) return false;
  const std::size_t start = at;
  while (at < text.size() && IsDigit(text[at])) ++at;
  if (at == start) return false;
  const bool startsWithZero = text[start] == '0';
  if (startsWithZero && at - start > 1) return false;
  if (at == text.size()) return !(startsWithZero && start == 1);
  if (text[at] != '.' || text.back() == '0' || text.back() == '.') return false;
  return std::all_of(text.begin() + static_cast<std::ptrdiff_t>(at) + 1, text.end(), IsDigit);
}

bool DecimalText(std::string_view text, std::string& result) {
  Scanned number;
  if (!NumberScanner(text).Scan(number)) return false;
  if (number.digits.empty()) number.exponent = 0;
  const std::int64_t whole = static_cast<std::int64_t>(number.digits.size()) + number.exponent;
  if (whole > static_cast<std::int64_t>(kLargest.size())) return false;
  // As many places as the scale allows, fewer when the integer would not fit.
  const auto room = static_cast<std::int64_t>(kLargest.size()) - std::max<std::int64_t>(whole, 0);
  for (std::int64_t places = std::min(kMostPlaces, room); places >= 0; --places) {
    const Scanned rounded = Rounded(number, whole + places);
    if (!Fits(rounded)) continue;
    Write(rounded, result);
    return true;
  }
  return false;
}

}  // namespace quenmark::providers
