#include "providers/station_symbols.h"

#include "platform/code_page.h"
#include "platform/number_text.h"
#include "platform/run_time_error.h"
#include "providers/http_requests.h"
#include "providers/json.h"
#include "providers/numbers.h"
#include "providers/symbol_catalogue.h"
#include "providers/text_pieces.h"

#include <algorithm>

namespace quenmark::providers {
namespace {

constexpr double kMostDecimals = 28;

// `increment` with as many decimals as the format says.
std::string WithDecimals(const JsonValue& format, std::string_view increment) {
  const JsonValue& value = format.At(increment);
  const JsonValue& decimals = format.At("Decimals");
  if (value.IsEmpty() || decimals.IsEmpty()) platform::RaiseTypeMismatch();
  const int count = static_cast<int>(std::clamp(decimals.Number(), 0.0, kMostDecimals));
  return FormatNum(value.Text(), count, false, platform::kLocaleEnglishUs, true);
}

std::string TickDecimals(std::string_view record, const JsonValue& format) {
  if (Contains(platform::AsciiLower(record), "invalid symbol")) return "2";
  return format.At("Decimals").Text();
}

}  // namespace

void StoreStationSymbols(Context& context, std::string_view application, std::string_view answer) {
  const JsonDocument document = ParseJson(answer);
  for (const std::string_view list : {"Symbols", "Errors"}) {
    for (const JsonValue& element : document.Value().At(list).Items()) {
      platform::IgnoreErrors(
          [&] { SaveCatalogueEntry(context, application, element.At("Symbol").Text(), ToJson(element)); });
    }
  }
}

void FetchStationSymbols(Context& context, std::string_view application, std::string_view symbols) {
  StoreStationSymbols(context, application, StationRequest(context, "marketdata/symbols/" + InPath(symbols)));
}

std::string StationSymbolField(std::string_view record, std::string_view field) {
  const JsonDocument document = ParseJson(record);
  const JsonValue& root = document.Value();
  const JsonValue& price = root.At("PriceFormat");
  const JsonValue& quantity = root.At("QuantityFormat");
  const std::string name = platform::AsciiLower(field);
  std::string text;
  platform::IgnoreErrors([&] {
    if (name == "venc") text = root.At("ExpirationDate").Text().substr(0, 10);
    if (name == "desc") text = root.At("Description").Text();
    if (name == "type") text = root.At("AssetType").Text();
    if (name == "tick") text = WithDecimals(price, "Increment");
    if (name == "tickdec") text = TickDecimals(record, price);
    if (name == "fator") text = price.At("PointValue").Text();
    if (name == "lote") text = WithDecimals(quantity, "MinimumTradeQuantity");
    if (name == "lotedec") text = quantity.At("Decimals").Text();
  });
  return text;
}

std::string GetStationSymbolInfo(Context& context, std::string_view symbol, std::string_view field) {
  context.providerName = kStationProvider;
  const std::string key = platform::AsciiUpper(symbol);
  std::string record = CatalogueEntry(context, kStationProvider, key);
  if (record.empty()) {
    platform::IgnoreErrors([&] { FetchStationSymbols(context, kStationProvider, key); });
    record = CatalogueEntry(context, kStationProvider, key);
  }
  return StationSymbolField(record, field);
}

}  // namespace quenmark::providers
