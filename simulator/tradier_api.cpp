#include "simulator/tradier_api.h"

#include "simulator/answer_tree.h"
#include "simulator/exchange_time.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <optional>
#include <utility>
#include <vector>

namespace quenmark::simulator {
namespace {

constexpr std::size_t kMostMatches = 10;

HttpAnswer Rendered(const HttpRequest& request, const Node& root) {
  HttpAnswer answer;
  if (request.Header("Accept").find("application/json") != std::string_view::npos) {
    answer.body = ToJson(root);
  } else {
    answer.contentType = "application/xml";
    answer.body = ToXml(root);
  }
  return answer;
}

HttpAnswer PlainAnswer(int status, std::string text) {
  HttpAnswer answer;
  answer.status = status;
  answer.contentType = "text/plain";
  answer.body = std::move(text);
  return answer;
}

Node Rooted(const std::string& name, Node value) {
  Node root = Node::Object();
  root.Add(name, std::move(value));
  return root;
}

Node Price(Cents price) {
  return Node::Number(DecimalText(price, 2));
}
Node Price(const std::optional<Cents>& price) {
  return price ? Price(*price) : Node::Null();
}

// Change in hundredths of a percent, halves rounded away from zero.
std::int64_t ChangeHundredths(Cents last, Cents previous) {
  const std::int64_t change = (last - previous) * 10'000;
  const std::int64_t rounded = (2 * std::abs(change) + previous) / (2 * previous);
  return change < 0 ? -rounded : rounded;
}

Node QuoteNode(const Stock& stock, bool untraded) {
  const Instrument& instrument = stock.instrument;
  const auto traded = [untraded](Node value) { return untraded ? Node::Null() : std::move(value); };
  Node quote = Node::Object();
  quote.Add("symbol", Node::Text(instrument.symbol))
      .Add("description", Node::Text(instrument.description))
      .Add("exch", Node::Text(instrument.exchange))
      .Add("type", Node::Text(instrument.type))
      .Add("last", traded(Price(stock.last)))
      .Add("change", traded(Price(stock.last - stock.previousClose)))
      .Add("change_percentage", traded(Price(ChangeHundredths(stock.last, stock.previousClose))))
      .Add("volume", Node::Number(stock.volume))
      .Add("average_volume", Node::Number(stock.averageVolume))
      .Add("last_volume", Node::Number(stock.lastVolume))
      .Add("trade_date", Node::Number(stock.tradeTime))
      .Add("open", Price(stock.open))
      .Add("high", Price(stock.high))
      .Add("low", Price(stock.low))
      .Add("close", Price(stock.close))
      .Add("prevclose", Price(stock.previousClose))
      .Add("week_52_high", Price(stock.yearHigh))
      .Add("week_52_low", Price(stock.yearLow))
      .Add("bid", Price(stock.bid))
      .Add("bidsize", Node::Number(stock.bidSize))
      .Add("bidexch", Node::Text("P"))
      .Add("bid_date", Node::Number(stock.quoteTime))
      .Add("ask", Price(stock.ask))
      .Add("asksize", Node::Number(stock.askSize))
      .Add("askexch", Node::Text("Q"))
      .Add("ask_date", Node::Number(stock.quoteTime))
      .Add("root_symbols", Node::Text(instrument.symbol));
  return quote;
}

Node BarNode(const Bar& bar) {
  const std::int64_t instant = bar.minute * 60;
  Node node = Node::Object();
  node.Add("time", Node::Text(ExchangeTimeText(instant)))
      .Add("timestamp", Node::Number(instant))
      .Add("price", Node::Number(DecimalText((bar.high + bar.low) * 5, 3)))  // the middle of high and low
      .Add("open", Price(bar.open))
      .Add("high", Price(bar.high))
      .Add("low", Price(bar.low))
      .Add("close", Price(bar.close))
      .Add("volume", Node::Number(bar.volume))
      .Add("vwap", Node::Number(DecimalText(bar.turnover * 100 / bar.volume, 4)));
  return node;
}

Node SecurityNode(const Instrument& instrument) {
  Node node = Node::Object();
  node.Add("symbol", Node::Text(instrument.symbol))
      .Add("exchange", Node::Text(instrument.exchange))
      .Add("type", Node::Text(instrument.type))
      .Add("description", Node::Text(instrument.description));
  return node;
}

struct ClockRow {
  std::string_view state;
  std::string_view description;
  std::string_view nextChange;
  std::string_view nextState;
};

// Indexed by Session.
constexpr std::array<ClockRow, 4> kClock{{
    {"premarket", "Market is in pre-market from 07:00 to 09:30", "09:30", "open"},
    {"open", "Market is open from 09:30 to 16:00", "16:00", "postmarket"},
    {"postmarket", "Market is in post-market from 16:00 to 20:00", "20:00", "closed"},
    {"closed", "Market is closed", "07:00", "premarket"},
}};

bool InRegularHours(const Bar& bar) {
  const int minute = MinuteOfExchangeDay(bar.minute * 60);
  return minute >= 9 * 60 + 30 && minute < 16 * 60;
}

}  // namespace

HttpAnswer FaultAnswer(int status, const std::string& text, const std::string& code) {
  Node fault = Node::Object();
  fault.Add("faultstring", Node::Text(text)).Add("detail", Rooted("errorcode", Node::Text(code)));
  HttpAnswer answer;
  answer.status = status;
  answer.body = ToJson(Rooted("fault", std::move(fault)));
  return answer;
}

TradierApi::TradierApi(Market& market, SentState& sent, EventShared& events, std::string token)
    : m_market(market), m_sent(sent), m_events(events), m_token(std::move(token)) {}

HttpAnswer TradierApi::Answer(const HttpRequest& request, std::string_view endpoint, bool sandbox, bool recorded) {
  if (!HasBearer(request, m_token)) {
    return FaultAnswer(401, "Invalid Access Token", "keymanagement.service.invalid_access_token");
  }
  m_market.Tick();
  if (request.method == "GET") {
    if (endpoint == "markets/quotes") return Quotes(request, recorded);
    if (endpoint == "markets/timesales") return TimeSales(request, recorded);
    if (endpoint == "markets/clock") return Clock(request, recorded);
    if (endpoint == "markets/lookup") return Lookup(request, recorded);
  }
  const bool session = endpoint == "markets/events/session" || endpoint == "accounts/events/session";
  if (request.method == "POST" && session && !sandbox) return StreamSession(request, endpoint);
  return FaultAnswer(404, "Unable to identify proxy for this request",
                     "messaging.adaptors.http.flow.ApplicationNotFound");
}

HttpAnswer TradierApi::Quotes(const HttpRequest& request, bool recorded) {
  const NamedTexts query = QueryOf(request.target);
  const std::vector<std::string> symbols = SymbolNames(ValueOf(query, "symbols"));
  if (symbols.empty()) return Rendered(request, Rooted("quotes", Node::Null()));
  std::vector<Node> quotes;
  std::vector<Node> unmatched;
  for (const std::string& symbol : symbols) {
    const Stock* stock = m_market.Step(symbol);
    if (stock == nullptr) {
      unmatched.push_back(Node::Text(symbol));
      continue;
    }
    quotes.push_back(QuoteNode(*stock, m_market.Untraded(*stock)));
    if (recorded) m_sent.Record(symbol, "quote", quotes.back());
  }
  Node body = Node::Object();
  if (!quotes.empty()) body.Add("quote", ProviderList(std::move(quotes)));
  if (!unmatched.empty()) body.Add("unmatched_symbols", Rooted("symbol", ProviderList(std::move(unmatched))));
  HttpAnswer answer = Rendered(request, Rooted("quotes", std::move(body)));
  if (recorded) m_events.Note("quotes", answer.body);
  return answer;
}

HttpAnswer TradierApi::TimeSales(const HttpRequest& request, bool recorded) {
  const NamedTexts query = QueryOf(request.target);
  if (ValueOf(query, "interval") != "1min") return PlainAnswer(400, "Invalid Parameter: interval");
  const std::string_view startText = ValueOf(query, "start");
  // Without a start the last hour is shown.
  const std::optional<std::int64_t> start =
      startText.empty() ? m_market.Now() / 1000 - 3600 : ParseExchangeTime(startText);
  if (!start) return PlainAnswer(400, "Invalid Parameter: start");
  const Stock* stock = m_market.Step(UpperCase(ValueOf(query, "symbol")));
  std::vector<Bar> bars;
  if (stock != nullptr) bars = m_market.Bars(*stock, *start / 60);
  if (ValueOf(query, "session_filter") == "open")
    std::erase_if(bars, [](const Bar& bar) { return !InRegularHours(bar); });
  if (bars.empty()) return Rendered(request, Rooted("series", Node::Null()));
  std::vector<Node> rows;
  rows.reserve(bars.size());
  for (const Bar& bar : bars) rows.push_back(BarNode(bar));
  if (recorded) m_sent.Record(stock->instrument.symbol, "bar", rows.back());
  return Rendered(request, Rooted("series", Rooted("data", ProviderList(std::move(rows)))));
}

HttpAnswer TradierApi::Clock(const HttpRequest& request, bool) {
  const ClockRow& row = kClock.at(static_cast<std::size_t>(m_market.CurrentSession()));
  const std::int64_t now = m_market.Now() / 1000;
  Node clock = Node::Object();
  clock.Add("date", Node::Text(ExchangeTimeText(now).substr(0, 10)))
      .Add("description", Node::Text(std::string{row.description}))
      .Add("state", Node::Text(std::string{row.state}))
      .Add("timestamp", Node::Number(now))
      .Add("next_change", Node::Text(std::string{row.nextChange}))
      .Add("next_state", Node::Text(std::string{row.nextState}));
  return Rendered(request, Rooted("clock", std::move(clock)));
}

// The exact match first, then symbols that begin with the text.
HttpAnswer TradierApi::Lookup(const HttpRequest& request, bool recorded) {
  const NamedTexts query = QueryOf(request.target);
  const std::string wanted = UpperCase(ValueOf(query, "q"));
  std::vector<Node> matches;
  const auto add = [&](const Stock& stock) {
    matches.push_back(SecurityNode(stock.instrument));
    if (recorded) m_sent.Record(stock.instrument.symbol, "lookup", matches.back());
  };
  if (const Stock* exact = m_market.Find(wanted)) add(*exact);
  for (const Stock& stock : m_market.Stocks()) {
    if (wanted.empty() || matches.size() == kMostMatches) break;
    if (stock.instrument.symbol != wanted && stock.instrument.symbol.starts_with(wanted)) add(stock);
  }
  Node securities = Node::Null();
  if (!matches.empty()) securities = Rooted("security", ProviderList(std::move(matches)));
  return Rendered(request, Rooted("securities", std::move(securities)));
}

HttpAnswer TradierApi::StreamSession(const HttpRequest& request, std::string_view endpoint) {
  const std::string_view stream = endpoint.substr(0, endpoint.rfind('/'));
  const std::string id = stream == "markets/events"
                             ? m_events.sessions.Issue(std::string{request.Header("Authorization")}, m_market.Now())
                             : fmt::format("a8638963-a6d4-4fb9-9bc6-{:012x}", ++m_accountSessions);
  Node session = Node::Object();
  session.Add("url", Node::Text(fmt::format("{}://{}/v1/{}", request.scheme, request.Header("Host"), stream)))
      .Add("sessionid", Node::Text(id));
  return Rendered(request, Rooted("stream", std::move(session)));
}

}  // namespace quenmark::simulator
