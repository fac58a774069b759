#include "platform/code_page.h"

#include <gtest/gtest.h>

#include <utility>

namespace quenmark::platform {
namespace {

constexpr const char* kBad = "\xEF\xBF\xBD";

TEST(CodePage, MapsWindows1252) {
  EXPECT_EQ(FromWindows1252("A\x80\x81\x8A\x9F\xA0\xFF"), "A€\xC2\x81ŠŸ\xC2\xA0ÿ");
  EXPECT_EQ(FromWindows1252(std::string_view("\0", 1)), std::string(1, '\0'));
}

TEST(CodePage, ReplacesMalformedUtf8) {
  const std::string bad = kBad;
  using Row = std::pair<std::string, std::string>;
  for (const auto& [text, expected] :
       {Row{"plain ascii text", "plain ascii text"}, Row{"é€😀", "é€😀"}, Row{"\x80", bad}, Row{"\xC0\xAF", bad + bad},
        Row{"\xE0\x80\x80", bad + bad + bad}, Row{"\xED\xA0\x80", bad + bad + bad}, Row{"\xF5", bad}, Row{"\xC3", bad},
        Row{"\xF4\x90\x80\x80", bad + bad + bad + bad}, Row{"a\xE2\x82", "a" + bad}, Row{"\xE2\x82z", bad + "z"},
        Row{"\xF0\x9F\x98\xC3\xA9", bad + "é"}, Row{"zyxwvuts\xFFzyxwvut", "zyxwvuts" + bad + "zyxwvut"}}) {
    EXPECT_EQ(SanitizeUtf8(text), expected);
    EXPECT_EQ(FromUtf16(ToUtf16(text)), expected);
    EXPECT_EQ(Utf16Length(text), ToUtf16(text).size());
  }
}

TEST(CodePage, ReplacesSurrogatesThatStandAlone) {
  const char16_t alone[] = {0xDE00, 'x', 0xD83D, 0xD83D, 0xDE00, 0xD83D, 0};
  EXPECT_EQ(FromUtf16(alone), std::string(kBad) + "x" + kBad + "😀" + kBad);
}

TEST(CodePage, EveryCodePointSurvives) {
  for (std::uint32_t codePoint = 0; codePoint <= 0x110000; codePoint += codePoint < 0x3000 ? 1 : 61) {
    std::string text;
    AppendUtf8(text, codePoint);
    const bool isCharacter = codePoint <= 0x10FFFF && (codePoint < 0xD800 || codePoint > 0xDFFF);
    const DecodedCharacter decoded = DecodeUtf8(text, 0);
    ASSERT_EQ(decoded.codePoint, isCharacter ? codePoint : kReplacementCharacter);
    ASSERT_EQ(decoded.length, text.size());
  }
}

TEST(CodePage, ChangesAsciiCaseOnly) {
  EXPECT_EQ(AsciiUpper("aZ9[é"), "AZ9[é");
  EXPECT_EQ(AsciiLower("AZ9[É"), "az9[É");
  EXPECT_TRUE(EqualsIgnoreAsciiCase("KLV-NEWS", "klv-news"));
  EXPECT_FALSE(EqualsIgnoreAsciiCase("a", "ab"));
  EXPECT_FALSE(EqualsIgnoreAsciiCase("@", "`"));
}

}  // namespace
}  // namespace quenmark::platform
