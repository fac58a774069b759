// The texts of the market-events stream, one JSON object each. Written for speed: they go straight behind what a buffer
// holds.
#pragma once

#include "simulator/market.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quenmark::simulator {

enum class EventKind { kQuote, kTrade, kSummary, kTimesale };
// "quote", "trade", "summary" or "timesale"; nothing for other texts.
std::optional<EventKind> ParseEventKind(std::string_view text);

struct EventStamps {
  std::int64_t now = 0;       // milliseconds since 1970 UTC
  std::int64_t sequence = 0;  // of trades
  Session session = Session::kOpen;
  // Microseconds since 1970 UTC. When set it stands in place of both sizes of a quote and, in seconds, of the last
  // price of a time and sale.
  std::optional<std::int64_t> sent;
};

// A summary needs a stock that has an open price.
void AppendEvent(EventKind kind, const Stock& stock, const EventStamps& stamps, std::string& out);

}  // namespace quenmark::simulator
