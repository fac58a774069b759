// The whole simulator: certificate, market and the two servers, run until a signal ends it.
#pragma once

#include "simulator/service.h"

#include <cstdint>
#include <iosfwd>

namespace quenmark::simulator {

struct SimulatorOptions {
  std::uint16_t httpsPort = 0;  // 0: a free one
  std::uint16_t httpPort = 0;
  bool endWithParent = false;  // SIGTERM when the starting process dies
  ServiceOptions service;
};

// Writes one line {"https":PORT,"http":PORT,"ca":"FILE"} to `out` once both ports listen, then serves until SIGINT or
// SIGTERM. FILE lies in a private folder that is removed on return. Throws std::exception when something cannot be set
// up.
void RunSimulator(const SimulatorOptions& options, std::ostream& out);

}  // namespace quenmark::simulator
