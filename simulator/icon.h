// A small picture for a symbol.
#pragma once

#include <string>
#include <string_view>

namespace quenmark::simulator {

// A PNG file of 16 by 16 pixels, in a colour that follows from the symbol.
std::string IconPng(std::string_view symbol);

}  // namespace quenmark::simulator
