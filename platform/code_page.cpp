#include "platform/code_page.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace quenmark::platform {

namespace {

// Windows-1252 bytes 0x80 to 0x9F; all others stand for themselves.
constexpr std::array<std::uint16_t, 32> kWindows1252High = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,
};

constexpr bool IsSurrogate(std::uint32_t unit) {
  return unit >= 0xD800 && unit <= 0xDFFF;
}

// Length of the run of ASCII characters that begins at `offset`.
std::size_t AsciiRun(std::string_view text, std::size_t offset) {
  const std::size_t start = offset;
  for (std::uint64_t word = 0; offset + sizeof word <= text.size(); offset += sizeof word) {
    std::memcpy(&word, text.data() + offset, sizeof word);
    if ((word & 0x8080808080808080u) != 0) break;
  }
  while (offset < text.size() && static_cast<unsigned char>(text[offset]) < 0x80) ++offset;
  return offset - start;
}

}  // namespace

DecodedCharacter DecodeUtf8(std::string_view text, std::size_t offset) {
  const auto byteAt = [&](std::size_t index) { return static_cast<unsigned char>(text[offset + index]); };
  const unsigned lead = byteAt(0);
  if (lead < 0x80) return {lead, 1};
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4) return {};
  std::uint32_t codePoint = lead & (0xFFu >> (length + 1));
  for (std::size_t index = 1; index < length; ++index) {
    if (offset + index >= text.size()) return {kReplacementCharacter, index};
    const unsigned byte = byteAt(index);
    unsigned lowest = 0x80;
    unsigned highest = 0xBF;
    if (index == 1) {  // shuts out overlong forms, surrogates and values above U+10FFFF
      if (lead == 0xE0) lowest = 0xA0;
      if (lead == 0xED) highest = 0x9F;
      if (lead == 0xF0) lowest = 0x90;
      if (lead == 0xF4) highest = 0x8F;
    }
    if (byte < lowest || byte > highest) return {kReplacementCharacter, index};
    codePoint = (codePoint << 6) | (byte & 0x3F);
  }
  return {codePoint, length};
}

std::size_t Utf16Length(std::string_view text) {
  std::size_t units = 0;
  for (std::size_t offset = 0; offset < text.size();) {
    const std::size_t run = AsciiRun(text, offset);
    units += run;
    offset += run;
    if (offset == text.size()) break;
    const DecodedCharacter character = DecodeUtf8(text, offset);
    units += character.codePoint >= 0x10000 ? 2 : 1;
    offset += character.length;
  }
  return units;
}

void AppendWindows1252(std::string& text, std::uint8_t byte) {
  AppendUtf8(text, byte >= 0x80 && byte <= 0x9F ? kWindows1252High[byte - 0x80u] : byte);
}

std::string FromWindows1252(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (const char byte : bytes) AppendWindows1252(text, static_cast<std::uint8_t>(byte));
  return text;
}

std::u16string ToUtf16(std::string_view text) {
  std::u16string units;
  units.reserve(text.size());
  for (std::size_t offset = 0; offset < text.size();) {
    const DecodedCharacter character = DecodeUtf8(text, offset);
    offset += character.length;
    if (character.codePoint < 0x10000) {
      units += static_cast<char16_t>(character.codePoint);
    } else {
      units += static_cast<char16_t>(0xD800 + ((character.codePoint - 0x10000) >> 10));
      units += static_cast<char16_t>(0xDC00 + ((character.codePoint - 0x10000) & 0x3FF));
    }
  }
  return units;
}

std::string FromUtf16(std::u16string_view units) {
  std::string text;
  text.reserve(units.size());
  for (std::size_t index = 0; index < units.size(); ++index) {
    std::uint32_t codePoint = units[index];
    const bool isHigh = codePoint >= 0xD800 && codePoint <= 0xDBFF;
    if (isHigh && index + 1 < units.size() && units[index + 1] >= 0xDC00 && units[index + 1] <= 0xDFFF) {
      codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (units[++index] - 0xDC00u);
    }
    AppendUtf8(text, codePoint);
  }
  return text;
}

void AppendUtf8(std::string& text, std::uint32_t codePoint) {
  if (IsSurrogate(codePoint) || codePoint > 0x10FFFF) codePoint = kReplacementCharacter;
  if (codePoint < 0x80) {
    text += static_cast<char>(codePoint);
    return;
  }
  if (codePoint < 0x800) {
    text += static_cast<char>(0xC0 | (codePoint >> 6));
  } else {
    if (codePoint < 0x10000) {
      text += static_cast<char>(0xE0 | (codePoint >> 12));
    } else {
      text += static_cast<char>(0xF0 | (codePoint >> 18));
      text += static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
    }
    text += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
  }
  text += static_cast<char>(0x80 | (codePoint & 0x3F));
}

std::string SanitizeUtf8(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t offset = 0; offset < text.size();) {
    const std::size_t run = AsciiRun(text, offset);
    result.append(text, offset, run);
    offset += run;
    if (offset == text.size()) break;
    const DecodedCharacter character = DecodeUtf8(text, offset);
    AppendUtf8(result, character.codePoint);
    offset += character.length;
  }
  return result;
}

std::string AsciiLower(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = AsciiLower(c);
  return result;
}

std::string AsciiUpper(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = AsciiUpper(c);
  return result;
}

bool EqualsIgnoreAsciiCase(std::string_view left, std::string_view right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](char a, char b) { return AsciiLower(a) == AsciiLower(b); });
}

}  // namespace quenmark::platform
