// The IPv4 addresses of this machine's network adapters.
#pragma once

#include <string>
#include <vector>

namespace quenmark::platform {

struct AdapterAddress {
  std::string address;  // dotted
  std::string mask;     // dotted

  bool operator==(const AdapterAddress&) const = default;
};

// Every address of every adapter but the loopback, "0.0.0.0" left out. Empty when the system does not tell.
std::vector<AdapterAddress> AdapterAddresses();

}  // namespace quenmark::platform
