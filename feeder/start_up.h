// The pieces of start-up that set the time zone.
#pragma once

#include "providers/context.h"

namespace quenmark::feeder {

// Sets the GMT offset from the machine's zone.
void InitGmtOffset(providers::Context& context);

// Tradier only: asks the vendor for the exchange's offset; without a numeric answer the machine's own stays.
void RequestTimeZone(providers::Context& context);

}  // namespace quenmark::feeder
