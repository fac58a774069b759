// What the feeder writes into section "Feeder" of its settings application, and the order check of quote records.
#pragma once

#include "feeder/quote_record.h"
#include "providers/context.h"

#include <string>
#include <string_view>

namespace quenmark::feeder {

enum class QuoteOrder { kOk, kNo };

// `QAnt`: kNo when the stored record of the symbol is newer than the stamp (yyyymmddHHMMss). A stamp that is not older
// and whose minute ends in another digit drops the minute-bar cache.
QuoteOrder QAnt(providers::Context& context, std::string_view symbol, std::string_view stamp);
// The same against a record that has been read.
QuoteOrder CompareToRecord(providers::Context& context, std::string_view record, std::string_view stamp);

// A TradeStation time (UTC) as local time in layout "GMT", and such a time as a stamp; what is no time gives no stamp.
std::string StationLocalTime(const providers::Context& context, std::string_view utc);
std::string StampOf(std::string_view localTime);

// The previous close under symbol + "-pc".
void WritePreviousClose(providers::Context& context, std::string_view symbol, std::string_view numberText);
// The seconds since local midnight under symbol + "-all".
void WriteRefreshTime(providers::Context& context, std::string_view symbol);

// bid "|" bid size "@" ask "|" ask size, each as received, under symbol + "-bid@ask".
struct Book {
  std::string_view bid;
  std::string_view bidSize;
  std::string_view ask;
  std::string_view askSize;
};
inline constexpr std::string_view kBookEnding = "-bid@ask";
void AppendBook(std::string& text, const Book& book);
void WriteBook(providers::Context& context, std::string_view symbol, const Book& book);

}  // namespace quenmark::feeder
