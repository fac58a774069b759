// The key-exchange groups.
#pragma once

#include "tls/algorithms.h"

#include <array>
#include <cstdint>
#include <string_view>

namespace quenmark::tls {

struct Group {
  std::uint16_t code;  // IANA
  Exchange exchange;
  std::size_t publicKeySize;     // bytes on the wire
  std::size_t sharedSecretSize;  // bytes
  std::string_view name;
  std::string_view makeKey;       // primitive that makes a key pair
  std::string_view sharedSecret;  // primitive that agrees
};

// In order of preference.
// clang-format off
constexpr std::array<Group, 3> kGroups{{
    {29, Exchange::kX25519,    32, 32, "Curve25519", "CryptoEcdhCurve25519MakeKey", "CryptoEcdhCurve25519SharedSecret"},
    {23, Exchange::kSecp256r1, 65, 32, "secp256r1",  "CryptoEcdhSecp256r1MakeKey",  "CryptoEcdhSecp256r1SharedSecret"},
    {24, Exchange::kSecp384r1, 97, 48, "secp384r1",  "CryptoEcdhSecp384r1MakeKey",  "CryptoEcdhSecp384r1SharedSecret"},
}};
// clang-format on

// The group of a code, null for an unknown one.
const Group* FindGroup(std::uint16_t code);
// The group of a code. Raises "Unsupported exchange group (code)".
const Group& GroupOf(std::uint16_t code);

}  // namespace quenmark::tls
