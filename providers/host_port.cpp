#include "providers/host_port.h"

#include <charconv>

namespace quenmark::providers {

HostPort SplitHostPort(std::string_view authority, std::int32_t standardPort) {
  const std::size_t bracket = authority.rfind(']');
  const std::size_t colon = authority.find(':', bracket == std::string_view::npos ? 0 : bracket);
  HostPort split{std::string(authority.substr(0, colon)), standardPort};
  if (colon == std::string_view::npos) return split;
  split.port = 0;
  const std::string_view digits = authority.substr(colon + 1);
  std::int32_t port = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
  const bool whole = error == std::errc() && end == digits.data() + digits.size();
  if (whole && port >= 1 && port <= 65535) split.port = port;
  return split;
}

}  // namespace quenmark::providers
