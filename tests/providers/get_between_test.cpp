#include "providers/get_between.h"

#include <gtest/gtest.h>

namespace quenmark::providers {
namespace {

TEST(GetBetween, TakesTheTextBetweenTheFirstMarkers) {
  struct Case {
    std::string_view text, start, end, expected;
  };
  const Case cases[] = {
      {"x=1&y=2", "x=", "&", "1"},
      {"x=1&y=2", "y=", "&", ""},
      {"x=1&y=2", "z=", "&", ""},
      {"x=1&x=2&", "x=", "&", "1"},
      {"X=1&", "x=", "&", ""},
      {R"({"last":"  281.12 ","date":"1"})", R"("last":")", "\"", "281.12"},
      {"a  b", "a", "b", ""},
      {"a\tx b", "a", "b", "\tx"},
      {"||", "|", "|", ""},
      {"aaa", "aa", "aa", ""},
      {"aab", "aa", "b", ""},
      {"tail||!!@@", "ta", "||!!@@", "il"},
      {"", "", "", ""},
      {"abc", "", "c", "ab"},
      {"abc", "a", "", ""},
  };
  for (const Case& row : cases) EXPECT_EQ(GetBetween(row.text, row.start, row.end), row.expected) << row.text;
}

TEST(GetBetween, GivesAViewIntoTheText) {
  const std::string text = "[value]";
  EXPECT_EQ(GetBetween(text, "[", "]").data(), text.data() + 1);
}

}  // namespace
}  // namespace quenmark::providers
