#include "providers/text_utilities.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace quenmark::providers {
namespace {

using Row = std::pair<std::string, std::string>;

TEST(Base64DecodeText, DecodesGroupsUntilAnInvalidOne) {
  for (const auto& [text, expected] :
       {Row{"", ""}, Row{"QUJD", "ABC"}, Row{"QQ==", "A"}, Row{"QUI=", "AB"}, Row{"QU JD\r\n\t", "ABC"},
        Row{"QUJD*xyz", "ABC"}, Row{"QUJDQ*==", "ABC"}, Row{"QUJDREU", "ABCDE"}, Row{"QQ", "A"}, Row{"Q", "@"},
        Row{"QQ==QQ==", "AA"}, Row{"====", std::string(1, '\0')}, Row{"gJ8A", std::string("€Ÿ\0", 6)},
        Row{"-_-_", ""}}) {
    EXPECT_EQ(Base64DecodeText(text), expected) << text;
  }
}

TEST(UrlDecode, DecodesEveryForm) {
  for (const auto& [text, expected] :
       {Row{"a+b%20c", "a b c"}, Row{"%2B+", "+ "}, Row{"%C3%A9", "é"}, Row{"%e2%82%ac", "€"},
        Row{"%u20AC%U20ac", "€€"}, Row{"%80%FF", "€ÿ"}, Row{"100%", "100%"}, Row{"%", "%"}, Row{"%%41", "%A"},
        Row{"%4", "%4"}, Row{"%4g", "%4g"}, Row{"%E2%82", "%E2‚"}, Row{"%C3x", "%C3x"}, Row{"%u20A", "%u20A"},
        Row{"%ud83d%ude00", "😀"}, Row{"%ud83dx", "\xEF\xBF\xBDx"}, Row{"%zz%41", "%zzA"}, Row{"%+41", "% 41"},
        Row{"%C3%A9%", "é%"}}) {
    EXPECT_EQ(UrlDecode(text), expected) << text;
  }
}

TEST(RegexTest, MatchesAnywhereWithoutCase) {
  EXPECT_TRUE(RegexTest("x%U00e9", "%u[0-9A-F]{4}"));
  EXPECT_FALSE(RegexTest("x%U00e9", "^%u[0-9A-F]{4}"));
  EXPECT_FALSE(RegexTest("text", "("));
  EXPECT_FALSE(RegexTest(std::string(1 << 20, 'a'), "a"));
}

}  // namespace
}  // namespace quenmark::providers
