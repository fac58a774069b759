#include "simulator/station_quote.h"

#include "simulator/exchange_time.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace quenmark::simulator {
namespace {

struct Venue {
  std::string_view letter;
  std::string_view exchange;
  std::string_view venue;  // market identifier of its trades
};
constexpr std::array<Venue, 3> kVenues{{{"Q", "NASDAQ", "XNAS"}, {"N", "NYSE", "XNYS"}, {"P", "ARCX", "ARCX"}}};

const Venue& VenueOf(const Instrument& instrument) {
  for (const Venue& venue : kVenues) {
    if (venue.letter == instrument.exchange) return venue;
  }
  return kVenues.back();
}

// Like DecimalText, but a whole number has no decimals ("346").
Node Decimal(std::int64_t value, int decimals) {
  std::string text = DecimalText(value, decimals);
  if (text.ends_with(".0")) text.resize(text.size() - 2);
  return Node::Text(std::move(text));
}
Node Price(const std::optional<Cents>& price) {
  return price ? Decimal(*price, 2) : Node::Null();
}
Node Count(std::int64_t value) {
  return Node::Text(std::to_string(value));
}
Node Flag(bool value) {
  return Node::Number(value ? "true" : "false");
}

// Of the minutes that the market still holds.
Node AveragePrice(const Stock& stock) {
  std::int64_t volume = 0;
  std::int64_t turnover = 0;
  for (const Bar& bar : stock.bars) {
    volume += bar.volume;
    turnover += bar.turnover;
  }
  return volume == 0 ? Node::Null() : Decimal(turnover * 100 / volume, 4);
}

Node MarketFlags() {
  Node flags = Node::Object();
  flags.Add("IsDelayed", Flag(false))
      .Add("IsHardToBorrow", Flag(false))
      .Add("IsBats", Flag(false))
      .Add("IsHalted", Flag(false));
  return flags;
}

}  // namespace

Node StationQuote(const Market& market, const Stock& stock) {
  const bool untraded = market.Untraded(stock);
  const auto traded = [untraded](Node value) { return untraded ? Node::Null() : std::move(value); };
  const Cents change = stock.last - stock.previousClose;
  Node quote = Node::Object();
  quote.Add("Symbol", Node::Text(stock.instrument.symbol))
      .Add("Open", Price(stock.open))
      .Add("High", Price(stock.high))
      .Add("Low", Price(stock.low))
      .Add("PreviousClose", Price(stock.previousClose))
      .Add("Last", traded(Price(stock.last)))
      .Add("Ask", Price(stock.ask))
      .Add("AskSize", Count(stock.askSize))
      .Add("Bid", Price(stock.bid))
      .Add("BidSize", Count(stock.bidSize))
      .Add("NetChange", traded(Price(change)))
      .Add("NetChangePct", traded(Decimal(change * 100'000'000 / stock.previousClose, 6)))
      .Add("High52Week", Price(stock.yearHigh))
      .Add("Low52Week", Price(stock.yearLow))
      .Add("Volume", Count(stock.volume))
      .Add("Close", Price(stock.close))
      .Add("Restrictions", Node::List({}))
      .Add("TradeTime", traded(Node::Text(UtcTimeText(stock.tradeTime / 1000))))
      .Add("TickSizeTier", Count(0))
      .Add("MarketFlags", MarketFlags())
      .Add("LastSize", Count(stock.lastVolume))
      .Add("LastVenue", Node::Text(std::string{VenueOf(stock.instrument).venue}))
      .Add("VWAP", AveragePrice(stock));
  return quote;
}

Node StationSymbol(const Stock& stock) {
  const bool numbers = stock.index % 4 == 3;
  const auto number = [numbers](std::string text) {
    return numbers ? Node::Number(std::move(text)) : Node::Text(std::move(text));
  };
  Node prices = Node::Object();
  prices.Add("Format", Node::Text("Decimal"))
      .Add("Decimals", number("2"))
      .Add("IncrementStyle", Node::Text("Simple"))
      .Add("Increment", Node::Text("0.01"))
      .Add("PointValue", number("1.0"));
  Node quantities = Node::Object();
  quantities.Add("Format", Node::Text("Decimal"))
      .Add("Decimals", number("0"))
      .Add("IncrementStyle", Node::Text("Simple"))
      .Add("Increment", Node::Text("1"))
      .Add("MinimumTradeQuantity", Node::Text("1"));
  const Instrument& instrument = stock.instrument;
  Node symbol = Node::Object();
  symbol.Add("AssetType", Node::Text("STOCK"))
      .Add("Country", Node::Text("US"))
      .Add("Currency", Node::Text("USD"))
      .Add("Description", Node::Text(instrument.description))
      .Add("Exchange", Node::Text(std::string{VenueOf(instrument).exchange}))
      .Add("PriceFormat", std::move(prices))
      .Add("QuantityFormat", std::move(quantities))
      .Add("Root", Node::Text(instrument.symbol))
      .Add("Symbol", Node::Text(instrument.symbol));
  return symbol;
}

Node StationSymbolError(const std::string& symbol, const std::string& error) {
  Node node = Node::Object();
  node.Add("Symbol", Node::Text(symbol)).Add("Error", Node::Text(error));
  return node;
}

}  // namespace quenmark::simulator
