#include "providers/text_utilities.h"

#include "platform/code_page.h"
#include "platform/utf16_joiner.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <regex>

namespace quenmark::providers {

namespace {

// The regular-expression engine recurses once per character.
constexpr std::size_t kRegexTextLimit = 64u << 10;

std::optional<std::uint32_t> Base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  if (c == '=') return 0;
  return std::nullopt;
}

// Appends the bytes of one group; false when it is invalid.
bool AppendGroup(const std::array<char, 4>& group, std::string& text) {
  std::uint32_t value = 0;
  for (const char c : group) {
    const std::optional<std::uint32_t> bits = Base64Value(c);
    if (!bits) return false;
    value = value << 6 | *bits;
  }
  const int bytes = group[3] != '=' ? 3 : group[2] != '=' ? 2 : 1;
  for (int index = 0; index < bytes; ++index) {
    platform::AppendWindows1252(text, static_cast<std::uint8_t>(value >> (16 - 8 * index)));
  }
  return true;
}

std::optional<std::uint32_t> HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return std::nullopt;
}

// The value of `count` hexadecimal digits at an offset, nothing when they are not all there.
std::optional<std::uint32_t> HexNumber(std::string_view text, std::size_t at, std::size_t count) {
  if (at + count > text.size()) return std::nullopt;
  std::uint32_t value = 0;
  for (std::size_t index = 0; index < count; ++index) {
    const std::optional<std::uint32_t> digit = HexDigit(text[at + index]);
    if (!digit) return std::nullopt;
    value = value * 16 + *digit;
  }
  return value;
}

// Decodes percent escapes from left to right; the two halves of a pair written as two %u escapes become one character.
class UrlDecoder {
 public:
  explicit UrlDecoder(std::string_view text) : m_text(text) {}

  std::string Decode() {
    while (m_at < m_text.size()) {
      const std::size_t percent = std::min(m_text.find('%', m_at), m_text.size());
      if (percent > m_at) AppendPlain(m_text.substr(m_at, percent - m_at));
      m_at = percent;
      if (m_at < m_text.size()) DecodeEscape();
    }
    m_units.Flush(m_result);
    return std::move(m_result);
  }

 private:
  // The byte of the escape that is `index` escapes ahead.
  std::optional<std::uint32_t> Escape(std::size_t index) const {
    const std::size_t at = m_at + index * 3;
    if (at >= m_text.size() || m_text[at] != '%') return std::nullopt;
    return HexNumber(m_text, at + 1, 2);
  }

  void DecodeEscape() {
    const char kind = m_at + 1 < m_text.size() ? m_text[m_at + 1] : '\0';
    const std::optional<std::uint32_t> first = Escape(0);
    if (kind == 'u' || kind == 'U') {
      if (const std::optional<std::uint32_t> unit = HexNumber(m_text, m_at + 2, 4)) return Take(*unit, 6);
    } else if (kind == 'E' || kind == 'e') {
      const std::optional<std::uint32_t> second = Escape(1);
      const std::optional<std::uint32_t> third = Escape(2);
      if (first && second && third) return Take((*first & 15) << 12 | (*second & 63) << 6 | (*third & 63), 9);
    } else if (kind == 'C' || kind == 'c' || kind == 'D' || kind == 'd') {
      const std::optional<std::uint32_t> second = Escape(1);
      if (first && second) return Take((*first & 31) << 6 | (*second & 63), 6);
    } else if (first) {
      m_units.Flush(m_result);
      platform::AppendWindows1252(m_result, static_cast<std::uint8_t>(*first));
      m_at += 3;
      return;
    }
    AppendPlain("%");
    ++m_at;
  }

  void AppendPlain(std::string_view text) {
    m_units.Flush(m_result);
    const std::size_t start = m_result.size();
    m_result += text;
    std::replace(m_result.begin() + static_cast<std::ptrdiff_t>(start), m_result.end(), '+', ' ');
  }

  // Appends one UTF-16 unit and moves past its escape.
  void Take(std::uint32_t unit, std::size_t length) {
    m_at += length;
    m_units.Append(m_result, unit);
  }

  std::string_view m_text;
  std::size_t m_at = 0;
  platform::Utf16Joiner m_units;
  std::string m_result;
};

}  // namespace

std::string Base64DecodeText(std::string_view base64) {
  std::string text;
  text.reserve(base64.size() / 4 * 3 + 3);
  std::array<char, 4> group;
  std::size_t filled = 0;
  for (const char c : base64) {
    if (c == '\r' || c == '\n' || c == '\t' || c == ' ') continue;
    group[filled++] = c;
    if (filled < group.size()) continue;
    if (!AppendGroup(group, text)) return text;
    filled = 0;
  }
  if (filled == 0) return text;
  std::fill(group.begin() + static_cast<std::ptrdiff_t>(filled), group.end(), '=');
  AppendGroup(group, text);
  return text;
}

std::string UrlDecode(std::string_view text) {
  return UrlDecoder(text).Decode();
}

bool RegexTest(std::string_view text, std::string_view pattern) {
  if (text.size() > kRegexTextLimit) return false;
  try {
    const std::regex expression(pattern.begin(), pattern.end(), std::regex::ECMAScript | std::regex::icase);
    return std::regex_search(text.begin(), text.end(), expression);
  } catch (const std::regex_error&) {
    return false;
  }
}

}  // namespace quenmark::providers
