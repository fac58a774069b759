#include "feeder/quote_record.h"

#include "platform/number_text.h"
#include "providers/numbers.h"

#include <algorithm>

namespace quenmark::feeder {

std::array<std::string_view, kQuoteFields> SplitQuoteRecord(std::string_view record) {
  std::array<std::string_view, kQuoteFields> fields;
  for (std::string_view& field : fields) {
    const std::size_t end = record.find('-');
    field = record.substr(0, end);
    if (end == std::string_view::npos) break;
    record.remove_prefix(end + 1);
  }
  return fields;
}

bool IsStamp(std::string_view text) {
  return text.size() == kStampLength &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string FormatChange(double percent) {
  std::string text = providers::FormatNum(percent, 2, false, platform::kLocaleEnglishUs, false);
  if (text.starts_with('-')) text.front() = 'm';
  return text;
}

std::optional<std::string> FormatQuoteRecord(const Quote& quote) {
  if (quote.symbol.find('-') != std::string_view::npos || quote.volume.find('-') != std::string_view::npos) return {};
  if (!IsStamp(quote.stamp)) return {};
  for (const double price : {quote.last, quote.open, quote.high, quote.low}) {
    if (price < 0) return {};
  }
  std::string record(quote.symbol);
  const auto appendPrice = [&record](double price) {
    record += '-';
    platform::AppendNumber(record, price);
  };
  appendPrice(quote.last);
  record.append("-").append(FormatChange(quote.changePercent));
  appendPrice(quote.open);
  appendPrice(quote.high);
  appendPrice(quote.low);
  record.append("-").append(quote.volume).append("-1-1-").append(quote.stamp);
  return record;
}

}  // namespace quenmark::feeder
