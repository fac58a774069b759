#include "platform/code_page_convert.h"

#include <gtest/gtest.h>

namespace quenmark::platform {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(CodePageConvert, BothWays) {
  struct Row {
    std::int32_t codePage;
    std::string text;
    Bytes bytes;
  };
  std::string large;
  for (int i = 0; i < 5000; ++i) large += "\u041f\u0440";  // more than the conversion's buffer
  EXPECT_EQ(TextFromBytes(BytesFromText(large, 1251), 1251), large);
  for (const Row& row :
       {Row{0, "caf\u00e9 \u20ac", {'c', 'a', 'f', 0xE9, ' ', 0x80}}, Row{1252, "\u201cq\u201d", {0x93, 'q', 0x94}},
        Row{1252, "\u0081", {0x81}}, Row{28591, "\u0080\u00ff", {0x80, 0xFF}}, Row{28605, "\u20ac", {0xA4}},
        Row{65001, "\u20ac\U0001F600", {0xE2, 0x82, 0xAC, 0xF0, 0x9F, 0x98, 0x80}}, Row{1251, "\u041f", {0xCF}},
        Row{-1, "A\u20ac\U0001F600", {'A', 0, 0xAC, 0x20, 0x3D, 0xD8, 0x00, 0xDE}}, Row{437, "\u00e9", {0x82}},
        Row{932, "\u3042", {0x82, 0xA0}}, Row{20127, "plain", {'p', 'l', 'a', 'i', 'n'}}, Row{65001, "", {}},
        Row{-1, "", {}}, Row{1251, "", {}}}) {
    EXPECT_EQ(BytesFromText(row.text, row.codePage), row.bytes) << row.text;
    EXPECT_EQ(TextFromBytes(row.bytes, row.codePage), row.text);
  }
}

TEST(CodePageConvert, MalformedInputBecomesSubstitutes) {
  EXPECT_EQ(TextFromBytes(Bytes{'a', 0xFF, 'b'}, 65001), "a\ufffdb");
  EXPECT_EQ(TextFromBytes(Bytes{'a', 0x82}, 932), "a\ufffd");          // ends within a character
  EXPECT_EQ(TextFromBytes(Bytes{'a', 0, 'b'}, -1), "a");               // odd length
  EXPECT_EQ(TextFromBytes(Bytes{0x00, 0xD8, 'x', 0}, -1), "\ufffdx");  // unpaired surrogate
  EXPECT_EQ(BytesFromText("\u20ac\U0001F600z", 28591), (Bytes{'?', '?', 'z'}));
  EXPECT_EQ(BytesFromText("\u041f!", 0), (Bytes{'?', '!'}));
  EXPECT_EQ(BytesFromText("a\u20acb", 20127), (Bytes{'a', '?', 'b'}));
  for (const std::int32_t codePage : {-2, -1000, 7, 99999, 2147483647}) {
    EXPECT_EQ(TextFromBytes(Bytes{'a'}, codePage), "") << codePage;
    EXPECT_TRUE(BytesFromText("a", codePage).empty()) << codePage;
  }
}

}  // namespace
}  // namespace quenmark::platform
