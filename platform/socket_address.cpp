#include "platform/socket_address.h"

#include <fmt/format.h>

#include <charconv>

namespace quenmark::platform {
namespace {

std::optional<std::uint32_t> ParsePart(std::string_view part) {
  int base = 10;
  if (part.size() > 1 && part[0] == '0') {
    const bool hexadecimal = part[1] == 'x' || part[1] == 'X';
    base = hexadecimal ? 16 : 8;
    part.remove_prefix(hexadecimal ? 2 : 1);
  }
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), value, base);
  if (error != std::errc{} || end != part.data() + part.size()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<std::array<std::uint8_t, 4>> ParseHost(std::string_view text) {
  std::uint32_t address = 0;
  for (unsigned parts = 1;; ++parts) {
    const std::size_t dot = text.find('.');
    const std::optional<std::uint32_t> value = ParsePart(text.substr(0, dot));
    if (!value) return std::nullopt;
    if (dot == std::string_view::npos) {
      const unsigned bitsLeft = 8 * (5 - parts);
      if (bitsLeft < 32 && *value >> bitsLeft != 0) return std::nullopt;
      address |= *value;
      break;
    }
    if (*value > 255 || parts == 4) return std::nullopt;
    address |= *value << (8 * (4 - parts));
    text.remove_prefix(dot + 1);
  }
  if (address == 0xFFFFFFFFU) return std::nullopt;
  return std::array<std::uint8_t, 4>{static_cast<std::uint8_t>(address >> 24), static_cast<std::uint8_t>(address >> 16),
                                     static_cast<std::uint8_t>(address >> 8), static_cast<std::uint8_t>(address)};
}

std::string HostText(const std::array<std::uint8_t, 4>& host) {
  return fmt::format("{}.{}.{}.{}", host[0], host[1], host[2], host[3]);
}

}  // namespace quenmark::platform
