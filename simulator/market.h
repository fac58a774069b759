// A random-walk market. A symbol moves one step whenever it is asked for, from a generator of its own: the same seed
// and the same questions give the same prices, whatever other symbols are asked. Prices are whole cents. With a fixed
// clock times repeat as well.
#pragma once

#include "simulator/universe.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace quenmark::simulator {

using Cents = std::int64_t;

enum class Session { kPre, kOpen, kPost, kClosed };
// "pre", "open", "post" or "closed"; nothing for other texts.
std::optional<Session> ParseSession(std::string_view text);
std::string_view SessionName(Session session);

struct Bar {
  std::int64_t minute = 0;  // minutes since 1970 UTC
  Cents open = 0;
  Cents high = 0;
  Cents low = 0;
  Cents close = 0;
  std::int64_t volume = 0;
  std::int64_t turnover = 0;  // cents times shares
};

struct Stock {
  Instrument instrument;
  std::size_t index = 0;
  std::uint64_t random = 0;  // state of the symbol's generator
  Cents base = 0;            // where the walk began; it stays between a quarter and four times of it
  Cents price = 0;           // latest trade of any session
  bool pinned = false;       // the price was set and has not been shown yet
  std::int64_t traded = 0;   // shares traded in the latest step; 0: it moved the book alone
  Cents last = 0;            // latest trade of a regular session
  Cents previousClose = 0;
  std::optional<Cents> open, high, low,
      close;  // of the present day; empty before its first trade (close: before its end)
  Cents yearHigh = 0;
  Cents yearLow = 0;
  std::int64_t volume = 0;
  std::int64_t lastVolume = 0;
  std::int64_t averageVolume = 0;
  std::int64_t tradeTime = 0;  // of `last`, milliseconds since 1970 UTC
  Cents bid = 0;
  Cents ask = 0;
  std::int64_t bidSize = 0;
  std::int64_t askSize = 0;
  std::int64_t quoteTime = 0;  // of bid and ask, milliseconds since 1970 UTC
  std::deque<Bar> bars;        // minutes that saw a step, the newest last; bounded
};

struct MarketOptions {
  std::uint64_t seed = 1;
  std::size_t symbols = 100;
  Session session = Session::kOpen;
  std::optional<std::int64_t> clock;  // fixed start in seconds since 1970 UTC; moved by Pass() alone
};

class Market {
 public:
  explicit Market(const MarketOptions& options);

  // Milliseconds since 1970 UTC; never goes back.
  std::int64_t Now();
  bool Fixed() const { return m_fixed.has_value(); }
  // Time passes on a fixed clock. Without one nothing happens.
  void Pass(std::chrono::milliseconds time);
  // What passes with a provider request: one second.
  void Tick() { Pass(std::chrono::seconds{1}); }

  Session CurrentSession() const { return m_session; }
  // Pre-market or open after post-market or closed begins a new day.
  void SetSession(Session session);
  // While held, no price moves and streams send no updates.
  void Hold(bool held) { m_held = held; }
  bool Held() const { return m_held; }
  // The next step of the symbol trades at this price. False for an unknown symbol or a price that is not positive.
  bool SetPrice(std::string_view symbol, Cents price);

  const std::vector<Stock>& Stocks() const { return m_stocks; }
  // The symbol as it stands; nullptr when it does not trade here. Symbols are upper case.
  const Stock* Find(std::string_view symbol) const;
  // Moves the symbol one step; nullptr when it does not trade here.
  const Stock* Step(std::string_view symbol);
  // The same for one of Stocks(), at the time `now` (milliseconds since 1970 UTC, as told by Now()).
  void Step(const Stock& stock, std::int64_t now);
  // No trade happened yet in this pre-market session and none will: every sixteenth symbol.
  bool Untraded(const Stock& stock) const { return m_session == Session::kPre && stock.index % 16 == 15; }
  // Minute bars from `fromMinute` (minutes since 1970 UTC) to now, the newest 2,000 of them. The market trades around
  // the clock in every session but the closed one.
  std::vector<Bar> Bars(const Stock& stock, std::int64_t fromMinute);

 private:
  Stock MakeStock(Instrument instrument, std::size_t index);
  Stock* Lookup(std::string_view symbol);
  void Move(Stock& stock, std::int64_t now);
  void Trade(Stock& stock, std::int64_t now);
  Bar PastBar(const Stock& stock, std::int64_t minute) const;

  const std::uint64_t m_seed;
  std::optional<std::int64_t> m_fixed;  // milliseconds
  std::int64_t m_now = 0;
  Session m_session = Session::kClosed;
  bool m_held = false;
  std::int64_t m_closedSince = 0;  // minute of the last bar while the market is closed
  std::vector<Stock> m_stocks;
  std::unordered_map<std::string, std::size_t> m_places;
};

}  // namespace quenmark::simulator
