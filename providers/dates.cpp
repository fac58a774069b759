#include "providers/dates.h"

#include "platform/code_page.h"
#include "platform/date_text.h"
#include "platform/number_text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <optional>

namespace quenmark::providers {

namespace {

using platform::CivilTime;

struct Layout {
  std::string_view name;
  std::string_view pattern;
};
constexpr std::array<Layout, 17> kLayouts = {{
    {"1", "dd/mm/yyyy HH:MM:ss"},
    {"3", "HH:MM:ss"},
    {"4", "HH:MM"},
    {"Mes3B", "dd-mmm-yyyy"},
    {"Mes3B+Hora", "dd-mmm-yyyy HH:MM:ss"},
    {"Mes4+Hora", "dd-mmm HH:MM:ss"},
    {"Month3", "dd-_-yyyy"},
    {"Month3+Hora", "dd-_-yyyy HH:MM:ss"},
    {"Month3+Hr", "dd-_-yy HH:MM"},
    {"Month4+Hora", "dd-_ HH:MM:ss"},
    {"Month5+Hora", "dd-_ hh:mm AM/PM"},
    {"fdata", "yyyymmdd"},
    {"fdata2", "yyyy-mm-dd"},
    {"2", "yyyy-mm-dd"},
    {"GMT", "yyyy-mm-ddTHH:MM:ssZ"},
    {"udate", "yyyy-mm-dd HH:MM:ss"},
    {"udate2", "yyyymmddHHMMss"},
}};

constexpr std::size_t kMillisecondDigits = 13;
constexpr double kFarAway = 1e12;  // seconds; beyond any year that has four digits
constexpr std::string_view kMidnight = " 00:00:00";

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

bool StartsWithDigits(std::string_view text, std::size_t count) {
  return text.size() >= count && std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(count), IsDigit);
}

bool HasAt(std::string_view text, std::size_t index, char c) {
  return index < text.size() && text[index] == c;
}

std::string Joined(std::initializer_list<std::string_view> parts) {
  std::string text;
  for (const std::string_view part : parts) text += part;
  return text;
}

std::string DashedDate(std::string_view digits) {
  return Joined({digits.substr(0, 4), "-", digits.substr(4, 2), "-", digits.substr(6, 2)});
}

std::string ColonTime(std::string_view digits) {
  return Joined({digits.substr(0, 2), ":", digits.substr(2, 2), ":", digits.substr(4, 2)});
}

// yyyymmdd, hhmmss or yyyymmddhhmmss as date text, nothing for digits of another count.
std::optional<std::string> FromDigits(std::string_view digits) {
  if (!StartsWithDigits(digits, digits.size())) return std::nullopt;
  switch (digits.size()) {
    case 6:
      return ColonTime(digits);
    case 8:
      return DashedDate(digits);
    case 14:
      return DashedDate(digits) + " " + ColonTime(digits.substr(8));
    default:
      return std::nullopt;
  }
}

// dd/mm/yy with or without a time.
std::optional<std::string> FromSlashes(std::string_view text) {
  if (!HasAt(text, 2, '/') || !HasAt(text, 5, '/')) return std::nullopt;
  const std::string_view day = text.substr(0, 2);
  const std::string_view month = text.substr(3, 2);
  const std::string_view year = text.substr(6, 2);
  if (text.size() == 8) {
    const std::string_view century = platform::ReadNumber(year) >= 70 ? "19" : "20";
    return Joined({century, year, "-", month, "-", day});
  }
  if ((text.size() != 14 && text.size() != 17) || text[8] != ' ' || text[11] != ':') return std::nullopt;
  const std::string_view seconds = text.size() == 14 ? ":00" : "";
  return Joined({"20", year, "-", month, "-", day, text.substr(8), seconds});
}

// dd-Mmm hh:mm[:ss]
std::optional<std::string> FromDayAndMonth(std::string_view text, int currentYear) {
  if (!HasAt(text, 2, '-') || !HasAt(text, 6, ' ') || (text.size() != 12 && text.size() != 15)) return std::nullopt;
  for (int month = 1; month <= 12; ++month) {
    if (!platform::EqualsIgnoreAsciiCase(text.substr(3, 3), platform::MonthAbbreviation(month))) continue;
    const std::string number = std::to_string(month);
    return Joined(
        {std::to_string(currentYear), month < 10 ? "-0" : "-", number, "-", text.substr(0, 2), text.substr(6)});
  }
  return std::nullopt;
}

std::string FirstCharacters(std::string_view text, std::size_t count) {
  std::size_t end = 0;
  for (; count > 0 && end < text.size(); --count) end += platform::DecodeUtf8(text, end).length;
  return std::string(text.substr(0, end));
}

// A value on its way to a date: the date text, and the date unless it is none.
struct Normalised {
  std::string text;
  std::optional<CivilTime> time;
};

Normalised FromText(std::string text) {
  const std::optional<CivilTime> time = platform::ParseDate(text);
  return {std::move(text), time};
}

Normalised NormaliseNumber(double value) {
  if (!std::isfinite(value)) return {};
  std::string text = platform::NumberText(value);
  if (const std::optional<std::string> date = FromDigits(text)) return FromText(*date);
  return {std::move(text), platform::DateFromSerial(value)};
}

Normalised NormaliseText(std::string_view value, int currentYear) {
  if (const std::optional<std::string> date = FromSlashes(value)) return FromText(*date);
  if (const std::optional<std::string> date = FromDigits(value)) return FromText(*date);
  if (const std::optional<double> number = platform::ParseNumber(value)) {
    return {std::string(value), platform::DateFromSerial(*number)};
  }
  if (const std::optional<CivilTime> time = platform::ParseDate(value)) return {std::string(value), time};
  if (StartsWithDigits(value, 8)) return FromText(DashedDate(value));
  if (const std::optional<std::string> date = FromDayAndMonth(value, currentYear)) return FromText(*date);
  return FromText(FirstCharacters(value, 10));
}

std::string_view PatternOf(std::string_view layout) {
  for (const Layout& row : kLayouts) {
    if (row.name == layout) return row.pattern;
  }
  return layout;
}

std::string Format(const Normalised& value, std::string_view layout, const DateRules& rules) {
  std::string text = value.time ? platform::FormatPattern(*value.time, PatternOf(layout), rules.locale) : value.text;
  text = platform::AsciiUpper(text);
  if (value.time) {
    const std::string_view month = platform::MonthAbbreviation(value.time->month);
    for (std::size_t at = text.find('_'); at != std::string::npos; at = text.find('_', at)) text.replace(at, 1, month);
  }
  std::string result;
  std::size_t start = 0;
  for (std::size_t at = text.find(kMidnight); at != std::string::npos; at = text.find(kMidnight, start)) {
    result.append(text, start, at - start);
    start = at + kMidnight.size();
  }
  return result.append(text, start);
}

// The local time of a UTC time in seconds, nothing outside the years 100 to 9999.
std::optional<CivilTime> ToLocal(double utcSeconds, double gmtOffsetMinutes) {
  const double local = std::floor(utcSeconds - gmtOffsetMinutes * 60);
  if (!(std::abs(local) < kFarAway)) return std::nullopt;
  const CivilTime time = platform::FromSeconds(static_cast<std::int64_t>(local));
  if (!platform::IsValid(time)) return std::nullopt;
  return time;
}

void WriteDigits(std::array<char, 14>& digits, std::size_t at, std::size_t count, int value) {
  for (std::size_t index = count; index-- > 0; value /= 10) digits[at + index] = static_cast<char>('0' + value % 10);
}

bool WriteStamp(double unixSeconds, double gmtOffsetMinutes, std::string& stamp) {
  stamp.clear();
  const std::optional<CivilTime> time = ToLocal(unixSeconds, gmtOffsetMinutes);
  if (!time) return false;
  std::array<char, 14> digits;
  WriteDigits(digits, 0, 4, time->year);
  WriteDigits(digits, 4, 2, time->month);
  WriteDigits(digits, 6, 2, time->day);
  WriteDigits(digits, 8, 2, time->hour);
  WriteDigits(digits, 10, 2, time->minute);
  WriteDigits(digits, 12, 2, time->second);
  stamp.assign(digits.data(), digits.size());
  return true;
}

bool NumberToStamp(double time, double gmtOffsetMinutes, std::string& stamp) {
  stamp.clear();
  if (!std::isfinite(time)) return false;
  const bool isMilliseconds = platform::NumberText(time).size() == kMillisecondDigits;
  return WriteStamp(isMilliseconds ? time / 1000 : time, gmtOffsetMinutes, stamp);
}

}  // namespace

std::string FormatDate(const CivilTime& value, std::string_view layout, const DateRules& rules) {
  return Format({{}, value}, layout, rules);
}

std::string FormatDate(double value, std::string_view layout, const DateRules& rules) {
  return Format(NormaliseNumber(value), layout, rules);
}

std::string FormatDate(std::string_view value, std::string_view layout, const DateRules& rules) {
  return Format(NormaliseText(value, rules.currentYear), layout, rules);
}

std::string_view MonthAbbrev(int month) {
  return platform::MonthAbbreviation(month);
}

std::string StreamTimeToLocal(std::string_view utc, const DateRules& rules) {
  constexpr std::string_view kLayout = "GMT";
  std::string text =
      platform::AsciiUpper(platform::IsNumeric(utc) ? FormatDate(utc, kLayout, rules) : std::string(utc));
  std::replace(text.begin(), text.end(), 'T', ' ');
  text.erase(std::remove(text.begin(), text.end(), 'Z'), text.end());
  if (const std::size_t dot = text.find('.'); dot != std::string::npos && dot > text.find(':')) {
    const std::size_t end = std::min(text.find_first_not_of("0123456789", dot + 1), text.size());
    text.erase(dot, end - dot);
  }
  if (const std::optional<CivilTime> time = platform::ParseDate(text)) {
    const std::optional<CivilTime> local = ToLocal(DateToUnix(*time), rules.gmtOffsetMinutes);
    if (local) return FormatDate(*local, kLayout, rules);
  }
  return FormatDate(text, kLayout, rules);
}

double DateToUnix(const CivilTime& date) {
  return static_cast<double>(platform::ToSeconds(date));
}

double DateToUnix(std::string_view date) {
  const std::optional<CivilTime> time = platform::ParseDate(date);
  return time ? DateToUnix(*time) : 0;
}

std::string UnixToLocal(std::string_view time, const DateRules& rules) {
  std::string stamp;
  UnixToStamp(time, rules.gmtOffsetMinutes, stamp);
  return stamp;
}

std::string UnixToLocal(double time, const DateRules& rules) {
  std::string stamp;
  NumberToStamp(time, rules.gmtOffsetMinutes, stamp);
  return stamp;
}

bool UnixToStamp(std::string_view time, double gmtOffsetMinutes, std::string& stamp) {
  constexpr std::size_t kMostDigits = 15;  // every such number is a double exactly
  const bool isPlain = !time.empty() && time.front() != '0' && time.size() <= kMostDigits;
  if (isPlain && StartsWithDigits(time, time.size())) {
    std::int64_t value = 0;
    for (const char digit : time) value = value * 10 + (digit - '0');
    if (time.size() == kMillisecondDigits) value /= 1000;
    return WriteStamp(static_cast<double>(value), gmtOffsetMinutes, stamp);
  }
  const std::optional<double> number = platform::ParseNumber(time);
  stamp.clear();
  return number && NumberToStamp(*number, gmtOffsetMinutes, stamp);
}

}  // namespace quenmark::providers
