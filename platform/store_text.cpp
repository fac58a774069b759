#include "platform/store_text.h"

#include <cstdint>

namespace quenmark::platform {

std::string EscapeLine(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  for (const char letter : text) {
    switch (letter) {
      case '\t':
        line += "\\t";
        break;
      case '\n':
        line += "\\n";
        break;
      case '\r':
        line += "\\r";
        break;
      case '\\':
        line += "\\\\";
        break;
      default:
        line += letter;
    }
  }
  return line;
}

std::string EncodeBase64(std::string_view bytes) {
  constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const std::string_view group = bytes.substr(at, 3);
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < 3; ++i)
      bits = bits << 8 | (i < group.size() ? static_cast<std::uint8_t>(group[i]) : 0u);
    for (std::size_t i = 0; i < 4; ++i) text += i <= group.size() ? kLetters[bits >> (18 - 6 * i) & 63] : '=';
  }
  return text;
}

}  // namespace quenmark::platform
