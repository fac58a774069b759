// The SplitMix64 generator: the same numbers with every compiler and library. Its whole state is the number passed in.
#pragma once

#include <cstdint>

namespace quenmark::simulator {

std::uint64_t NextRandom(std::uint64_t& state);
// A number from `least` to `most`, both included; `least` must not lie above `most`.
std::int64_t Draw(std::uint64_t& state, std::int64_t least, std::int64_t most);

}  // namespace quenmark::simulator
