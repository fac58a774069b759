#include "websocket/message_text.h"

#include <gtest/gtest.h>

namespace quenmark::websocket {
namespace {

TEST(MessageText, WellFormedTextStays) {
  for (const std::string& text :
       {std::string(), std::string(100, 'a'), std::string(63, 'a') + "\xC3\xBC" + std::string(70, 'b'),
        std::string("\xEF\xBF\xBD\xF0\x9F\x98\x80\0x", 9)}) {
    std::string repaired;
    EXPECT_EQ(AsUtf8(text, repaired).data(), text.data());
  }
}

TEST(MessageText, MalformedTextIsReplacedWhereverItStands) {
  for (std::size_t offset = 0; offset <= 140; ++offset) {
    std::string repaired;
    EXPECT_EQ(AsUtf8(std::string(offset, 'a') + "\xE2\x82" + std::string(40, 'b'), repaired),
              std::string(offset, 'a') + "\xEF\xBF\xBD" + std::string(40, 'b'));
  }
  EXPECT_FALSE(IsUtf8("\xED\xA0\x80"));
  EXPECT_FALSE(IsUtf8("\xEF\xBF"));
}

}  // namespace
}  // namespace quenmark::websocket
