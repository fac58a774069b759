#include "simulator/tradestation_api.h"

#include "simulator/answer_tree.h"
#include "simulator/station_quote.h"

#include <memory>
#include <utility>
#include <vector>

namespace quenmark::simulator {
namespace {

constexpr std::string_view kQuotes = "marketdata/quotes/";
constexpr std::string_view kSymbols = "marketdata/symbols/";
constexpr std::string_view kStream = "marketdata/stream/quotes/";

HttpAnswer ListsAnswer(const std::string& name, std::vector<Node> found, std::vector<Node> errors) {
  Node body = Node::Object();
  body.Add(name, Node::List(std::move(found))).Add("Errors", Node::List(std::move(errors)));
  HttpAnswer answer;
  answer.body = ToJson(body);
  return answer;
}

}  // namespace

HttpAnswer StationErrorAnswer(int status, const std::string& error, const std::string& message) {
  Node body = Node::Object();
  body.Add("Error", Node::Text(error)).Add("Message", Node::Text(message));
  HttpAnswer answer;
  answer.status = status;
  answer.body = ToJson(body);
  return answer;
}

TradeStationApi::TradeStationApi(Market& market, SentState& sent, RequestLog& log, StreamOptions options,
                                 std::string token)
    : m_shared{market, sent, log, options}, m_token(std::move(token)) {}

bool TradeStationApi::IsStream(std::string_view endpoint) {
  return endpoint.starts_with(kStream);
}

HttpAnswer TradeStationApi::Answer(const HttpRequest& request, std::string_view endpoint, bool recorded) {
  if (!HasBearer(request, m_token)) return StationErrorAnswer(401, "Unauthorized", "Invalid Access Token");
  m_shared.market.Tick();
  if (request.method != "GET") return StationErrorAnswer(405, "MethodNotAllowed", "Method Not Allowed");
  if (endpoint.starts_with(kQuotes)) return Quotes(endpoint.substr(kQuotes.size()), recorded);
  if (endpoint.starts_with(kSymbols)) return Symbols(endpoint.substr(kSymbols.size()), recorded);
  if (IsStream(endpoint)) return Stream(endpoint.substr(kStream.size()));
  return StationErrorAnswer(404, "NotFound", "Not Found");
}

HttpAnswer TradeStationApi::Quotes(std::string_view list, bool recorded) {
  std::vector<Node> quotes;
  std::vector<Node> errors;
  for (const std::string& symbol : SymbolNames(PercentDecoded(list))) {
    if (const Stock* stock = m_shared.market.Step(symbol)) {
      quotes.push_back(StationQuote(m_shared.market, *stock));
      if (recorded) m_shared.sent.Record(symbol, "station_quote", quotes.back());
    } else {
      errors.push_back(StationSymbolError(symbol, "FAILED, EX_INVALID_SYMBOL"));
    }
  }
  return ListsAnswer("Quotes", std::move(quotes), std::move(errors));
}

HttpAnswer TradeStationApi::Symbols(std::string_view list, bool recorded) {
  std::vector<Node> symbols;
  std::vector<Node> errors;
  for (const std::string& symbol : SymbolNames(PercentDecoded(list))) {
    if (const Stock* stock = m_shared.market.Find(symbol)) {
      symbols.push_back(StationSymbol(*stock));
      if (recorded) m_shared.sent.Record(symbol, "station_symbol", symbols.back());
    } else {
      errors.push_back(StationSymbolError(symbol, "Invalid Symbol"));
    }
  }
  return ListsAnswer("Symbols", std::move(symbols), std::move(errors));
}

HttpAnswer TradeStationApi::Stream(std::string_view list) {
  const std::vector<std::string> symbols = SymbolNames(PercentDecoded(list));
  if (symbols.empty()) return StationErrorAnswer(400, "BadRequest", "Symbols are missing");
  HttpAnswer answer;
  answer.contentType = "application/vnd.tradestation.streams.v2+json";
  answer.stream = std::make_shared<QuoteStream>(m_shared, symbols);
  return answer;
}

}  // namespace quenmark::simulator
