#include "websocket/url.h"

#include "platform/code_page.h"
#include "websocket/header_text.h"

#include <algorithm>

namespace quenmark::websocket {

namespace {

constexpr std::size_t kShortestUrl = 8;    // UTF-16 code units
constexpr std::size_t kLongestScheme = 3;  // characters before the first ":"
constexpr std::int32_t kPlainPort = 80;
constexpr std::int32_t kSecurePort = 443;

bool HasControlCharacter(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

bool ParseScheme(std::string_view text, UrlFields& fields) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos || colon > kLongestScheme) return false;
  const std::string_view scheme = text.substr(0, colon);
  fields.secure = platform::EqualsIgnoreAsciiCase(scheme, "wss");
  return fields.secure || platform::EqualsIgnoreAsciiCase(scheme, "ws");
}

// Host and port, from behind the "//". Returns the position behind the authority, npos on failure.
std::size_t ParseAuthority(std::string_view text, std::size_t start, UrlFields& fields) {
  std::size_t end = std::min(text.find_first_of("/:", start), text.size());
  fields.host = text.substr(start, end - start);
  fields.portText.clear();
  if (end < text.size() && text[end] == ':') {
    const std::size_t digits = end + 1;
    end = std::min(text.find_first_of("/?", digits), text.size());
    fields.portText = text.substr(digits, end - digits);
    const auto port = ParseNumber(fields.portText);
    if (!port) return std::string_view::npos;
    fields.port = *port;
  } else if (fields.port == 0) {
    fields.port = fields.secure ? kSecurePort : kPlainPort;
  }
  return end;
}

void AppendEncoded(std::string& text, std::uint32_t byte, bool keepSeparators) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  const bool isPlain = (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
                       (keepSeparators && (byte == '=' || byte == '&'));
  if (isPlain) {
    text += static_cast<char>(byte);
    return;
  }
  text += '%';
  text += kDigits[byte >> 4];
  text += kDigits[byte & 15];
}

}  // namespace

bool ParseUrl(std::string_view text, UrlFields& fields) {
  fields.url = text;
  if (platform::Utf16Length(text) < kShortestUrl || !ParseScheme(text, fields)) return false;
  const std::size_t slashes = text.find("//");
  if (slashes == std::string_view::npos) return false;
  const std::size_t authorityEnd = ParseAuthority(text, slashes + 2, fields);
  if (authorityEnd == std::string_view::npos || fields.host.empty()) return false;

  const std::size_t mark = text.find('?', authorityEnd);
  const std::string_view path = text.substr(authorityEnd, mark == std::string_view::npos ? mark : mark - authorityEnd);
  fields.resourcePath = path.empty() ? "/" : path;
  fields.query = mark == std::string_view::npos ? std::string_view() : text.substr(mark + 1);
  fields.encodedQuery = PercentEncode(fields.query, true);
  return !HasControlCharacter(fields.host) && !HasControlCharacter(fields.resourcePath);
}

std::string PercentEncode(std::string_view text, bool keepSeparators) {
  std::string result;
  result.reserve(text.size());
  for (const char16_t unit : platform::ToUtf16(text)) {
    const std::uint32_t value = unit;
    if (value < 0x80) {
      AppendEncoded(result, value, keepSeparators);
    } else if (value < 0x800) {
      AppendEncoded(result, 0xC0 | (value >> 6), false);
      AppendEncoded(result, 0x80 | (value & 0x3F), false);
    } else {
      AppendEncoded(result, 0xE0 | (value >> 12), false);
      AppendEncoded(result, 0x80 | ((value >> 6) & 0x3F), false);
      AppendEncoded(result, 0x80 | (value & 0x3F), false);
    }
  }
  return result;
}

}  // namespace quenmark::websocket
