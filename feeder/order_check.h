// Fills the charting application's simulated limit orders against incoming quotes (docs/formats/orders.md).
#pragma once

#include "providers/context.h"

#include <string_view>

namespace quenmark::feeder {

// Looks at the open orders of the symbol: fills those that `last` has crossed, rejects or reports those in an
// impossible state, books positions. `stamp` (yyyymmddHHMMss) is the quote's time.
void CheckOrders(providers::Context& context, std::string_view symbol, double last, std::string_view stamp);

}  // namespace quenmark::feeder
