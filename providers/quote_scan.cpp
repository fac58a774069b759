#include "providers/quote_scan.h"

#include "platform/code_page.h"
#include "providers/get_between.h"
#include "providers/text_pieces.h"

#include <utility>

namespace quenmark::providers {
namespace {

constexpr std::string_view kRequired[] = {R"("last":)", R"("tradetime":)", R"("symbol":)"};

std::string_view Value(std::string_view object, std::string_view marker) {
  return GetBetween(object, marker, "\"");
}

// What changes the state of the scan; everything else is part of a run.
bool IsStructural(char c) {
  return c == '"' || c == '{' || c == '}' || c == '\\' || c == '\n' || c == '\r';
}

}  // namespace

QuoteScan::QuoteScan(Handler handler) : m_handler(std::move(handler)) {}

void QuoteScan::Feed(std::string_view piece) {
  std::size_t position = 0;
  while (position < piece.size()) {
    if (m_escaped || IsStructural(piece[position])) {
      Take(piece[position++]);
      continue;
    }
    const std::size_t start = position;
    while (position < piece.size() && !IsStructural(piece[position])) ++position;
    if (m_depth == 0) continue;
    const std::size_t before = m_object.size();
    m_object.append(piece.substr(start, position - start));
    for (std::size_t i = before; i < m_object.size(); ++i) m_object[i] = platform::AsciiLower(m_object[i]);
    if (m_object.size() > kLargestObject) Drop();
  }
}

void QuoteScan::Take(char c) {
  if (m_depth > 0) m_object += platform::AsciiLower(c);
  if (m_object.size() > kLargestObject) {
    Drop();
  } else if (m_escaped) {
    m_escaped = false;
  } else if (m_inText) {
    if (c == '\\') m_escaped = true;
    if (c == '"') m_inText = false;
    if (c == '\n' || c == '\r') Drop();
  } else if (c == '"') {
    m_inText = m_depth > 0;
  } else if (c == '{') {
    if (m_depth++ == 0) m_object = "{";
  } else if (c == '}' && m_depth > 0 && --m_depth == 0) {
    HandOn();
  }
}

void QuoteScan::Drop() {
  m_object.clear();
  m_depth = 0;
  m_inText = m_escaped = false;
}

void QuoteScan::HandOn() {
  for (const std::string_view marker : kRequired) {
    if (!Contains(m_object, marker)) return;
  }
  StreamQuote quote;
  m_symbol = platform::AsciiUpper(Value(m_object, R"("symbol":")"));
  quote.symbol = m_symbol;
  quote.last = Value(m_object, R"("last":")");
  quote.tradeTime = Value(m_object, R"("tradetime":")");
  quote.hasBook = Contains(m_object, R"("bid":")") && Contains(m_object, R"("ask":")");
  quote.bid = Value(m_object, R"("bid":")");
  quote.bidSize = Value(m_object, R"("bidsize":")");
  quote.ask = Value(m_object, R"("ask":")");
  quote.askSize = Value(m_object, R"("asksize":")");
  m_handler(quote);
}

}  // namespace quenmark::providers
