// The paths of Tradier's market requests and what is read out of the answers.
#pragma once

#include <string>
#include <string_view>

namespace quenmark::feeder {

inline constexpr std::string_view kClockPath = "markets/clock";

// Quotes of symbols separated by ",".
std::string SnapshotPath(std::string_view symbols);
// Minute bars of one symbol from `start` (yyyy-mm-dd HH:MM, exchange wall time) on.
std::string MinuteBarsPath(std::string_view symbol, std::string_view start);

// The text of the newest bar of an answer, from behind its `"time"` key; "" when the answer is a failure or has no bar.
std::string_view NewestBar(std::string_view answer);

}  // namespace quenmark::feeder
