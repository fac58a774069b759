// The whole simulator: certificate, market and the two servers, run until a signal ends it.
#pragma once

#include "simulator/service.h"

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string_view>

namespace quenmark::simulator {

// What is wrong with the certificate that the "wss" port shows.
enum class CertificateFault { kNone, kExpired, kOtherHost, kNotYet, kUnknownIssuer };
// "good", "expired", "other-host", "not-yet" or "unknown-issuer"; nothing for other texts.
std::optional<CertificateFault> ParseCertificateFault(std::string_view text);

struct SimulatorOptions {
  std::uint16_t httpsPort = 0;  // 0: a free one
  std::uint16_t httpPort = 0;
  std::uint16_t wssPort = 0;
  CertificateFault wssCertificate = CertificateFault::kNone;
  bool endWithParent = false;  // SIGTERM when the starting process dies
  ServiceOptions service;
};

// Writes one line {"https":PORT,"http":PORT,"wss":PORT,"ca":"FILE"} to `out` once the ports listen, then serves until
// SIGINT or SIGTERM. "https" and "wss" differ in the certificate alone. FILE lies in a private folder that is removed
// on return. Throws std::exception when something cannot be set up.
void RunSimulator(const SimulatorOptions& options, std::ostream& out);

}  // namespace quenmark::simulator
