// Writes the records of a whole quotes answer.
#pragma once

#include "providers/context.h"

#include <string_view>

namespace quenmark::feeder {

// `answer`: the raw text of a quotes request, Tradier's or (when the provider name says so) TradeStation's. Writes, for
// each object of it, the quote, previous-close, refresh-time and book records and for Tradier a missing catalogue
// entry. An object with a value that cannot be read writes no quote; a failed request's text writes nothing.
void ApplyQuoteSnapshot(providers::Context& context, std::string_view answer);

}  // namespace quenmark::feeder
