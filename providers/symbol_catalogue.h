// The symbol catalogue: per provider one JSON text for each symbol (docs/formats/symbol_catalogue.md).
#pragma once

#include "providers/context.h"

#include <string>
#include <string_view>

namespace quenmark::providers {

// The symbol's entry in the catalogue of the application, "" when there is none.
std::string CatalogueEntry(Context& context, std::string_view application, std::string_view symbol);
// An entry without a symbol is not kept.
void SaveCatalogueEntry(Context& context, std::string_view application, std::string_view symbol,
                        std::string_view entry);

}  // namespace quenmark::providers
