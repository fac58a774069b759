#include "providers/get_between.h"

#include <gtest/gtest.h>

namespace quenmark::providers {
namespace {

TEST(GetBetween, TakesTheTextBetweenTheFirstMarkers) {
  struct Case {
    std::string_view text, start, end, expected;
  };
  for (const Case& row :
       {Case{"x=1&y=2", "x=", "&", "1"}, Case{"x=1&y=2", "y=", "&", ""}, Case{"x=1&y=2", "z=", "&", ""},
        Case{"x=1&x=2&", "x=", "&", "1"}, Case{"X=1&", "x=", "&", ""},
        Case{R"({"last":"  281.12 ","date":"1"})", R"("last":")", "\"", "281.12"}, Case{"a  b", "a", "b", ""},
        Case{"a\tx b", "a", "b", "\tx"}, Case{"||", "|", "|", ""}, Case{"aaa", "aa", "aa", ""},
        Case{"aab", "aa", "b", ""}, Case{"tail||!!@@", "ta", "||!!@@", "il"}, Case{"", "", "", ""},
        Case{"abc", "", "c", "ab"}, Case{"abc", "a", "", ""}}) {
    EXPECT_EQ(GetBetween(row.text, row.start, row.end), row.expected) << row.text;
  }
  const std::string text = "[value]";
  EXPECT_EQ(GetBetween(text, "[", "]").data(), text.data() + 1);
}

}  // namespace
}  // namespace quenmark::providers
