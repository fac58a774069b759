// The supported cipher suites with their parameters, and the order in which they are offered.
#pragma once

#include "tls/algorithms.h"

#include <cstdint>
#include <string_view>
#include <vector>

namespace quenmark::tls {

enum class Authentication : std::uint8_t { kAny, kEcdsa, kRsa, kRsaTransport };  // kAny: TLS 1.3

// Sizes in bytes. The MAC exists in CBC suites only.
struct CipherSuite {
  std::uint16_t code;
  std::string_view name;
  Digest digest;
  Bulk bulk;
  std::uint8_t keySize;
  std::uint8_t ivSize;
  std::uint8_t explicitNonceSize;
  std::uint8_t tagSize;
  Digest mac;
  std::uint8_t macSize;
  Authentication authentication;

  bool IsTls13() const { return authentication == Authentication::kAny; }
  bool UsesRsaTransport() const { return authentication == Authentication::kRsaTransport; }
  bool IsCbc() const { return macSize != 0; }
  std::size_t FixedIvSize() const { return static_cast<std::size_t>(ivSize - explicitNonceSize); }
};

// The suite of a code. Raises "Unsupported cipher suite (code)" for one that is not in the table.
const CipherSuite& pvTlsSetupCipherSuite(std::uint16_t code);

// The codes to offer, best first. `localKeyAlgorithm` is the object identifier of the local private key, empty for one
// that cannot be decoded; it is looked at only when there is a local key.
std::vector<std::uint16_t> CipherSuiteOffer(std::uint32_t features, bool hasLocalKey,
                                            std::string_view localKeyAlgorithm);

namespace oid {
constexpr std::string_view kRsa = "1.2.840.113549.1.1.1";
constexpr std::string_view kRsaPss = "1.2.840.113549.1.1.10";
constexpr std::string_view kEcPublicKey = "1.2.840.10045.2.1";
constexpr std::string_view kSecp256r1 = "1.2.840.10045.3.1.7";
constexpr std::string_view kSecp384r1 = "1.3.132.0.34";
constexpr std::string_view kSecp521r1 = "1.3.132.0.35";
}  // namespace oid

}  // namespace quenmark::tls
