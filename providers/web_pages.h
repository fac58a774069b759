// Single facts read out of plain web pages.
#pragma once

#include "providers/context.h"

#include <string>
#include <string_view>

namespace quenmark::providers {

// The body of a GET to a whole address; "" on any error.
std::string GetPageText(Context& context, std::string_view address);

// The text between the first "<tag>" and the first "</tag>"; "" when there is none. Tags with attributes do not count.
std::string GetTagText(std::string_view html, std::string_view tag);

// The instrument's name from Barchart's quote page, "Not Found", or the page title when it names no instrument.
std::string GetBarchartName(Context& context, std::string_view symbol);

}  // namespace quenmark::providers
