// The address record of the socket layers: an IPv4 host and a port.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quenmark::platform {

struct InetAddress {
  std::array<std::uint8_t, 4> host{};  // in the order of the dotted text; all zero: any address
  std::uint16_t port = 0;              // host byte order

  bool operator==(const InetAddress&) const = default;
};

// The host of an address text by the rules of inet_addr: one to four parts, each decimal, octal (0…) or hexadecimal
// (0x…), the last one filling the bytes that are left. Nothing for any other text and for 255.255.255.255, which that
// function cannot tell from its error value.
std::optional<std::array<std::uint8_t, 4>> ParseHost(std::string_view text);
// Dotted decimal text.
std::string HostText(const std::array<std::uint8_t, 4>& host);

}  // namespace quenmark::platform
