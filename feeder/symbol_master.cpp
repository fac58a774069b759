#include "feeder/symbol_master.h"

#include "platform/code_page.h"
#include "platform/number_text.h"
#include "platform/run_time_error.h"
#include "providers/http_requests.h"
#include "providers/json.h"
#include "providers/numbers.h"
#include "providers/station_symbols.h"
#include "providers/symbol_catalogue.h"
#include "providers/symbol_directory.h"
#include "providers/text_pieces.h"

#include <cmath>

namespace quenmark::feeder {
namespace {

using providers::Context;
using providers::JsonValue;

constexpr std::string_view kVendorProvider = "Quenmark";
constexpr std::string_view kTradierProvider = "Tradier";
constexpr double kTick = 0.01;

void FillFromDirectory(Context& context, std::string_view symbol) {
  providers::LoadSymbolDirectory(context);
  const std::string_view entry = providers::DirectoryEntry(context.symbolDirectory, symbol);
  if (!entry.empty()) SaveCatalogueEntry(context, kVendorProvider, symbol, entry);
}

void StoreSecurity(Context& context, const JsonValue& security) {
  platform::IgnoreErrors(
      [&] { SaveCatalogueEntry(context, kTradierProvider, security.At("symbol").Text(), ToJson(security)); });
}

void FillFromLookup(Context& context, std::string_view symbol) {
  const std::string answer = ApiRequest(context, "markets/lookup?q=" + providers::InQuery(symbol));
  if (providers::RequestFailed(answer)) return;
  const providers::JsonDocument document = providers::ParseJson(answer);
  // One match comes as a bare object, several as a list, none as null.
  const JsonValue& found = document.Value().At("securities").At("security");
  if (found.IsObject()) StoreSecurity(context, found);
  for (const JsonValue& security : found.Items()) StoreSecurity(context, security);
}

std::string TradierOrVendorField(std::string_view entry, std::string_view question) {
  const providers::JsonDocument document = providers::ParseJson(entry);
  if (document.Root() == nullptr) return {};
  if (question == "venc") return "-";
  if (question == "desc") return document.Value().At("description").Text();
  if (question == "type") return document.Value().At("type").Text();
  if (question == "tick") return providers::FormatNum(kTick, 2, false, platform::kLocaleEnglishUs, false);
  if (question == "tickdec") return "2";
  if (question == "fator" || question == "lote") return "1";
  if (question == "lotedec") return "0";
  return {};
}

using Fill = void (*)(Context& context, std::string_view symbol);
using Read = std::string (*)(std::string_view entry, std::string_view question);

struct ProviderRow {
  std::string_view name;
  Fill fill;
  Read read;
};

constexpr ProviderRow kProviders[] = {
    {kVendorProvider, FillFromDirectory, TradierOrVendorField},
    {providers::kStationProvider,
     [](Context& context, std::string_view symbol) {
       providers::FetchStationSymbols(context, providers::kStationProvider, platform::AsciiUpper(symbol));
     },
     providers::StationSymbolField},
    {kTradierProvider, FillFromLookup, TradierOrVendorField},
};

}  // namespace

std::string PegaTickFatorLote(Context& context, std::string_view symbol, std::string_view question) {
  if (symbol.empty()) return {};
  for (const ProviderRow& row : kProviders) {
    if (row.name != context.providerName) continue;
    std::string entry = CatalogueEntry(context, row.name, symbol);
    if (entry.empty()) {
      platform::IgnoreErrors([&] { row.fill(context, symbol); });
      entry = CatalogueEntry(context, row.name, symbol);
    }
    std::string answer;
    platform::IgnoreErrors([&] { answer = row.read(entry, platform::AsciiLower(question)); });
    return answer;
  }
  return {};
}

}  // namespace quenmark::feeder
