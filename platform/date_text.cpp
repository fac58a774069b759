#include "platform/date_text.h"

#include "platform/code_page.h"

#include <array>
#include <chrono>
#include <cmath>

namespace quenmark::platform {

namespace {

constexpr std::int64_t kSecondsPerDay = 86'400;
constexpr std::int64_t kSerialEpochDays = -25'569;  // 30 December 1899, in days from 1970

constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

std::int64_t DaysFrom1970(int year, int month, int day) {
  return std::chrono::sys_days{std::chrono::year{year} / month / day}.time_since_epoch().count();
}

// Reads forward through a date text. A failed step leaves the position where it was.
class DateReader {
 public:
  explicit DateReader(std::string_view text) : m_text(text) {}

  bool AtEnd() const { return m_at == m_text.size(); }
  std::size_t Position() const { return m_at; }
  void Return(std::size_t position) { m_at = position; }

  bool Take(char c) {
    if (AtEnd() || m_text[m_at] != c) return false;
    ++m_at;
    return true;
  }
  void SkipBlanks() {
    while (Take(' ')) {
    }
  }
  // A run of digits, as long as it has between `fewest` and `most` of them.
  bool TakeDigits(std::size_t fewest, std::size_t most, int& value) {
    std::size_t end = m_at;
    int read = 0;
    while (end < m_text.size() && m_text[end] >= '0' && m_text[end] <= '9') {
      if (end - m_at == most) return false;
      read = read * 10 + (m_text[end++] - '0');
    }
    if (end - m_at < fewest) return false;
    m_at = end;
    value = read;
    return true;
  }
  bool TakeWord(std::string_view word) {
    if (!EqualsIgnoreAsciiCase(m_text.substr(m_at, word.size()), word)) return false;
    m_at += word.size();
    return true;
  }
  bool TakeMonth(int& month) {
    for (int candidate = 1; candidate <= 12; ++candidate) {
      if (!TakeWord(MonthAbbreviation(candidate))) continue;
      month = candidate;
      return true;
    }
    return false;
  }

 private:
  std::string_view m_text;
  std::size_t m_at = 0;
};

bool ReadDay(DateReader& reader, CivilTime& time) {
  const std::size_t start = reader.Position();
  for (const char separator : {'-', '/'}) {
    if (reader.TakeDigits(4, 4, time.year) && reader.Take(separator) && reader.TakeDigits(1, 2, time.month) &&
        reader.Take(separator) && reader.TakeDigits(1, 2, time.day)) {
      return true;
    }
    reader.Return(start);
  }
  if (reader.TakeDigits(1, 2, time.day) && reader.Take('/') && reader.TakeDigits(1, 2, time.month) &&
      reader.Take('/') && reader.TakeDigits(4, 4, time.year)) {
    return true;
  }
  reader.Return(start);
  if (reader.TakeDigits(1, 2, time.day) && reader.Take('-') && reader.TakeMonth(time.month) && reader.Take('-') &&
      reader.TakeDigits(4, 4, time.year)) {
    return true;
  }
  reader.Return(start);
  return false;
}

bool ReadTimeOfDay(DateReader& reader, CivilTime& time) {
  if (!reader.TakeDigits(1, 2, time.hour) || !reader.Take(':') || !reader.TakeDigits(2, 2, time.minute)) return false;
  time.second = 0;
  if (reader.Take(':') && !reader.TakeDigits(2, 2, time.second)) return false;
  reader.SkipBlanks();
  const bool morning = reader.TakeWord("AM");
  if (!morning && !reader.TakeWord("PM")) return true;
  if (time.hour < 1 || time.hour > 12) return false;
  time.hour = time.hour % 12 + (morning ? 0 : 12);
  return true;
}

void AppendPadded(std::string& text, int value, std::size_t width) {
  std::string digits = std::to_string(value);
  if (digits.size() < width) text.append(width - digits.size(), '0');
  text += digits;
}

constexpr std::string_view kHalfDayMark = "AM/PM";

// Position of "AM/PM" in a pattern, npos when there is none.
std::size_t FindHalfDayMark(std::string_view pattern) {
  return AsciiUpper(pattern).find(kHalfDayMark);
}

// Formats one pattern from left to right.
class PatternFormatter {
 public:
  PatternFormatter(const CivilTime& time, std::string_view pattern, const Locale& locale)
      : m_time(time), m_pattern(pattern), m_locale(locale), m_halfDays(FindHalfDayMark(pattern) != pattern.npos) {}

  std::string Format() {
    for (std::size_t at = 0; at < m_pattern.size();) {
      if (EqualsIgnoreAsciiCase(m_pattern.substr(at, kHalfDayMark.size()), kHalfDayMark)) {
        m_result += m_time.hour < 12 ? "AM" : "PM";
        at += kHalfDayMark.size();
        continue;
      }
      const char letter = AsciiLower(m_pattern[at]);
      std::size_t run = 1;
      while (at + run < m_pattern.size() && AsciiLower(m_pattern[at + run]) == letter) ++run;
      at += AppendField(letter, run, m_pattern[at]);
    }
    return std::move(m_result);
  }

 private:
  // Appends the field that a run of equal letters begins with; returns how many of them it used.
  std::size_t AppendField(char letter, std::size_t run, char original) {
    const std::size_t pair = run < 2 ? 1 : 2;
    switch (letter) {
      case 'd':
        return AppendNumberField(m_time.day, pair);
      case 'n':
        return AppendNumberField(m_time.minute, pair);
      case 's':
        return AppendNumberField(m_time.second, pair);
      case 'h': {
        const int hour = m_halfDays ? (m_time.hour + 11) % 12 + 1 : m_time.hour;
        AppendPadded(m_result, hour, pair);
        m_afterHour = true;
        return pair;
      }
      case 'm':
        if (run >= 3) {
          m_result += MonthAbbreviation(m_time.month);
          m_afterHour = false;
          return 3;
        }
        return AppendNumberField(m_afterHour ? m_time.minute : m_time.month, pair);
      case 'y':
        if (run >= 4) return AppendNumberField(m_time.year, 4);
        if (run >= 2) return AppendNumberField(m_time.year % 100, 2);
        break;
      case '/':
        m_result += m_locale.dateSeparator;
        return 1;
      case ':':
        m_result += m_locale.timeSeparator;
        return 1;
      default:
        break;
    }
    m_result += original;
    return 1;
  }

  std::size_t AppendNumberField(int value, std::size_t width) {
    AppendPadded(m_result, value, width);
    m_afterHour = false;
    return width;
  }

  const CivilTime& m_time;
  std::string_view m_pattern;
  const Locale& m_locale;
  bool m_halfDays;
  bool m_afterHour = false;
  std::string m_result;
};

}  // namespace

std::int64_t ToSeconds(const CivilTime& time) {
  return DaysFrom1970(time.year, time.month, time.day) * kSecondsPerDay + SecondsSinceMidnight(time);
}

CivilTime FromSeconds(std::int64_t seconds) {
  std::int64_t days = seconds / kSecondsPerDay;
  std::int64_t rest = seconds % kSecondsPerDay;
  if (rest < 0) {
    rest += kSecondsPerDay;
    --days;
  }
  const std::chrono::year_month_day date{std::chrono::sys_days{std::chrono::days{days}}};
  CivilTime time;
  time.year = static_cast<int>(date.year());
  time.month = static_cast<int>(static_cast<unsigned>(date.month()));
  time.day = static_cast<int>(static_cast<unsigned>(date.day()));
  time.hour = static_cast<int>(rest / 3600);
  time.minute = static_cast<int>(rest / 60 % 60);
  time.second = static_cast<int>(rest % 60);
  return time;
}

bool IsValid(const CivilTime& time) {
  const auto within = [](int value, int lowest, int highest) { return value >= lowest && value <= highest; };
  if (!within(time.year, 100, 9999) || !within(time.month, 1, 12) || !within(time.day, 1, 31)) return false;
  if (!within(time.hour, 0, 23) || !within(time.minute, 0, 59) || !within(time.second, 0, 59)) return false;
  return (std::chrono::year{time.year} / time.month / time.day).ok();
}

std::optional<CivilTime> ParseDate(std::string_view text) {
  DateReader reader(text);
  CivilTime time{1899, 12, 30, 0, 0, 0};
  reader.SkipBlanks();
  CivilTime day;
  const bool hasDay = ReadDay(reader, day);
  if (hasDay) time = day;
  const std::size_t afterDay = reader.Position();
  reader.SkipBlanks();
  if (!reader.AtEnd()) {
    if (hasDay && reader.Position() == afterDay) return std::nullopt;
    if (!ReadTimeOfDay(reader, time)) return std::nullopt;
    reader.SkipBlanks();
  } else if (!hasDay) {
    return std::nullopt;
  }
  if (!reader.AtEnd() || !IsValid(time)) return std::nullopt;
  return time;
}

std::optional<CivilTime> DateFromSerial(double days) {
  constexpr double kFirst = -657'434;  // 1 January 100
  constexpr double kLast = 2'958'466;  // 1 January 10000
  if (!(days >= kFirst && days < kLast)) return std::nullopt;
  // The fraction counts forward from midnight for days before the epoch, too.
  const double whole = std::trunc(days);
  const auto secondOfDay = static_cast<std::int64_t>(std::abs(days - whole) * kSecondsPerDay + 1e-4);
  const CivilTime time =
      FromSeconds((static_cast<std::int64_t>(whole) + kSerialEpochDays) * kSecondsPerDay + secondOfDay);
  if (!IsValid(time)) return std::nullopt;
  return time;
}

std::string FormatPattern(const CivilTime& time, std::string_view pattern, const Locale& locale) {
  return PatternFormatter(time, pattern, locale).Format();
}

std::string_view MonthAbbreviation(int month) {
  return month >= 1 && month <= 12 ? kMonths[static_cast<std::size_t>(month - 1)] : std::string_view{};
}

}  // namespace quenmark::platform
