#include "websocket/header_text.h"

#include <gtest/gtest.h>

namespace quenmark::websocket {
namespace {

TEST(HeaderText, NormaliseList) {
  EXPECT_EQ(NormaliseList("  "), "");
  EXPECT_EQ(NormaliseList(" a ,,b,"), "a, , b, ");
}

TEST(HeaderText, GetHeader) {
  const std::string block = "HTTP/1.1 101 x\r\nX-A:1\r\nupGRADE: \twebsocket  \r\nEmpty:\r\nLast: cut";
  EXPECT_EQ(GetHeader(block, "Upgrade"), "websocket");
  EXPECT_EQ(GetHeader(block, "a"), "1");  // found anywhere
  EXPECT_EQ(GetHeader(block, "empty"), "");
  EXPECT_EQ(GetHeader(block, "last"), "");
  EXPECT_EQ(GetHeader(block, "none"), "");
}

TEST(HeaderText, ParseNumber) {
  EXPECT_EQ(ParseNumber(" 8443 "), 8443);
  EXPECT_EQ(ParseNumber("-1"), -1);
  EXPECT_EQ(ParseNumber("+7"), 7);
  for (const std::string text : {"", " ", "x", "80a", "8 0", "+-1", "2147483648", "1.5"}) {
    EXPECT_EQ(ParseNumber(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace quenmark::websocket
