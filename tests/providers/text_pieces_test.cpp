#include "providers/text_pieces.h"

#include <gtest/gtest.h>

#include <utility>

namespace quenmark::providers {
namespace {

TEST(InQuery, EscapesWhatWouldEndOrChangeTheQuery) {
  for (const auto& [symbols, query] : {std::pair{"", ""},
                                       {"AAPL,BRK/B,^GSPC", "AAPL,BRK/B,^GSPC"},
                                       {"A&B=C,A#B", "A%26B=C,A%23B"},
                                       {"50%,A+B", "50%25,A%2BB"},
                                       {"\xC3\xA9", "\xC3\xA9"}}) {
    EXPECT_EQ(InQuery(symbols), query);
  }
}

TEST(InPath, EscapesWhatWouldEndThePath) {
  EXPECT_EQ(InPath("A?B,C#D,50%,BRK/B,@ES"), "A%3FB,C%23D,50%25,BRK/B,@ES");
}

}  // namespace
}  // namespace quenmark::providers
