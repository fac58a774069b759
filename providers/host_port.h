// The authority of a web address as it is configured: host, and a port where one is written.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace quenmark::providers {

struct HostPort {
  std::string host;       // an IPv6 number keeps its brackets
  std::int32_t port = 0;  // 0, which fails to connect, when what stands for the port is none
};

// "host" or "host:port"; without a port it is `standardPort`.
HostPort SplitHostPort(std::string_view authority, std::int32_t standardPort);

}  // namespace quenmark::providers
