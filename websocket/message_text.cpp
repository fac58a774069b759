#include "websocket/message_text.h"

#include "platform/code_page.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace quenmark::websocket {

namespace {

constexpr std::uint64_t kHighBits = 0x8080808080808080u;

std::uint64_t WordAt(std::string_view text, std::size_t offset) {
  std::uint64_t word = 0;
  std::memcpy(&word, text.data() + offset, sizeof word);
  return word;
}

// The offset behind the ASCII characters that begin at `offset`. The last word of the text is looked at as a whole, so
// that the end costs no more than the middle.
std::size_t SkipAscii(std::string_view text, std::size_t offset) {
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  const std::size_t size = text.size();
  for (; offset + 4 * kWord <= size; offset += 4 * kWord) {
    const std::uint64_t bits = WordAt(text, offset) | WordAt(text, offset + kWord) | WordAt(text, offset + 2 * kWord) |
                               WordAt(text, offset + 3 * kWord);
    if ((bits & kHighBits) != 0) break;
  }
  for (; offset + kWord <= size; offset += kWord) {
    if ((WordAt(text, offset) & kHighBits) != 0) break;
  }
  if (size >= kWord && offset + kWord > size && (WordAt(text, size - kWord) & kHighBits) == 0) return size;
  while (offset < size && static_cast<unsigned char>(text[offset]) < 0x80) ++offset;
  return offset;
}

}  // namespace

bool IsUtf8(std::string_view text) {
  for (std::size_t offset = SkipAscii(text, 0); offset < text.size(); offset = SkipAscii(text, offset)) {
    const platform::DecodedCharacter character = platform::DecodeUtf8(text, offset);
    // A well-formed U+FFFD takes three bytes, and begins with this one.
    if (character.codePoint == platform::kReplacementCharacter &&
        (character.length != 3 || static_cast<unsigned char>(text[offset]) != 0xEF)) {
      return false;
    }
    offset += character.length;
  }
  return true;
}

void RepairUtf8(std::string& text) {
  if (!IsUtf8(text)) text = platform::SanitizeUtf8(text);
}

}  // namespace quenmark::websocket
