#include "providers/text_utilities.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace quenmark::providers {
namespace {

using Cases = std::vector<std::pair<std::string, std::string>>;

TEST(Base64DecodeText, DecodesGroupsUntilAnInvalidOne) {
  const Cases cases = {
      {"", ""},
      {"QUJD", "ABC"},
      {"QQ==", "A"},
      {"QUI=", "AB"},
      {"QU JD\r\n\t", "ABC"},
      {"QUJD*xyz", "ABC"},
      {"QUJDQ*==", "ABC"},
      {"QUJDREU", "ABCDE"},
      {"QQ", "A"},
      {"Q", "@"},
      {"QQ==QQ==", "AA"},
      {"====", std::string(1, '\0')},
      {"gJ8A", std::string("€Ÿ\0", 6)},
      {"-_-_", ""},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(Base64DecodeText(text), expected) << text;
}

TEST(UrlDecode, DecodesEveryForm) {
  const Cases cases = {
      {"a+b%20c", "a b c"},   {"%2B+", "+ "},     {"%C3%A9", "é"},       {"%e2%82%ac", "€"},
      {"%u20AC%U20ac", "€€"}, {"%80%FF", "€ÿ"},   {"100%", "100%"},      {"%", "%"},
      {"%%41", "%A"},         {"%4", "%4"},       {"%4g", "%4g"},        {"%E2%82", "%E2‚"},
      {"%C3x", "%C3x"},       {"%u20A", "%u20A"}, {"%ud83d%ude00", "😀"}, {"%ud83dx", "\xEF\xBF\xBDx"},
      {"%zz%41", "%zzA"},     {"%+41", "% 41"},   {"%C3%A9%", "é%"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(UrlDecode(text), expected) << text;
}

TEST(RegexTest, MatchesAnywhereWithoutCase) {
  EXPECT_TRUE(RegexTest("x%U00e9", "%u[0-9A-F]{4}"));
  EXPECT_FALSE(RegexTest("x%U00e9", "^%u[0-9A-F]{4}"));
  EXPECT_FALSE(RegexTest("text", "("));
  EXPECT_FALSE(RegexTest(std::string(1 << 20, 'a'), "a"));
}

}  // namespace
}  // namespace quenmark::providers
