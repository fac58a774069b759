// The two ways in which texts are compared: by code unit, or as words without regard to case.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::providers {

// kText ignores the case of Latin, Greek and Cyrillic letters and orders punctuation before digits before letters.
enum class CompareMode { kBinary, kText };

// Below 0, 0 or above 0 as `left` stands before, level with or after `right`. Texts are UTF-8.
int CompareTexts(std::string_view left, std::string_view right, CompareMode mode);

// Index of the first occurrence of `what` in `units` at or after `from`, npos when there is none.
std::size_t FindUnits(std::u16string_view units, std::u16string_view what, std::size_t from, CompareMode mode);

// The items in ascending order; items that compare equal keep their order.
std::vector<std::string> SortedCopy(const std::vector<std::string>& items, CompareMode mode);

}  // namespace quenmark::providers
