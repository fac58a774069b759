// The quote record of section "Feeder": ten fields joined by "-" (docs/formats/quote_record.md).
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace quenmark::feeder {

inline constexpr std::size_t kQuoteFields = 10;
inline constexpr std::size_t kStampLength = 14;

// Field numbers, as indexes.
enum QuoteField : std::size_t { kSymbol, kLast, kChange, kOpen, kHigh, kLow, kVolume, kOne, kOneAgain, kStamp };

// The fields of a stored record as views into it; what it does not have is empty, an eleventh and later field is
// dropped.
std::array<std::string_view, kQuoteFields> SplitQuoteRecord(std::string_view record);

// The values of a record about to be written.
struct Quote {
  std::string_view symbol;
  double last = 0;
  double changePercent = 0;
  double open = 0;
  double high = 0;
  double low = 0;
  std::string_view volume;  // number text
  std::string_view stamp;   // yyyymmddHHMMss, exchange-local time
};

// The record's text, or nothing when a field would hold a "-" (a negative price, such a symbol) or the stamp is not 14
// digits: such a record could not be read back.
std::optional<std::string> FormatQuoteRecord(const Quote& quote);

// A change in percent with two decimals and "m" for its sign.
std::string FormatChange(double percent);

bool IsStamp(std::string_view text);

}  // namespace quenmark::feeder
