#include "platform/number_text.h"

#include "platform/run_time_error.h"

#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <random>

namespace quenmark::platform {
namespace {

TEST(NumberText, IsTheShortestPlainForm) {
  using Row = std::pair<double, std::string_view>;
  for (const auto& [value, expected] :
       {Row{0, "0"}, Row{-0.0, "0"}, Row{281.12, "281.12"}, Row{0.1 + 0.2, "0.30000000000000004"},
        Row{1e-7, "0.0000001"}, Row{1e21, "1000000000000000000000"}, Row{207.26004999999998, "207.26004999999998"}}) {
    EXPECT_EQ(NumberText(value), expected);
  }
  Locale comma;
  comma.decimalMark = ',';
  EXPECT_EQ(NumberText(-1.5, comma), "-1,5");
  std::string text = "a.b=";
  AppendNumber(text, 2.5, comma);
  EXPECT_EQ(text, "a.b=2,5");
  EXPECT_THROW(NumberText(std::nan("")), RunTimeError);
  EXPECT_THROW(NumberText(std::numeric_limits<double>::infinity()), RunTimeError);
}

TEST(NumberText, ReadsBackToTheSameNumber) {
  std::mt19937_64 random(1);
  for (int round = 0; round < 20'000; ++round) {
    const double value = std::ldexp(static_cast<double>(random()), static_cast<int>(random() % 2100) - 1100);
    if (!std::isfinite(value) || value < std::numeric_limits<double>::min()) continue;
    ASSERT_EQ(ReadNumber(NumberText(value)), value);
  }
}

// Numbers as prices, volumes and percentages are, beside the C++ library's conversions.
TEST(NumberText, OfFewDigitsIsAsExactAsAny) {
  std::mt19937_64 random(2);
  for (int round = 0; round < 50'000; ++round) {
    const double ten = std::pow(10, static_cast<double>(random() % 7));
    const double value = static_cast<double>(random() >> (random() % 64)) / ten;
    char digits[400];
    const std::string text(digits, std::to_chars(digits, digits + 400, value, std::chars_format::fixed).ptr);
    ASSERT_EQ(NumberText(value), text);
    ASSERT_EQ(ReadNumber(text), value) << text;
    const std::string cut = text.substr(0, 1 + random() % 16);
    ASSERT_EQ(ReadNumber(cut), std::strtod(cut.c_str(), nullptr)) << cut;
    // Halves are decided by the shortest text, which is not the library's way.
    const auto places = static_cast<int>(random() % 5);
    const double scaled = value * std::pow(10, places);
    if (scaled > 1e12 || std::abs(scaled - std::floor(scaled) - 0.5) < 0.01) continue;
    std::snprintf(digits, sizeof digits, "%.*f", places, value);
    ASSERT_EQ(FormatDecimal(value, places, false, '.'), digits) << text;
  }
}

TEST(ParseNumber, IsTolerantOfMarksAndNothingElse) {
  using Row = std::pair<std::string_view, double>;
  for (const auto& [text, expected] :
       {Row{"1", 1}, Row{" -1.5 ", -1.5}, Row{"+2", 2}, Row{".5", 0.5}, Row{"5.", 5}, Row{"1,5", 1.5}, Row{"007", 7},
        Row{"1.234,5", 1234.5}, Row{"1,234.5", 1234.5}, Row{"1.234.567,8", 1234567.8}, Row{"1,234,567.8", 1234567.8},
        Row{"1e3", 1000}, Row{"1.5E-3", 0.0015}, Row{"1,5e+2", 150}}) {
    EXPECT_TRUE(IsNumeric(text)) << text;
    EXPECT_EQ(ReadNumber(text), expected) << text;
  }
  for (const std::string_view text :
       {"",   " ",     "-",     ".",       ",",    "abc", "1a",  "1 2",  "- 1",   "--1", "1e",
        "e5", "1.2.3", "1,2,3", "1.2,3,4", "0x10", "inf", "nan", "null", "1e999", "\t1", "1\r\n"}) {
    EXPECT_FALSE(IsNumeric(text)) << text;
    EXPECT_EQ(ReadNumber(text), 0) << text;
  }
}

}  // namespace
}  // namespace quenmark::platform
