#include "providers/text_compare.h"

#include <gtest/gtest.h>

namespace quenmark::providers {
namespace {

using Texts = std::vector<std::string>;

TEST(SortedCopy, OrdersByUnitOrAsWords) {
  const Texts items = {"b", "A", "_x", "1", "a", "B", "É", "é", ""};
  EXPECT_EQ(SortedCopy(items, CompareMode::kBinary), (Texts{"", "1", "A", "B", "_x", "a", "b", "É", "é"}));
  EXPECT_EQ(SortedCopy(items, CompareMode::kText), (Texts{"", "_x", "1", "A", "a", "b", "B", "É", "é"}));
}

TEST(CompareTexts, IgnoresCaseBeyondAscii) {
  EXPECT_EQ(CompareTexts("ŽÄΩЖЙĹ", "žäωжйĺ", CompareMode::kText), 0);
  EXPECT_NE(CompareTexts("Ä", "ä", CompareMode::kBinary), 0);
  EXPECT_LT(CompareTexts("abc", "ABCD", CompareMode::kText), 0);
  EXPECT_GT(CompareTexts("1710498600_99", "1710498600", CompareMode::kText), 0);
}

}  // namespace
}  // namespace quenmark::providers
