// Conversion between text and the bytes of a numbered code page.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::platform {

inline constexpr std::int32_t kCodePageNone = -1;   // the bytes are the text's UTF-16LE code units
inline constexpr std::int32_t kCodePageSystem = 0;  // Windows-1252
inline constexpr std::int32_t kCodePageUtf8 = 65001;

// The text of the bytes. Bytes that mean nothing in the code page become U+FFFD; an odd last byte of UTF-16LE is left
// out. Empty for an unknown code page.
std::string TextFromBytes(std::span<const std::uint8_t> bytes, std::int32_t codePage);
// The bytes of the text. A character the code page lacks becomes "?". Empty for an unknown code page.
std::vector<std::uint8_t> BytesFromText(std::string_view text, std::int32_t codePage);

}  // namespace quenmark::platform
