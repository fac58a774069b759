#include "simulator/vendor_api.h"

#include "simulator/answer_tree.h"
#include "simulator/exchange_time.h"
#include "simulator/icon.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>

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

HttpAnswer PlainAnswer(int status, std::string_view body) {
  HttpAnswer answer;
  answer.status = status;
  answer.contentType = "text/plain";
  answer.body = body;
  return answer;
}

// Change in percent with two decimals, a minus written as "m".
std::string Percent(Cents last, Cents previous) {
  std::string text = fmt::format("{:.2f}", (static_cast<double>(last) / static_cast<double>(previous) - 1) * 100);
  if (text == "-0.00") return "0.00";
  if (text.front() == '-') text.front() = 'm';
  return text;
}

// "20240315103000" in exchange wall time.
std::string Stamp(std::int64_t instant) {
  std::string text = ExchangeTimeText(instant);
  std::erase_if(text, [](char character) { return character < '0' || character > '9'; });
  return text;
}

// symbol-last-change-open-high-low-volume-1-1-stamp; a symbol that holds a "-" has none.
std::string Record(const Stock& stock) {
  const auto price = [&stock](const std::optional<Cents>& value) { return DecimalText(value.value_or(stock.last), 2); };
  return fmt::format("{}-{}-{}-{}-{}-{}-{}-1-1-{}", stock.instrument.symbol, price(stock.last),
                     Percent(stock.last, stock.previousClose), price(stock.open), price(stock.high), price(stock.low),
                     stock.volume, Stamp(stock.tradeTime / 1000));
}

}  // namespace

std::optional<HttpAnswer> VendorApi::Answer(const HttpRequest& request, bool recorded, bool odd) {
  const std::string_view path = request.Path();
  const bool posts = path == "/gmt/" || path == "/cad/";
  if (!posts && path != "/quotes/" && path != "/news/" && path != "/ico/") return std::nullopt;
  if (request.method != (posts ? "POST" : "GET")) return PlainAnswer(405, "Method Not Allowed");
  if (path == "/gmt/") return TimeZone();
  if (path == "/cad/") return SymbolList();
  if (path == "/news/") return News(request, odd);
  if (path == "/ico/") return Icon(request);
  return Quotes(request, recorded, odd);
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

// What is before "|@|" tells the account and the time; then come the records of the symbols that trade here, each with
// a
// "|" behind it.
HttpAnswer VendorApi::Quotes(const HttpRequest& request, bool recorded, bool odd) {
  const NamedTexts query = QueryOf(request.target);
  m_market.Tick();
  HttpAnswer answer = PlainAnswer(200, fmt::format("{}|{}|@|", ValueOf(query, "c"), Stamp(m_market.Now() / 1000)));
  answer.version = "HTTP/1.0";
  answer.close = true;
  std::string list{ValueOf(query, "s")};
  std::replace(list.begin(), list.end(), '@', ',');
  if (odd) answer.body += "no dash at all||@|ZZZZZ-1.5-0.1-1-2-1-100-1-1-20240102093000|";
  for (const std::string& symbol : SymbolNames(list)) {
    const Stock* stock = m_market.Step(symbol);
    if (stock == nullptr || symbol.find('-') != std::string::npos) continue;
    const std::string record = Record(*stock);
    answer.body +=
        odd ? fmt::format("{0}|{0}-|{0}--0-1-1-1-1-1-1-{1}|", symbol, record.substr(record.size() - 14)) : record + "|";
    Node fields = Node::Object();
    fields.Add("record", Node::Text(record));
    if (recorded && !odd) m_sent.Record(symbol, "vendor_quote", fields);
  }
  if (odd) answer.body += "AAPL-1-1-1-1-1-1-1-1-20240102093000";  // no "|" behind it
  if (recorded) m_events.Note("vendor", answer.body);
  return answer;
}

HttpAnswer VendorApi::News(const HttpRequest& request, bool odd) {
  const std::string text{ValueOf(QueryOf(request.target), "id")};
  std::int64_t id = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, id);
  if (text.empty() || error != std::errc{} || stop != end) return PlainAnswer(400, "Bad Request");
  HttpAnswer answer;
  answer.close = true;
  answer.body = odd ? m_news.Odd() : m_news.Since(id);
  return answer;
}

HttpAnswer VendorApi::Icon(const HttpRequest& request) const {
  const std::string symbol = UpperCase(ValueOf(QueryOf(request.target), "s"));
  if (m_market.Find(symbol) == nullptr) return PlainAnswer(404, "Not Found");
  HttpAnswer answer;
  answer.contentType = "image/png";
  answer.body = IconPng(symbol);
  return answer;
}

}  // namespace quenmark::simulator
