#include "websocket/message_text.h"

#include "platform/code_page.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace quenmark::websocket {

namespace {

constexpr std::uint64_t kHighBits = 0x8080808080808080u;

// Length of the run of ASCII characters that begins at `offset`, at least; whole blocks are looked at first.
std::size_t SkipAscii(std::string_view text, std::size_t offset) {
  struct Block {
    std::uint64_t words[4];
  };
  for (Block block{}; offset + sizeof block <= text.size(); offset += sizeof block) {
    std::memcpy(&block, text.data() + offset, sizeof block);
    if (((block.words[0] | block.words[1] | block.words[2] | block.words[3]) & kHighBits) != 0) break;
  }
  while (offset < text.size() && static_cast<unsigned char>(text[offset]) < 0x80) ++offset;
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
