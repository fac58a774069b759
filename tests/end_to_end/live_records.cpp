#include "tests/end_to_end/live_records.h"

#include "tests/end_to_end/feeder_home.h"

#include <fmt/format.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace quenmark::test {
namespace {

using nlohmann::json;

struct Record {
  std::string last, change, open, high, low, volume, stamp;

  std::string Text(const std::string& symbol) const {
    return fmt::format("{}-{}-{}-{}-{}-{}-{}-1-1-{}", symbol, last, change, open, high, low, volume, stamp);
  }
};

class Ledger {
 public:
  void TakeSnapshot(const json& quote) {
    const std::string symbol = quote.at("symbol");
    const auto text = [&](const char* field) {
      return quote.at(field).is_null() ? "" : NumberOf(quote.at(field).dump());
    };
    const auto price = [&](const char* field) { return text(field).empty() ? text("last") : text(field); };
    const std::string stamp = StampOf(quote.at("trade_date").dump(), 240);
    if (m_records.count(symbol) != 0 && stamp < m_records[symbol].stamp) return;
    m_records[symbol] = {text("last"), Change(quote.at("change_percentage")),        price("open"), price("high"),
                         price("low"), text("volume") == "0" ? "1" : text("volume"), stamp};
    m_closes[symbol] = text("prevclose");
    m_books[symbol] = quote.at("bid").dump() + "|" + quote.at("bidsize").dump() + "@" + quote.at("ask").dump() + "|" +
                      quote.at("asksize").dump();
  }

  // All events of one message as one text: the first occurrence of each field counts.
  void TakeMessage(const std::string& text) {
    const std::string symbol = After(text, R"("symbol":")", '"');
    const std::string type = After(text, R"("type":")", '"');
    if (type == "quote") {
      m_books[symbol] = After(text, R"("bid":)", ',') + "|" + After(text, R"("bidsz":)", ',') + "@" +
                        After(text, R"("ask":)", ',') + "|" + After(text, R"("asksz":)", ',');
    } else if (type == "timesale") {
      Record& record = m_records[symbol];
      const std::string stamp = StampOf(After(text, R"("date":")", '"'), 240);
      if (stamp <= record.stamp) return;
      const std::string last = NumberOf(After(text, R"("last":")", '"'));
      const double price = std::stod(last);
      if (!m_closes[symbol].empty()) record.change = Change((price / std::stod(m_closes[symbol]) - 1) * 100);
      record.last = last;
      if (std::atof(record.high.c_str()) < price) record.high = last;
      if (std::atof(record.low.c_str()) > price) record.low = last;
      record.volume =
          NumberOf(fmt::format("{}", std::atof(record.volume.c_str()) + std::stod(After(text, R"("size":")", '"'))));
      record.stamp = stamp;
    }
  }

  std::map<std::string, std::string> Keys() const {
    std::map<std::string, std::string> keys;
    for (const auto& [symbol, record] : m_records) {
      // A symbol with a "-" has no record: it could not be taken apart again.
      keys[symbol] = symbol.find('-') == std::string::npos ? record.Text(symbol) : "";
    }
    for (const auto& [symbol, close] : m_closes) keys[symbol + "-pc"] = close;
    for (const auto& [symbol, book] : m_books) keys[symbol + "-bid@ask"] = book;
    return keys;
  }

 private:
  static std::string After(const std::string& text, const std::string& marker, char end) {
    const std::size_t start = text.find(marker);
    if (start == std::string::npos) return "";
    return text.substr(start + marker.size(), text.find(end, start + marker.size()) - start - marker.size());
  }
  static std::string Change(double percent) {
    std::string text = fmt::format("{:.2f}", percent);
    if (text == "-0.00") return "0.00";
    if (text.front() == '-') text.front() = 'm';
    return text;
  }

  std::map<std::string, Record> m_records;
  std::map<std::string, std::string> m_closes, m_books;
};

}  // namespace

std::map<std::string, std::string> RecordsOf(const std::string& eventLog) {
  Ledger ledger;
  std::ifstream file(eventLog);
  for (std::string line; std::getline(file, line) && !file.eof();) {
    std::istringstream columns(line);
    std::string time, stream, kind, text;
    std::getline(std::getline(std::getline(columns, time, '\t'), stream, '\t'), kind, '\t');
    std::getline(columns, text, '\0');
    if (kind == "events") {
      ledger.TakeMessage(text);
    } else if (kind == "quotes") {
      const json quotes = json::parse(text).at("quotes").value("quote", json::array());
      for (const json& quote : quotes.is_array() ? quotes : json::array({quotes})) ledger.TakeSnapshot(quote);
    }
  }
  return ledger.Keys();
}

}  // namespace quenmark::test
