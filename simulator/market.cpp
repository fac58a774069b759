#include "simulator/market.h"

#include "simulator/exchange_time.h"
#include "simulator/random.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

namespace quenmark::simulator {
namespace {

constexpr std::size_t kStoredBars = 32;
constexpr std::int64_t kMostBars = 2'000;
constexpr std::int64_t kMinute = 60'000;  // milliseconds

constexpr std::array<std::pair<Session, std::string_view>, 4> kSessions{{
    {Session::kPre, "pre"},
    {Session::kOpen, "open"},
    {Session::kPost, "post"},
    {Session::kClosed, "closed"},
}};

void Widen(Bar& bar, Cents price, std::int64_t size) {
  bar.high = std::max(bar.high, price);
  bar.low = std::min(bar.low, price);
  bar.close = price;
  bar.volume += size;
  bar.turnover += price * size;
}

void SetBook(Stock& stock, std::int64_t now) {
  stock.bid = std::max<Cents>(1, stock.price - Draw(stock.random, 1, 3));
  stock.ask = stock.price + Draw(stock.random, 1, 3);
  stock.bidSize = Draw(stock.random, 1, 99);
  stock.askSize = Draw(stock.random, 1, 99);
  stock.quoteTime = now;
}

}  // namespace

std::optional<Session> ParseSession(std::string_view text) {
  for (const auto& [session, name] : kSessions) {
    if (name == text) return session;
  }
  return std::nullopt;
}

std::string_view SessionName(Session session) {
  return kSessions.at(static_cast<std::size_t>(session)).second;
}

Market::Market(const MarketOptions& options) : m_seed(options.seed) {
  if (options.clock) m_fixed = *options.clock * 1000;
  m_closedSince = LastClose(Now() / 1000) / 60;
  std::vector<Instrument> instruments = Universe(options.symbols);
  m_stocks.reserve(instruments.size());
  for (std::size_t index = 0; index < instruments.size(); ++index) {
    m_stocks.push_back(MakeStock(std::move(instruments[index]), index));
    m_places.emplace(m_stocks.back().instrument.symbol, index);
  }
  SetSession(options.session);
}

std::int64_t Market::Now() {
  using namespace std::chrono;
  const std::int64_t now =
      m_fixed ? *m_fixed : duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  m_now = std::max(m_now, now);
  return m_now;
}

void Market::Pass(std::chrono::milliseconds time) {
  if (m_fixed) *m_fixed += time.count();
}

// A stock at the end of its last trading day.
Stock Market::MakeStock(Instrument instrument, std::size_t index) {
  Stock stock;
  stock.instrument = std::move(instrument);
  stock.index = index;
  stock.random = m_seed;
  stock.random = NextRandom(stock.random) + index * 0x632BE59BD9B4E019U;
  stock.base = Draw(stock.random, 5'00, 900'00);
  stock.price = stock.last = stock.base;
  const auto percent = [&stock](std::int64_t least, std::int64_t most) {
    return stock.base + stock.base * Draw(stock.random, least, most) / 1000;
  };
  stock.previousClose = percent(-30, 30);
  stock.open = percent(-20, 20);
  stock.close = stock.last;
  stock.high = std::max(*stock.open, stock.last) + Draw(stock.random, 0, 50);
  stock.low = std::min(*stock.open, stock.last) - Draw(stock.random, 0, 50);
  stock.yearHigh = stock.base * 5 / 4;
  stock.yearLow = stock.base * 3 / 4;
  stock.averageVolume = Draw(stock.random, 100'000, 50'000'000);
  stock.volume = stock.averageVolume * Draw(stock.random, 50, 150) / 100;
  stock.lastVolume = Draw(stock.random, 100, 200'000);
  stock.tradeTime = m_closedSince * kMinute;
  SetBook(stock, stock.tradeTime);
  return stock;
}

void Market::SetSession(Session session) {
  const Session before = std::exchange(m_session, session);
  if (before == session) return;
  const bool trading = session == Session::kPre || session == Session::kOpen;
  const bool newDay = trading && !(before == Session::kPre && session == Session::kOpen);
  const bool endOfDay = (before == Session::kPre || before == Session::kOpen) && (!trading || newDay);
  if (session == Session::kClosed) m_closedSince = Now() / kMinute;
  for (Stock& stock : m_stocks) {
    if (endOfDay) stock.close = stock.last;
    if (!newDay) continue;
    stock.previousClose = stock.last;
    stock.open = stock.high = stock.low = stock.close = std::nullopt;
    stock.volume = 0;
  }
}

bool Market::SetPrice(std::string_view symbol, Cents price) {
  Stock* stock = Lookup(symbol);
  if (stock == nullptr || price <= 0) return false;
  stock->price = stock->base = price;
  stock->pinned = true;
  return true;
}

Stock* Market::Lookup(std::string_view symbol) {
  const auto place = m_places.find(std::string{symbol});
  return place == m_places.end() ? nullptr : &m_stocks[place->second];
}

const Stock* Market::Find(std::string_view symbol) const {
  const auto place = m_places.find(std::string{symbol});
  return place == m_places.end() ? nullptr : &m_stocks[place->second];
}

const Stock* Market::Step(std::string_view symbol) {
  Stock* stock = Lookup(symbol);
  if (stock != nullptr) Step(*stock, Now());
  return stock;
}

void Market::Step(const Stock& stock, std::int64_t now) {
  if (!m_held && m_session != Session::kClosed) Move(m_stocks[stock.index], now);
}

void Market::Move(Stock& stock, std::int64_t now) {
  const bool pinned = std::exchange(stock.pinned, false);
  const bool trades = Draw(stock.random, 0, 7) != 0;
  const Cents move = Draw(stock.random, -3, 3) * std::max<Cents>(1, stock.base / 10'000);
  if (!pinned && trades) {
    const Cents floor = std::max<Cents>(1, stock.base / 4);
    stock.price = std::clamp(stock.price + move, floor, stock.base * 4);
  }
  SetBook(stock, now);
  stock.traded = 0;
  if ((pinned || trades) && !Untraded(stock)) Trade(stock, now);
}

void Market::Trade(Stock& stock, std::int64_t now) {
  const std::int64_t size = Draw(stock.random, 1, 500);
  const std::int64_t minute = now / kMinute;
  stock.traded = size;
  if (stock.bars.empty() || stock.bars.back().minute != minute) {
    stock.bars.push_back({minute, stock.price, stock.price, stock.price, stock.price, 0, 0});
    if (stock.bars.size() > kStoredBars) stock.bars.pop_front();
  }
  Widen(stock.bars.back(), stock.price, size);
  // Before the open, every eighth symbol trades without its volume being reported.
  if (m_session != Session::kPre || stock.index % 8 != 7) stock.volume += size;
  if (m_session != Session::kOpen) return;
  stock.last = stock.price;
  stock.lastVolume = size;
  stock.tradeTime = now;
  if (!stock.open) stock.open = stock.price;
  stock.high = std::max(stock.high.value_or(stock.price), stock.price);
  stock.low = std::min(stock.low.value_or(stock.price), stock.price);
}

std::vector<Bar> Market::Bars(const Stock& stock, std::int64_t fromMinute) {
  std::vector<Bar> bars;
  if (Untraded(stock)) return bars;
  const bool closed = m_session == Session::kClosed;
  const std::int64_t now = closed ? m_closedSince : Now() / kMinute;
  auto stored = stock.bars.begin();
  for (std::int64_t minute = std::max(fromMinute, now - kMostBars + 1); minute <= now; ++minute) {
    while (stored != stock.bars.end() && stored->minute < minute) ++stored;
    if (stored != stock.bars.end() && stored->minute == minute) {
      bars.push_back(*stored);
    } else if (minute < now || closed) {
      bars.push_back(PastBar(stock, minute));
    }
  }
  return bars;
}

// A minute that saw no step: derived from seed, symbol and minute, so that every answer shows it alike.
Bar Market::PastBar(const Stock& stock, std::int64_t minute) const {
  std::uint64_t random =
      m_seed + stock.index * 0x632BE59BD9B4E019U + static_cast<std::uint64_t>(minute) * 0xD1B54A32D192ED03U;
  const Cents span = std::max<Cents>(1, stock.previousClose / 1000);
  const auto price = [&] { return std::max<Cents>(1, stock.previousClose + Draw(random, -span, span)); };
  const Cents open = price();
  Bar bar{minute, open, open, open, open, 0, 0};
  for (int trade = 0; trade < 4; ++trade) Widen(bar, price(), Draw(random, 1, 5'000));
  return bar;
}

}  // namespace quenmark::simulator
