// The marker scan that most provider answers are read with.
#pragma once

#include <string_view>

namespace quenmark::providers {

// The text between the first `start` and the next `end` after it, without leading and trailing spaces; "" when either
// is missing. An empty marker occurs everywhere. The result is a view into `text`.
std::string_view GetBetween(std::string_view text, std::string_view start, std::string_view end);

}  // namespace quenmark::providers
