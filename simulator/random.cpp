#include "simulator/random.h"

namespace quenmark::simulator {

std::uint64_t NextRandom(std::uint64_t& state) {
  state += 0x9E3779B97F4A7C15U;
  std::uint64_t mixed = state;
  mixed = (mixed ^ (mixed >> 30U)) * 0xBF58476D1CE4E5B9U;
  mixed = (mixed ^ (mixed >> 27U)) * 0x94D049BB133111EBU;
  return mixed ^ (mixed >> 31U);
}

std::int64_t Draw(std::uint64_t& state, std::int64_t least, std::int64_t most) {
  return least + static_cast<std::int64_t>(NextRandom(state) % static_cast<std::uint64_t>(most - least + 1));
}

}  // namespace quenmark::simulator
