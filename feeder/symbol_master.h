// Symbol master data: one question about one symbol, answered from the symbol catalogue
// (docs/formats/symbol_catalogue.md).
#pragma once

#include "providers/context.h"

#include <string>
#include <string_view>

namespace quenmark::feeder {

// `PegaTickFatorLote` (get tick, factor, lot). Questions, whatever their case: "venc" (expiry), "desc", "type", "tick",
// "tickdec" (price decimals), "fator" (point value), "lote" (lot), "lotedec". A missing catalogue entry is fetched from
// the provider first. "" for an empty symbol, another question, another provider, or when there is no answer.
std::string PegaTickFatorLote(providers::Context& context, std::string_view symbol, std::string_view question);

}  // namespace quenmark::feeder
