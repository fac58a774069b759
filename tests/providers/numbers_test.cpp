#include "providers/numbers.h"

#include "platform/run_time_error.h"

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
  const Case cases[] = {
      {"1.234,5", 2, false, false, "1234.50", "1234.50"},
      {"1,234.5", 2, true, true, "1,234.50", "1.234,50"},
      {"1,234.5", 2, true, false, "1,234.50", "1,234.50"},
      {"1234567.5", 0, true, true, "1,234,568", "1.234.568"},
      {"1,5", 2, false, true, "1.50", "1,50"},
      {" 123.45 ", 2, false, false, "123.45", "123.45"},
      {"-1.234", 2, false, false, "-1.23", "-1.23"},
      {"1.005", 2, false, false, "1.01", "1.01"},
      {"-2.5", 0, false, false, "-3", "-3"},
      {"-0.004", 2, false, false, "0.00", "0.00"},
      {"999.995", 2, true, false, "1,000.00", "1,000.00"},
      {".5", 0, false, false, "1", "1"},
      {"1e3", 1, true, false, "1,000.0", "1,000.0"},
      {"abc", 2, false, false, "0", "0"},
      {"", 2, false, false, "0", "0"},
      {"1.2.3", 2, false, false, "0", "0"},
      {"1,234,567", 2, false, false, "0", "0"},
      {"12", -3, false, false, "12", "12"},
  };
  for (const Case& row : cases) {
    EXPECT_EQ(FormatNum(row.value, row.decimals, row.grouping, kEnglish, row.local), row.withDot) << row.value;
    EXPECT_EQ(FormatNum(row.value, row.decimals, row.grouping, kEnglish, row.local, CommaLocale()), row.withComma)
        << row.value;
  }
  EXPECT_EQ(FormatNum(std::numeric_limits<double>::infinity(), 2, false, kEnglish, false), "0");
  EXPECT_EQ(FormatNum(1234.5, 1, true, 1046, false, CommaLocale()), "1.234,5");
}

TEST(ToHundredths, RoundsTwice) {
  const std::pair<std::string_view, double> cases[] = {{"123.456", 12346}, {"150.25", 15025}, {"1.005", 101},
                                                       {"-0.125", -13},    {"1,5", 150},      {"null", 0}};
  for (const auto& [text, expected] : cases) EXPECT_EQ(ToHundredths(text), expected) << text;
  EXPECT_EQ(ToHundredths(287.59), 28759);
}

TEST(VFormat, FormatsByPattern) {
  VFormat format(CommaLocale());
  EXPECT_EQ(format.LCID(), 127);
  EXPECT_EQ(format.Format(1234.5, "#,##0"), "1,235");
  EXPECT_EQ(format.Format(1234.5, "#0.00"), "1234.50");
  EXPECT_EQ(format.Format(0.5, "#0.0"), "0.5");
  EXPECT_EQ(format.Format(0.5, "#.##"), ".5");
  EXPECT_EQ(format.Format(3, "000.0#"), "003.0");
  EXPECT_EQ(format.Format(-7, "00.##"), "-07");
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
    try {
      Divide(left, right);
      ADD_FAILURE() << left << " / " << right;
    } catch (const platform::RunTimeError& raised) {
      EXPECT_EQ(raised.Number(), error);
    }
  }
}

}  // namespace
}  // namespace quenmark::providers
