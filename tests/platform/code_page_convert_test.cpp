#include "platform/code_page_convert.h"

#include <gtest/gtest.h>

namespace quenmark::platform {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct Row {
  std::int32_t codePage;
  std::string text;
  Bytes bytes;
};

class CodePageRoundTrip : public testing::TestWithParam<Row> {};

TEST_P(CodePageRoundTrip, BothWays) {
  EXPECT_EQ(BytesFromText(GetParam().text, GetParam().codePage), GetParam().bytes);
  EXPECT_EQ(TextFromBytes(GetParam().bytes, GetParam().codePage), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(, CodePageRoundTrip,
                         testing::Values(Row{0, "caf\u00e9 \u20ac", {'c', 'a', 'f', 0xE9, ' ', 0x80}},
                                         Row{1252, "\u201cq\u201d", {0x93, 'q', 0x94}}, Row{1252, "\u0081", {0x81}},
                                         Row{28591, "\u0080\u00ff", {0x80, 0xFF}},
                                         Row{65001, "\u20ac\U0001F600", {0xE2, 0x82, 0xAC, 0xF0, 0x9F, 0x98, 0x80}},
                                         Row{-1, "A\u20ac\U0001F600", {'A', 0, 0xAC, 0x20, 0x3D, 0xD8, 0x00, 0xDE}},
                                         Row{1251, "\u041f", {0xCF}}, Row{437, "\u00e9", {0x82}},
                                         Row{932, "\u3042", {0x82, 0xA0}},
                                         Row{20127, "plain", {'p', 'l', 'a', 'i', 'n'}}, Row{28605, "\u20ac", {0xA4}},
                                         Row{65001, "", {}}, Row{-1, "", {}}, Row{1251, "", {}}));

TEST(CodePageConvert, MalformedInputBecomesSubstitutes) {
  EXPECT_EQ(TextFromBytes(Bytes{'a', 0xFF, 'b'}, 65001), "a\ufffdb");
  EXPECT_EQ(TextFromBytes(Bytes{'a', 0xE2, 0x82}, 65001), "a\ufffd");
  EXPECT_EQ(TextFromBytes(Bytes{'a', 0x82}, 932), "a\ufffd");          // ends within a character
  EXPECT_EQ(TextFromBytes(Bytes{'a', 0, 'b'}, -1), "a");               // odd length
  EXPECT_EQ(TextFromBytes(Bytes{0x00, 0xD8, 'x', 0}, -1), "\ufffdx");  // unpaired surrogate
  EXPECT_EQ(BytesFromText("\u20ac\U0001F600z", 28591), (Bytes{'?', '?', 'z'}));
  EXPECT_EQ(BytesFromText("\u041f!", 0), (Bytes{'?', '!'}));
  EXPECT_EQ(BytesFromText("\u20ac!", 1251).size(), 2U);
  EXPECT_EQ(BytesFromText("a\u20acb", 20127), (Bytes{'a', '?', 'b'}));
}

TEST(CodePageConvert, UnknownCodePagesGiveNothing) {
  for (const std::int32_t codePage : {-2, -1000, 7, 99999, 2147483647}) {
    EXPECT_EQ(TextFromBytes(Bytes{'a'}, codePage), "") << codePage;
    EXPECT_TRUE(BytesFromText("a", codePage).empty()) << codePage;
  }
}

TEST(CodePageConvert, LongInputsCrossTheBuffer) {
  std::string text;
  for (int i = 0; i < 5000; ++i) text += "\u041f\u0440";
  const Bytes bytes = BytesFromText(text, 1251);
  EXPECT_EQ(bytes.size(), 10'000U);
  EXPECT_EQ(TextFromBytes(bytes, 1251), text);
}

}  // namespace
}  // namespace quenmark::platform
