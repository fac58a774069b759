#include "platform/date_text.h"

#include <gtest/gtest.h>

#include <limits>

namespace quenmark::platform {
namespace {

TEST(ParseDate, ReadsTheKnownForms) {
  using Row = std::pair<std::string_view, CivilTime>;
  for (const auto& [text, expected] :
       {Row{"2024-03-15", {2024, 3, 15, 0, 0, 0}}, Row{"2024/3/5", {2024, 3, 5, 0, 0, 0}},
        Row{"15/03/2024 10:30:45", {2024, 3, 15, 10, 30, 45}}, Row{" 15-mar-2024  9:05 ", {2024, 3, 15, 9, 5, 0}},
        Row{"2024-02-29 12:00 AM", {2024, 2, 29, 0, 0, 0}}, Row{"2024-02-29 12:00:01pm", {2024, 2, 29, 12, 0, 1}},
        Row{"10:30", {1899, 12, 30, 10, 30, 0}}}) {
    EXPECT_EQ(ParseDate(text), expected) << text;
  }
  for (const char* text :
       {"", " ", "2024-03", "2023-02-29", "2024-13-01", "15/03/24", "03/15/2024", "2024-03/15", "2024-03-15x",
        "2024-03-1510:30", "2024-03-15T10:30:00", "15-Foo-2024", "0099-01-01", "20240315",
        // times of day
        "24:00", "10:60", "10:3", "13:00 PM", "0:00 AM", "10:30 x", "2024-03-15 10:30:"}) {
    EXPECT_FALSE(ParseDate(text)) << text;
  }
}

TEST(DateText, SecondsAndBack) {
  EXPECT_EQ(ToSeconds({2024, 3, 15, 10, 30, 0}), 1710498600);
  EXPECT_EQ(FromSeconds(-1), (CivilTime{1969, 12, 31, 23, 59, 59}));
  for (std::int64_t seconds = -59'011'459'200; seconds < 253'402'300'800; seconds += 86'400 * 37 + 4'321) {
    const CivilTime time = FromSeconds(seconds);
    ASSERT_TRUE(IsValid(time));
    ASSERT_EQ(ToSeconds(time), seconds);
  }
}

TEST(DateFromSerial, CountsFromThe30thOfDecember1899) {
  EXPECT_EQ(DateFromSerial(0), (CivilTime{1899, 12, 30, 0, 0, 0}));
  EXPECT_EQ(DateFromSerial(45366.4375), (CivilTime{2024, 3, 15, 10, 30, 0}));
  EXPECT_EQ(DateFromSerial(-1.25), (CivilTime{1899, 12, 29, 6, 0, 0}));
  EXPECT_EQ(DateFromSerial(2958465.99999), (CivilTime{9999, 12, 31, 23, 59, 59}));
  for (const double days : {1e9, -1e9, 2958466.0, std::numeric_limits<double>::quiet_NaN()}) {
    EXPECT_FALSE(DateFromSerial(days)) << days;
  }
}

TEST(FormatPattern, KnowsItsFields) {
  const CivilTime time{2024, 3, 5, 15, 4, 9};
  using Row = std::pair<std::string_view, std::string_view>;
  for (const auto& [pattern, expected] :
       {Row{"d-m-yy h:m:s", "5-3-24 15:4:9"}, Row{"dd-mmm-yyyy", "05-Mar-2024"}, Row{"mm ss mm", "03 09 03"},
        Row{"hh mm mm", "15 04 03"}, Row{"hh:nn am/pm", "03:04 PM"}, Row{"yyyyy", "2024y"},
        Row{"T\xC3\xA9Z_", "T\xC3\xA9Z_"}, Row{"", ""}}) {
    EXPECT_EQ(FormatPattern(time, pattern), expected) << pattern;
  }
  EXPECT_EQ(FormatPattern({2024, 3, 5, 0, 4, 9}, "hh AM/PM"), "12 AM");
}

}  // namespace
}  // namespace quenmark::platform
