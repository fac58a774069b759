// HTML entities of scraped pages.
#pragma once

#include <string>
#include <string_view>

namespace quenmark::providers {

// The text after a fixed, ordered list of replacements, each applied to the whole text after the one before it: so
// "&amp;amp;" is "&", and a replacement can complete an entity that comes later in the list. "&nbsp;", "&#160;" and
// "&#32;" are taken out; "&quot;", "&apos;" and "&middot;" are not in the list. The cost is linear in the text.
std::string HtmlEntityDecode(std::string_view text);

}  // namespace quenmark::providers
