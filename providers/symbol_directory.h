// The vendor's whole symbol list: loaded once per run and searched as text.
#pragma once

#include "providers/context.h"

#include <string_view>

namespace quenmark::providers {

// Loads context.symbolDirectory when it is empty: from "/pb_cad_stock.log" in the program folder when that file exists,
// otherwise from the vendor's service, whose answer is then saved to that file. The fixed index entries are appended. A
// list that cannot be had leaves the directory empty, so the next call asks again.
void LoadSymbolDirectory(Context& context);

// The text of the object (braces included) around `"symbol":"` + symbol + `"`; "" when the directory has none.
std::string_view DirectoryEntry(std::string_view directory, std::string_view symbol);

}  // namespace quenmark::providers
