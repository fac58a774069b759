// The symbols that the simulated market trades. The list does not depend on the seed, so that a test knows its names.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace quenmark::simulator {

struct Instrument {
  std::string symbol;
  std::string description;
  std::string exchange;  // one letter
  std::string type;      // "stock" or "etf"
};

inline constexpr std::size_t kMaximumSymbols = 40'000;

// The first `count` instruments (at most kMaximumSymbols): well-known names first, invented ones after them.
std::vector<Instrument> Universe(std::size_t count);

}  // namespace quenmark::simulator
