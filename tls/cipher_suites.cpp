#include "tls/cipher_suites.h"

#include "tls/error.h"
#include "tls/names.h"

#include <fmt/format.h>

#include <array>

namespace quenmark::tls {

namespace {

using enum Authentication;

// In order of preference: TLS 1.3 suites first, then those of TLS 1.2.
// clang-format off
constexpr std::array<CipherSuite, 17> kSuites{{
    // code   name                              digest           bulk                     key iv expl tag  MAC            authentication
    {0x1301, "TLS_AES_128_GCM_SHA256",          Digest::kSha256, Bulk::kAes128Gcm,        16, 12, 0,  16, Digest::kNone, 0,  kAny},
    {0x1302, "TLS_AES_256_GCM_SHA384",          Digest::kSha384, Bulk::kAes256Gcm,        32, 12, 0,  16, Digest::kNone, 0,  kAny},
    {0x1303, "TLS_CHACHA20_POLY1305_SHA256",    Digest::kSha256, Bulk::kChaCha20Poly1305, 32, 12, 0,  16, Digest::kNone, 0,  kAny},
    {0xC02B, "ECDHE-ECDSA-AES128-GCM-SHA256",   Digest::kSha256, Bulk::kAes128Gcm,        16, 12, 8,  16, Digest::kNone, 0,  kEcdsa},
    {0xC02F, "ECDHE-RSA-AES128-GCM-SHA256",     Digest::kSha256, Bulk::kAes128Gcm,        16, 12, 8,  16, Digest::kNone, 0,  kRsa},
    {0xC02C, "ECDHE-ECDSA-AES256-GCM-SHA384",   Digest::kSha384, Bulk::kAes256Gcm,        32, 12, 8,  16, Digest::kNone, 0,  kEcdsa},
    {0xC030, "ECDHE-RSA-AES256-GCM-SHA384",     Digest::kSha384, Bulk::kAes256Gcm,        32, 12, 8,  16, Digest::kNone, 0,  kRsa},
    {0xCCA9, "ECDHE-ECDSA-CHACHA20-POLY1305",   Digest::kSha256, Bulk::kChaCha20Poly1305, 32, 12, 0,  16, Digest::kNone, 0,  kEcdsa},
    {0xCCA8, "ECDHE-RSA-CHACHA20-POLY1305",     Digest::kSha256, Bulk::kChaCha20Poly1305, 32, 12, 0,  16, Digest::kNone, 0,  kRsa},
    {0xC009, "ECDHE-ECDSA-AES128-SHA",          Digest::kSha256, Bulk::kAes128Cbc,        16, 16, 16, 0,  Digest::kSha1, 20, kEcdsa},
    {0xC013, "ECDHE-RSA-AES128-SHA",            Digest::kSha256, Bulk::kAes128Cbc,        16, 16, 16, 0,  Digest::kSha1, 20, kRsa},
    {0xC00A, "ECDHE-ECDSA-AES256-SHA",          Digest::kSha256, Bulk::kAes256Cbc,        32, 16, 16, 0,  Digest::kSha1, 20, kEcdsa},
    {0xC014, "ECDHE-RSA-AES256-SHA",            Digest::kSha256, Bulk::kAes256Cbc,        32, 16, 16, 0,  Digest::kSha1, 20, kRsa},
    {0x009C, "AES128-GCM-SHA256",               Digest::kSha256, Bulk::kAes128Gcm,        16, 12, 8,  16, Digest::kNone, 0,  kRsaTransport},
    {0x009D, "AES256-GCM-SHA384",               Digest::kSha384, Bulk::kAes256Gcm,        32, 12, 8,  16, Digest::kNone, 0,  kRsaTransport},
    {0x002F, "AES128-SHA",                      Digest::kSha256, Bulk::kAes128Cbc,        16, 16, 16, 0,  Digest::kSha1, 20, kRsaTransport},
    {0x0035, "AES256-SHA",                      Digest::kSha256, Bulk::kAes256Cbc,        32, 16, 16, 0,  Digest::kSha1, 20, kRsaTransport},
}};
// clang-format on

bool KeyServes(Authentication authentication, std::string_view key) {
  switch (authentication) {
    case kAny:
      return true;
    case kEcdsa:
      return key == oid::kSecp256r1 || key == oid::kSecp384r1 || key == oid::kSecp521r1;
    case kRsa:
    case kRsaTransport:
      return key == oid::kRsa || key == oid::kRsaPss;
  }
  return false;
}

}  // namespace

const CipherSuite& pvTlsSetupCipherSuite(std::uint16_t code) {
  for (const CipherSuite& suite : kSuites) {
    if (suite.code == code) return suite;
  }
  throw RaisedError{fmt::format("Unsupported cipher suite ({})", Hexadecimal(code)), "pvTlsSetupCipherSuite"};
}

std::vector<std::uint16_t> CipherSuiteOffer(std::uint32_t features, bool hasLocalKey,
                                            std::string_view localKeyAlgorithm) {
  std::vector<std::uint16_t> offer;
  for (const CipherSuite& suite : kSuites) {
    const bool versionOffered = (features & (suite.IsTls13() ? kFeatureTls13 : kFeatureTls12)) != 0;
    if (!versionOffered || (hasLocalKey && !KeyServes(suite.authentication, localKeyAlgorithm))) continue;
    offer.push_back(suite.code);
  }
  return offer;
}

}  // namespace quenmark::tls
