#include "providers/numbers.h"

#include "tests/support/fault_number.h"

#include <gtest/gtest.h>

#include <limits>

namespace quenmark::providers {
namespace {

constexpr std::int32_t kEnglish = platform::kLocaleEnglishUs;

platform::Locale CommaLocale() {
  platform::Locale locale;
  locale.decimalMark = ',';
  return locale;
}

TEST(FormatNum, FormatsWhateverTheMark) {
  struct Case {
    std::string_view value;
    int decimals;
    bool grouping;
    bool local;
    std::string_view withDot;    // on a system whose mark is "."
    std::string_view withComma;  // on one whose mark is ","
  };
  for (const Case& row :
       {Case{"1.234,5", 2, false, false, "1234.50", "1234.50"}, Case{"1,234.5", 2, true, true, "1,234.50", "1.234,50"},
        Case{"1,234.5", 2, true, false, "1,234.50", "1,234.50"},
        Case{"1234567.5", 0, true, true, "1,234,568", "1.234.568"}, Case{"1,5", 2, false, true, "1.50", "1,50"},
        Case{"1.005", 2, false, false, "1.01", "1.01"}, Case{"-2.5", 0, false, false, "-3", "-3"},
        Case{"0.285", 2, false, false, "0.29", "0.29"}, Case{"9.995", 2, false, false, "10.00", "10.00"},
        Case{"-0.004", 2, false, false, "0.00", "0.00"}, Case{"999.995", 2, true, false, "1,000.00", "1,000.00"},
        Case{".5", 0, false, false, "1", "1"}, Case{"1e3", 1, true, false, "1,000.0", "1,000.0"},
        Case{"abc", 2, false, false, "0", "0"}, Case{"12", -3, false, false, "12", "12"}}) {
    EXPECT_EQ(FormatNum(row.value, row.decimals, row.grouping, kEnglish, row.local), row.withDot) << row.value;
    EXPECT_EQ(FormatNum(row.value, row.decimals, row.grouping, kEnglish, row.local, CommaLocale()), row.withComma)
        << row.value;
  }
  EXPECT_EQ(FormatNum(std::numeric_limits<double>::infinity(), 2, false, kEnglish, false), "0");
  EXPECT_EQ(FormatNum(1e15, 1, true, kEnglish, false), "1,000,000,000,000,000.0");
  EXPECT_EQ(FormatNum(-1000, 0, true, kEnglish, false), "-1,000");
  EXPECT_EQ(FormatNum(1234.5, 1, true, 1046, false, CommaLocale()), "1.234,5");
}

TEST(ToHundredths, RoundsTwice) {
  using Row = std::pair<std::string_view, double>;
  for (const auto& [text, expected] : {Row{"123.456", 12346}, Row{"150.25", 15025}, Row{"1.005", 101},
                                       Row{"-0.125", -13}, Row{"1,5", 150}, Row{"null", 0}}) {
    EXPECT_EQ(ToHundredths(text), expected) << text;
  }
  EXPECT_EQ(ToHundredths(287.59), 28759);
}

TEST(VFormat, FormatsByPattern) {
  VFormat format(CommaLocale());
  EXPECT_EQ(format.LCID(), 127);
  using Row = std::tuple<double, std::string_view, std::string_view>;
  for (const auto& [value, pattern, expected] :
       {Row{1234.5, "#,##0", "1,235"}, Row{1234.5, "#0.00", "1234.50"}, Row{0.5, "#0.0", "0.5"}, Row{0.5, "#.##", ".5"},
        Row{3, "000.0#", "003.0"}, Row{-7, "00.##", "-07"}}) {
    EXPECT_EQ(format.Format(value, pattern), expected) << pattern;
  }
  EXPECT_EQ(format.Format("1.234,5", "#0.00"), "1234.50");
  format.LCID(1046);
  EXPECT_EQ(format.Format(1234.5, "#,##0.00"), "1.234,50");
  for (const std::string_view pattern : {"", "0.0.0", "0.0,0", "yyyy"}) {
    EXPECT_THROW(format.Format(1, pattern), platform::RunTimeError) << pattern;
  }
  EXPECT_THROW(format.Format("x", "0"), platform::RunTimeError);
}

TEST(Divide, ReportsWhatIsNoNumber) {
  EXPECT_EQ(Divide(1, 4), 0.25);
  for (const auto& [left, right, error] : {std::tuple(1.0, 0.0, 11), {0.0, 0.0, 6}, {1e300, 1e-300, 6}}) {
    EXPECT_EQ(test::FaultNumber([&, x = left, y = right] { Divide(x, y); }), error) << left << " / " << right;
  }
}

}  // namespace
}  // namespace quenmark::providers
