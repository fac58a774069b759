#include "feeder/quote_record.h"

#include "platform/number_text.h"
#include "providers/numbers.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

namespace quenmark::feeder {
namespace {

static_assert(std::endian::native == std::endian::little);

// Of the first eight characters: the highest bit of each byte whose character is "-".
std::uint64_t DashBits(std::string_view text) {
  constexpr std::uint64_t kLowBits = 0x7F7F7F7F7F7F7F7F;
  std::uint64_t word = 0;
  std::memcpy(&word, text.data(), std::min(text.size(), sizeof word));
  const std::uint64_t other = word ^ 0x2D2D2D2D2D2D2D2D;  // a dash becomes 0
  return ~(((other & kLowBits) + kLowBits) | other | kLowBits);
}

}  // namespace

std::array<std::string_view, kQuoteFields> SplitQuoteRecord(std::string_view record) {
  std::array<std::string_view, kQuoteFields> fields;
  std::size_t begin = 0;
  std::size_t field = 0;
  const auto endAt = [&](std::size_t end) {
    fields[field++] = record.substr(begin, end - begin);
    begin = end + 1;
    return field == kQuoteFields;
  };
  for (std::size_t at = 0; at < record.size(); at += sizeof(std::uint64_t)) {
    for (std::uint64_t dashes = DashBits(record.substr(at)); dashes != 0; dashes &= dashes - 1) {
      if (endAt(at + static_cast<std::size_t>(std::countr_zero(dashes)) / 8)) return fields;
    }
  }
  endAt(record.size());
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
