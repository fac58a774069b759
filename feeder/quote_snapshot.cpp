#include "feeder/quote_snapshot.h"

#include "feeder/records.h"
#include "feeder/symbol_master.h"
#include "platform/code_page.h"
#include "platform/number_text.h"
#include "platform/run_time_error.h"
#include "providers/dates.h"
#include "providers/descriptions.h"
#include "providers/get_between.h"
#include "providers/http_requests.h"
#include "providers/json_objects.h"
#include "providers/numbers.h"
#include "providers/symbol_catalogue.h"
#include "providers/text_pieces.h"

#include <string>

namespace quenmark::feeder {
namespace {

using providers::Context;
using providers::GetBetween;

constexpr std::string_view kStationCopyApp = "Dovecrest";

double Number(std::string_view text) {
  const auto value = platform::ParseNumber(text);
  if (!value) platform::RaiseTypeMismatch();
  return *value;
}

// A conversion that fails ends the writer for its object.
void RequireStamp(std::string_view stamp) {
  if (!IsStamp(stamp)) platform::RaiseTypeMismatch();
}

// What both providers' objects come to before the records are written.
struct Snapshot {
  Quote quote;
  std::string_view previousClose;  // as received
  bool hasBook = false;
  Book book;
};

void WritePreviousCloseWhenKnown(Context& context, const Snapshot& snapshot) {
  const auto close = platform::ParseNumber(snapshot.previousClose);
  if (close) WritePreviousClose(context, snapshot.quote.symbol, platform::NumberText(*close));
}

void WriteSnapshot(Context& context, const Snapshot& snapshot, bool copyForStation) {
  const Quote& quote = snapshot.quote;
  if (QAnt(context, quote.symbol, quote.stamp) != QuoteOrder::kOk) return;
  if (const auto record = FormatQuoteRecord(quote)) {
    context.store.SaveSetting(context.settingsApp, providers::kFeederSection, quote.symbol, *record);
    if (copyForStation) {
      context.store.SaveSetting(kStationCopyApp, providers::kFeederSection, quote.symbol, *record);
    }
  }
  WritePreviousCloseWhenKnown(context, snapshot);
  WriteRefreshTime(context, quote.symbol);
  if (snapshot.hasBook) WriteBook(context, quote.symbol, snapshot.book);
}

// Tradier: `"key":` then a bare number up to the next comma, texts in quotes.

class TradierObject {
 public:
  explicit TradierObject(std::string_view object) : m_object(object) {}
  bool Has(std::string_view marker) const { return providers::Contains(m_object, marker); }
  std::string_view Scalar(std::string_view marker) const { return providers::ScalarAfter(m_object, marker); }
  std::string_view Text(std::string_view marker) const { return GetBetween(m_object, marker, "\""); }

 private:
  std::string_view m_object;
};

void KeepCatalogueEntry(Context& context, const TradierObject& object, std::string_view symbol) {
  if (!CatalogueEntry(context, context.providerName, symbol).empty()) return;
  std::string entry;
  entry.append(R"({"symbol":")").append(symbol);
  entry.append(R"(","description":")").append(object.Text(R"("description":")"));
  entry.append(R"(","exch":")").append(object.Text(R"("exch":")"));
  entry.append(R"(","type":")").append(object.Text(R"("type":")")).append(R"("})");
  SaveCatalogueEntry(context, context.providerName, symbol, entry);
}

// Before the first trade of a day the provider sends nulls and no volume: the last price stands in for them. False when
// there is no last price either.
bool FillBeforeFirstTrade(std::string_view last, std::string_view& volume, std::string_view (&prices)[3]) {
  bool missing = volume == "0";
  for (const std::string_view price : prices) missing = missing || price == "null";
  if (!missing) return true;
  if (!platform::IsNumeric(last)) return false;
  for (std::string_view& price : prices) {
    if (price == "null") price = last;
  }
  if (volume == "0") volume = "1";
  return true;
}

void ApplyTradierObject(Context& context, std::string_view text) {
  const TradierObject object(text);
  const std::string_view symbol = object.Text(R"("symbol":")");
  if (symbol.empty()) return;
  platform::IgnoreErrors([&] { providers::GetSymbolDescription(context, symbol, context.providerName); });

  const std::string_view last = object.Scalar(R"("last":)");
  std::string_view volume = object.Scalar(R"("volume":)");
  std::string_view prices[3] = {object.Scalar(R"("open":)"), object.Scalar(R"("high":)"), object.Scalar(R"("low":)")};
  if (!FillBeforeFirstTrade(last, volume, prices)) return;
  KeepCatalogueEntry(context, object, symbol);

  Snapshot snapshot;
  const std::string volumeText = platform::NumberText(Number(volume));
  std::string stamp;
  providers::UnixToStamp(object.Scalar(R"("trade_date":)"), context.gmtOffsetMinutes, stamp);
  RequireStamp(stamp);
  snapshot.quote = {symbol,
                    Number(last),
                    platform::ReadNumber(object.Scalar(R"("change_percentage":)")),
                    Number(prices[0]),
                    Number(prices[1]),
                    Number(prices[2]),
                    volumeText,
                    stamp};
  snapshot.previousClose = object.Scalar(R"("prevclose":)");
  snapshot.hasBook = object.Has(R"("ask":)") && object.Has(R"("bid":)");
  snapshot.book = {object.Scalar(R"("bid":)"), object.Scalar(R"("bidsize":)"), object.Scalar(R"("ask":)"),
                   object.Scalar(R"("asksize":)")};
  WriteSnapshot(context, snapshot, false);
}

void ApplyTradierAnswer(Context& context, std::string_view answer) {
  std::string_view list = providers::TextAfter(answer, R"("quote":[)");
  const bool single = list.empty();
  if (single) {
    const std::size_t found = answer.find(R"("quote":{)");
    if (found == std::string_view::npos) return;
    list = answer.substr(found + std::string_view(R"("quote":)").size());
  }
  providers::JsonObjects objects(list);
  while (const auto object = objects.Next()) {
    platform::IgnoreErrors([&] { ApplyTradierObject(context, *object); });
    if (single) return;  // what stands behind it ("unmatched_symbols") is no quote
  }
}

// TradeStation: lower-cased, every value a text in quotes.

std::string_view StationValue(std::string_view object, std::string_view key) {
  std::string marker;
  marker.append("\"").append(key).append("\":\"");
  return GetBetween(object, marker, "\"");
}

void ApplyStationObject(Context& context, std::string_view object) {
  const std::string symbol = platform::AsciiUpper(StationValue(object, "symbol"));
  if (symbol.empty()) return;
  platform::IgnoreErrors([&] { providers::GetSymbolDescription(context, symbol, context.providerName); });
  platform::IgnoreErrors([&] { PegaTickFatorLote(context, symbol, "tickdec"); });

  std::string_view volume = StationValue(object, "volume");
  if (volume == "0") volume = "1";
  const std::string stamp = StampOf(StationLocalTime(context, StationValue(object, "tradetime")));
  RequireStamp(stamp);
  if (!platform::IsNumeric(volume)) platform::RaiseTypeMismatch();
  // Before the first trade of a day these are null: the last price stands in for them.
  const std::string_view last = StationValue(object, "last");
  const auto price = [object, last](std::string_view key) {
    const std::string_view value = StationValue(object, key);
    return Number(value.empty() ? last : value);
  };
  Snapshot snapshot;
  snapshot.quote = {symbol,        Number(last),  platform::ReadNumber(StationValue(object, "netchangepct")),
                    price("open"), price("high"), price("low"),
                    volume,        stamp};
  snapshot.previousClose = StationValue(object, "previousclose");
  snapshot.hasBook = providers::Contains(object, R"("ask":")") && providers::Contains(object, R"("bid":")");
  snapshot.book = {StationValue(object, "bid"), StationValue(object, "bidsize"), StationValue(object, "ask"),
                   StationValue(object, "asksize")};
  WriteSnapshot(context, snapshot, true);
}

void ApplyStationAnswer(Context& context, std::string_view answer) {
  const std::string lower = platform::AsciiLower(answer);
  providers::JsonObjects objects(providers::TextAfter(lower, R"("quotes":[)"));
  while (const auto object = objects.Next()) {
    platform::IgnoreErrors([&] { ApplyStationObject(context, *object); });
  }
}

}  // namespace

void ApplyQuoteSnapshot(Context& context, std::string_view answer) {
  if (providers::RequestFailed(answer)) return;
  if (providers::Contains(platform::AsciiLower(context.providerName), "tradestation")) {
    ApplyStationAnswer(context, answer);
  } else {
    ApplyTradierAnswer(context, answer);
  }
}

}  // namespace quenmark::feeder
