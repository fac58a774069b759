#include "providers/dates.h"

#include <gtest/gtest.h>

#include <string>

namespace quenmark::providers {
namespace {

using Row = std::pair<std::string_view, std::string_view>;

DateRules RulesOf(double gmtOffsetMinutes) {
  DateRules rules;
  rules.gmtOffsetMinutes = gmtOffsetMinutes;
  rules.currentYear = 2024;
  return rules;
}

TEST(FormatDate, ReadsTexts) {
  struct Case {
    std::string_view value, layout, expected;
  };
  for (const Case& row :
       {Case{"15/03/70 10:30", "udate", "2070-03-15 10:30:00"},
        Case{"15/03/24 10:30:45", "udate", "2024-03-15 10:30:45"},
        Case{"20240315103000", "udate", "2024-03-15 10:30:00"}, Case{"2024-03-15 00:00:00", "udate", "2024-03-15"},
        Case{"2024-03-15T10:30:00Z", "udate", "2024-03-15"}, Case{"15-Mar 10:30", "udate", "2024-03-15 10:30:00"},
        Case{"45366.4375", "udate", "2024-03-15 10:30:00"}, Case{"1710498600", "udate", "1710498600"},
        Case{"15/03/69", "2", "2069-03-15"}, Case{"15/03/70", "2", "1970-03-15"}, Case{"20240315", "1", "15/03/2024"},
        Case{"103000", "3", "10:30:00"}, Case{"20240315T1030", "fdata", "20240315"},
        Case{"15-SEP 10:30:45", "udate2", "20240915103045"}, Case{"15-Mar-2024 3:05 PM", "4", "15:05"},
        // what is no date
        Case{"15/13/24", "2", "2024-13-15"}, Case{"ab/cd/ef", "2", "20EF-CD-AB"},
        Case{"hello, world!", "2", "HELLO, WOR"}, Case{"äöüäöüäöüäöü", "2", "äöüäöüäöüä"}, Case{"", "2", ""}}) {
    EXPECT_EQ(FormatDate(row.value, row.layout, RulesOf(0)), row.expected) << row.value;
  }
}

TEST(FormatDate, KnowsEveryLayout) {
  const platform::CivilTime time{2024, 3, 15, 15, 5, 9};
  for (const auto& [layout, expected] :
       {Row{"1", "15/03/2024 15:05:09"}, Row{"3", "15:05:09"}, Row{"4", "15:05"}, Row{"Mes3B", "15-MAR-2024"},
        Row{"Mes3B+Hora", "15-MAR-2024 15:05:09"}, Row{"Mes4+Hora", "15-MAR 15:05:09"}, Row{"Month3", "15-Mar-2024"},
        Row{"Month3+Hora", "15-Mar-2024 15:05:09"}, Row{"Month3+Hr", "15-Mar-24 15:05"},
        Row{"Month4+Hora", "15-Mar 15:05:09"}, Row{"Month5+Hora", "15-Mar 03:05 PM"}, Row{"fdata", "20240315"},
        Row{"fdata2", "2024-03-15"}, Row{"2", "2024-03-15"}, Row{"GMT", "2024-03-15T15:05:09Z"},
        Row{"udate", "2024-03-15 15:05:09"}, Row{"udate2", "20240315150509"}, Row{"UDATE2", "U15ATE2"},
        Row{"d/m/yy h:n:s x", "15/3/24 15:5:9 X"}}) {
    EXPECT_EQ(FormatDate(time, layout, RulesOf(0)), expected) << layout;  // names are exact: "UDATE2" is a pattern
  }
  EXPECT_EQ(FormatDate({2024, 3, 15, 0, 0, 0}, "Month3+Hora", RulesOf(0)), "15-Mar-2024");
  EXPECT_EQ(FormatDate(20240315103000.0, "udate", RulesOf(0)), "2024-03-15 10:30:00");
  EXPECT_EQ(FormatDate(45366.0, "udate", RulesOf(0)), "2024-03-15");
  DateRules rules = RulesOf(0);
  rules.locale.dateSeparator = '.';
  rules.locale.timeSeparator = '.';
  EXPECT_EQ(FormatDate({2024, 3, 15, 10, 30, 0}, "1", rules), "15.03.2024 10.30.00");
}

TEST(StreamTimeToLocal, KeepsTheLetters) {
  for (const auto& [text, expected] :
       {Row{"2024-03-15T10:30:00Z", "2024-03-15T07:30:00Z"}, Row{"2024-03-15t01:30:00.999z", "2024-03-14T22:30:00Z"},
        Row{"20240315103000", "2024-03-15T07:30:00Z"}, Row{"2024-03-15", "2024-03-14T21:00:00Z"},
        Row{"garbage", "GARBAGE"}, Row{"", ""}, Row{"0100-01-01T00:00:00Z", "0100-01-01T00:00:00Z"}}) {
    EXPECT_EQ(StreamTimeToLocal(text, RulesOf(180)), expected) << text;
  }
}

TEST(UnixToLocal, TakesSecondsAndMilliseconds) {
  for (const auto& [text, expected] :
       {Row{"1710498600", "20240315063000"}, Row{"1710498600000", "20240315063000"},
        Row{"1710498600999", "20240315063000"}, Row{" 1710498600000 ", "20240315063000"},
        Row{"1.7104986e12", "20240315063000"}, Row{"1710498600.9", "20240315063000"}, Row{"0", "19691231200000"},
        Row{"00000000000000", "19691231200000"}, Row{"-1", "19691231195959"}, Row{"253402300800", "99991231200000"},
        Row{"253402315200", ""}, Row{"1e300", ""}, Row{"", ""}, Row{"null", ""}, Row{"99999999999999999999", ""}}) {
    EXPECT_EQ(UnixToLocal(text, RulesOf(240)), expected) << text;
  }
  EXPECT_EQ(UnixToLocal(1710498600000.0, RulesOf(-330)), "20240315160000");
  EXPECT_EQ(UnixToLocal("1710498600", RulesOf(1e300)), "");
}

TEST(UnixToStamp, EmptiesTheStampOnFailureAndDatesCountFrom1970) {
  std::string stamp = "old";
  EXPECT_TRUE(UnixToStamp("1557757204760", 240, stamp));
  EXPECT_EQ(stamp, "20190513102004");
  EXPECT_FALSE(UnixToStamp("x", 240, stamp));
  EXPECT_EQ(stamp, "");
  EXPECT_EQ(DateToUnix({2024, 3, 15, 10, 30, 0}), 1710498600);
  EXPECT_EQ(DateToUnix("2024-03-15 10:30:00"), 1710498600);
  EXPECT_EQ(DateToUnix("1969-12-31"), -86400);
  EXPECT_EQ(DateToUnix("nonsense"), 0);
  EXPECT_EQ(std::string(MonthAbbrev(0)).append(MonthAbbrev(1)).append(MonthAbbrev(12)).append(MonthAbbrev(13)),
            "JanDec");
}

}  // namespace
}  // namespace quenmark::providers
