#include "websocket/message_text.h"

#include "platform/code_page.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace quenmark::websocket {

namespace {

constexpr std::uint64_t kHighBits = 0x8080808080808080u;
// Two words that the processor handles as one where it can.
using Lane [[gnu::vector_size(16)]] = std::uint64_t;
constexpr std::size_t kBlock = 4 * sizeof(Lane);
constexpr std::size_t kWord = sizeof(std::uint64_t);

template <typename Word>
Word At(const char* text) {
  Word word;
  std::memcpy(&word, text, sizeof word);
  return word;
}

bool WideInBlock(const char* text) {
  constexpr std::size_t kLane = sizeof(Lane);
  const Lane bits =
      (At<Lane>(text) | At<Lane>(text + kLane)) | (At<Lane>(text + 2 * kLane) | At<Lane>(text + 3 * kLane));
  return ((bits[0] | bits[1]) & kHighBits) != 0;
}

bool WideInWord(const char* text) {
  return (At<std::uint64_t>(text) & kHighBits) != 0;
}

// The offset behind the ASCII characters that begin at `offset`. The last block of the text is looked at as a whole, so
// that the end costs no more than the middle.
std::size_t SkipAscii(std::string_view text, std::size_t offset) {
  const std::size_t size = text.size();
  const char* const data = text.data();
  while (offset + kBlock <= size && !WideInBlock(data + offset)) offset += kBlock;
  if (size >= kBlock && offset + kBlock > size && !WideInBlock(data + size - kBlock)) return size;
  while (offset + kWord <= size && !WideInWord(data + offset)) offset += kWord;
  if (size >= kWord && offset + kWord > size && !WideInWord(data + size - kWord)) return size;
  while (offset < size && static_cast<unsigned char>(data[offset]) < 0x80) ++offset;
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

std::string_view AsUtf8(std::string_view text, std::string& repaired) {
  if (IsUtf8(text)) return text;
  return repaired = platform::SanitizeUtf8(text);
}

}  // namespace quenmark::websocket
