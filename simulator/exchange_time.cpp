#include "simulator/exchange_time.h"

#include <fmt/format.h>

#include <chrono>

namespace quenmark::simulator {
namespace {

using std::chrono::floor;
using std::chrono::hours;
using std::chrono::seconds;
using std::chrono::sys_days;
using std::chrono::sys_seconds;
using std::chrono::year_month_day;

// Seconds of the exchange's wall clock, counted as if it were UTC.
std::int64_t WallSeconds(std::int64_t instant) {
  return instant - std::int64_t{MinutesWest(instant)} * 60;
}

std::int64_t InstantOf(std::int64_t wall) {
  const std::int64_t summer = wall + std::int64_t{240} * 60;
  return MinutesWest(summer) == 240 ? summer : wall + std::int64_t{300} * 60;
}

// The number that `text` holds from `from` on, `digits` long; -1 when a character is no digit.
int Digits(std::string_view text, std::size_t from, std::size_t digits) {
  int value = 0;
  for (const char character : text.substr(from, digits)) {
    if (character < '0' || character > '9') return -1;
    value = value * 10 + (character - '0');
  }
  return value;
}

std::string DateTimeText(std::int64_t time) {
  const sys_days day = floor<std::chrono::days>(sys_seconds{seconds{time}});
  const year_month_day date{day};
  const std::int64_t second = (sys_seconds{seconds{time}} - day).count();
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), second / 3600,
                     second / 60 % 60, second % 60);
}

}  // namespace

int MinutesWest(std::int64_t instant) {
  using namespace std::chrono;
  const sys_seconds time{seconds{instant}};
  const year year = year_month_day{floor<days>(time)}.year();
  const sys_seconds begin = sys_days{year / March / Sunday[2]} + hours{7};
  const sys_seconds end = sys_days{year / November / Sunday[1]} + hours{6};
  return time >= begin && time < end ? 240 : 300;
}

std::optional<std::int64_t> ParseExchangeTime(std::string_view text) {
  if (text.size() != 10 && text.size() != 16) return std::nullopt;
  if (text[4] != '-' || text[7] != '-') return std::nullopt;
  const year_month_day date{std::chrono::year{Digits(text, 0, 4)},
                            std::chrono::month{static_cast<unsigned>(Digits(text, 5, 2))},
                            std::chrono::day{static_cast<unsigned>(Digits(text, 8, 2))}};
  if (Digits(text, 0, 4) < 1970 || !date.ok()) return std::nullopt;
  int hour = 0;
  int minute = 0;
  if (text.size() == 16) {
    hour = Digits(text, 11, 2);
    minute = Digits(text, 14, 2);
    if (text[10] != ' ' || text[13] != ':' || hour < 0 || hour > 23 || minute < 0 || minute > 59) return std::nullopt;
  }
  const sys_seconds midnight = sys_days{date};
  return InstantOf(midnight.time_since_epoch().count() + std::int64_t{hour} * 3600 + std::int64_t{minute} * 60);
}

std::string ExchangeTimeText(std::int64_t instant) {
  return DateTimeText(WallSeconds(instant));
}

std::string UtcTimeText(std::int64_t instant) {
  return DateTimeText(instant) + 'Z';
}

int MinuteOfExchangeDay(std::int64_t instant) {
  const sys_seconds wall{seconds{WallSeconds(instant)}};
  return static_cast<int>((wall - floor<std::chrono::days>(wall)).count() / 60);
}

std::int64_t LastClose(std::int64_t instant) {
  sys_days day = floor<std::chrono::days>(sys_seconds{seconds{WallSeconds(instant)}});
  for (;; day -= std::chrono::days{1}) {
    const std::chrono::weekday weekday{day};
    const std::int64_t close = InstantOf((sys_seconds{day} + hours{16}).time_since_epoch().count());
    if (weekday != std::chrono::Saturday && weekday != std::chrono::Sunday && close < instant) return close;
  }
}

}  // namespace quenmark::simulator
