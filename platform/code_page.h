// Conversions between UTF-8 text, UTF-16 code units and the single-byte code page (Windows-1252).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace quenmark::platform {

inline constexpr std::uint32_t kReplacementCharacter = 0xFFFD;

// One character of a UTF-8 text and the bytes it takes (at least 1). A malformed sequence is U+FFFD and as long as its
// longest valid beginning (Unicode 15.0 §3.9, U+FFFD substitution of maximal subparts).
struct DecodedCharacter {
  std::uint32_t codePoint = kReplacementCharacter;
  std::size_t length = 1;
};
// The character at `offset`, which must lie within the text.
DecodedCharacter DecodeUtf8(std::string_view text, std::size_t offset);
// UTF-16 code units of the text.
std::size_t Utf16Length(std::string_view text);

// Each byte as one character of Windows-1252. The five unassigned bytes become U+0081, U+008D, U+008F, U+0090, U+009D.
std::string FromWindows1252(std::string_view bytes);
void AppendWindows1252(std::string& text, std::uint8_t byte);

// Malformed UTF-8 becomes U+FFFD, unpaired surrogates become U+FFFD in the other direction.
std::u16string ToUtf16(std::string_view text);
std::string FromUtf16(std::u16string_view units);
// Appends one code point; surrogates and values above U+10FFFF append U+FFFD.
void AppendUtf8(std::string& text, std::uint32_t codePoint);
// The text with every malformed sequence replaced by U+FFFD.
std::string SanitizeUtf8(std::string_view text);

// A to Z only; other bytes stay.
constexpr char AsciiLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}
constexpr char AsciiUpper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - ('a' - 'A')) : c;
}
std::string AsciiLower(std::string_view text);
std::string AsciiUpper(std::string_view text);
bool EqualsIgnoreAsciiCase(std::string_view left, std::string_view right);

}  // namespace quenmark::platform
