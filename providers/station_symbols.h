// TradeStation's symbol records: fetched once per symbol, kept as JSON text, read field by field.
#pragma once

#include "providers/context.h"

#include <string>
#include <string_view>

namespace quenmark::providers {

inline constexpr std::string_view kStationProvider = "TradeStation";

// Stores every element of the answer's "Symbols" list and then of its "Errors" list as JSON text under its "Symbol" in
// the catalogue of the application; so a symbol that the provider rejects is not asked again.
void StoreStationSymbols(Context& context, std::string_view application, std::string_view answer);

// Asks TradeStation for symbols joined by "," and stores the answer in the catalogue of the application. Ends the
// program like StationRequest.
void FetchStationSymbols(Context& context, std::string_view application, std::string_view symbols);

// One field of a stored record; the name's case does not matter: "type", "tick", "tickdec", "fator" (point value),
// "lote" (lot), "lotedec", "desc", "venc" (expiry). "" for other names, missing entries and text that is no JSON.
std::string StationSymbolField(std::string_view record, std::string_view field);

// The field of the symbol's record, fetched when it is missing. Sets the process-wide provider name to "TradeStation".
std::string GetStationSymbolInfo(Context& context, std::string_view symbol, std::string_view field);

}  // namespace quenmark::providers
