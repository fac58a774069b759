#include "providers/string_builder.h"

#include "tests/support/fault_number.h"

#include <gtest/gtest.h>

#include <string>

namespace quenmark::providers {
namespace {

using test::FaultNumber;

TEST(StringBuilder, GrowsAndShrinksByWholeChunks) {
  cStringBuilder builder;
  EXPECT_EQ(builder.Capacity(), 0);
  EXPECT_EQ(builder.ChunkSize(), 8192);
  builder.Append(std::string(10'000, 'x'));
  EXPECT_EQ(builder.Capacity(), 16'384);
  builder.Append(std::string(6'384, 'x'));
  EXPECT_EQ(builder.Capacity(), 16'384);
  builder.AppendByVal("y");
  EXPECT_EQ(builder.Capacity(), 24'576);
  EXPECT_EQ(builder.Length(), 16'385);
  builder.Remove(1, 16'384);
  builder.HeapMinimize();
  EXPECT_EQ(builder.Capacity(), 8'192);
  EXPECT_EQ(builder.toString(), "y");
  builder.ChunkSize(10);
  builder.TheString(std::string(8'193, 'z'));
  EXPECT_EQ(builder.Capacity(), 8'202);
  builder.TheString("");
  EXPECT_EQ(builder.Capacity(), 0);
  EXPECT_EQ(builder.toString(), "");
  EXPECT_EQ(FaultNumber([&] { builder.ChunkSize(0); }), 5);
}

TEST(StringBuilder, CountsUtf16Units) {
  cStringBuilder builder;
  builder.AppendNL("a€😀");
  EXPECT_EQ(builder.Length(), 6);
  builder.Insert(2, "é");
  EXPECT_EQ(builder.toString(), "aé€😀\r\n");
  EXPECT_EQ(builder.Find("😀"), 4);
  builder.Remove(4, 1);
  EXPECT_EQ(builder.toString(), "aé€\xEF\xBF\xBD\r\n");
}

TEST(StringBuilder, RefusesPositionsOutside) {
  cStringBuilder builder;
  EXPECT_EQ(FaultNumber([&] { builder.Insert(1, "x"); }), 9);
  builder.Append("abc");
  EXPECT_EQ(FaultNumber([&] { builder.Insert(4, "x"); }), 9);
  EXPECT_EQ(FaultNumber([&] { builder.InsertByVal(0, "x"); }), 9);
  EXPECT_EQ(FaultNumber([&] { builder.Remove(1, 3); }), 9);
  EXPECT_EQ(FaultNumber([&] { builder.Remove(2, 2'147'483'647); }), 9);
  EXPECT_EQ(builder.toString(), "abc");
  builder.Insert(3, "x");
  builder.Remove(1, 2);
  EXPECT_EQ(builder.toString(), "xc");
}

TEST(StringBuilder, FindsFromAStart) {
  cStringBuilder builder;
  builder.Append("abcABCabc");
  EXPECT_EQ(builder.Find("abc"), 1);
  EXPECT_EQ(builder.Find("abc", 2), 7);
  EXPECT_EQ(builder.Find("ABC", 1, CompareMode::kText), 1);
  EXPECT_EQ(builder.Find("aBc", 2, CompareMode::kText), 4);
  EXPECT_EQ(builder.Find("abd"), 0);
  EXPECT_EQ(builder.Find("abd", 1, CompareMode::kText), 0);
  EXPECT_EQ(builder.Find("", 3), 3);
  EXPECT_EQ(builder.Find("a", 10), 0);
  EXPECT_EQ(builder.Find("a", 0), 0);
}

}  // namespace
}  // namespace quenmark::providers
