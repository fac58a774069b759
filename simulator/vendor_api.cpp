#include "simulator/vendor_api.h"

#include "simulator/answer_tree.h"
#include "simulator/exchange_time.h"

#include <fmt/format.h>

namespace quenmark::simulator {
namespace {

// The vendor writes "&" of a description as an escape.
std::string EscapedDescription(const std::string& description) {
  std::string out;
  for (const char character : QuotedJson(description)) {
    if (character == '&') {
      out += "\\u0026";
    } else {
      out += character;
    }
  }
  return out;
}

}  // namespace

std::optional<HttpAnswer> VendorApi::Answer(const HttpRequest& request) {
  const std::string_view path = request.Path();
  if (path != "/gmt/" && path != "/cad/") return std::nullopt;
  if (request.method != "POST") {
    HttpAnswer answer;
    answer.status = 405;
    answer.contentType = "text/plain";
    answer.body = "Method Not Allowed";
    return answer;
  }
  return path == "/gmt/" ? TimeZone() : SymbolList();
}

// Exchange wall time and the minutes it is behind UTC.
HttpAnswer VendorApi::TimeZone() {
  const std::int64_t now = m_market.Now() / 1000;
  HttpAnswer answer;
  answer.contentType = "text/plain";
  answer.body = fmt::format("GMT{}|TZM{}|", ExchangeTimeText(now), MinutesWest(now));
  return answer;
}

HttpAnswer VendorApi::SymbolList() const {
  HttpAnswer answer;
  for (const Stock& stock : m_market.Stocks()) {
    const std::string symbol = QuotedJson(stock.instrument.symbol);
    answer.body += answer.body.empty() ? "[" : ",";
    answer.body += fmt::format(R"({{"description":{},"displaySymbol":{},"symbol":{},"type":"{}"}})",
                               EscapedDescription(stock.instrument.description), symbol, symbol,
                               stock.instrument.type == "etf" ? "ETP" : "Common Stock");
  }
  answer.body += answer.body.empty() ? "[]" : "]";
  return answer;
}

}  // namespace quenmark::simulator
