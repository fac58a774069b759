// The exchange's wall clock: New York, with the daylight-saving rule in force since 2007. All instants are seconds
// since 1970-01-01 00:00 UTC.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quenmark::simulator {

// Minutes that the exchange's clock is behind UTC: 240 in summer, 300 in winter.
int MinutesWest(std::int64_t instant);

// The instant of a wall-clock text "YYYY-MM-DD HH:MM" (or "YYYY-MM-DD", midnight). Nothing when it is not one. An hour
// that occurs twice is its first occurrence.
std::optional<std::int64_t> ParseExchangeTime(std::string_view text);

// "YYYY-MM-DDTHH:MM:SS" on the exchange's wall clock.
std::string ExchangeTimeText(std::int64_t instant);

// "YYYY-MM-DDTHH:MM:SSZ", UTC.
std::string UtcTimeText(std::int64_t instant);

// Minutes since the exchange's midnight.
int MinuteOfExchangeDay(std::int64_t instant);

// The latest 16:00 of a weekday before `instant`.
std::int64_t LastClose(std::int64_t instant);

}  // namespace quenmark::simulator
