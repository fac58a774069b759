// The signature schemes, and signatures made and checked by scheme code.
#pragma once

#include "tls/cipher_suites.h"
#include "tls/error.h"
#include "tls/primitives.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace quenmark::tls {

class CryptoServices;

struct SignatureScheme {
  std::uint16_t code;
  Padding padding;
  Digest digest;
  std::string_view signingKey;  // algorithm a local key needs to produce it; empty: never produced
  bool tls13;                   // allowed in a TLS 1.3 CertificateVerify (RFC 8446 §4.2.3)
};

// In the order in which a client offers them.
// clang-format off
constexpr std::array<SignatureScheme, 14> kSignatureSchemes{{
    {0x0403, Padding::kNone,  Digest::kSha256, oid::kSecp256r1, true},
    {0x0503, Padding::kNone,  Digest::kSha384, oid::kSecp384r1, true},
    {0x0804, Padding::kPss,   Digest::kSha256, oid::kRsa,       true},
    {0x0805, Padding::kPss,   Digest::kSha384, oid::kRsa,       true},
    {0x0806, Padding::kPss,   Digest::kSha512, oid::kRsa,       true},
    {0x0809, Padding::kPss,   Digest::kSha256, oid::kRsaPss,    true},
    {0x080A, Padding::kPss,   Digest::kSha384, oid::kRsaPss,    true},
    {0x080B, Padding::kPss,   Digest::kSha512, oid::kRsaPss,    true},
    {0x0301, Padding::kPkcs1, Digest::kSha224, oid::kRsa,       false},
    {0x0401, Padding::kPkcs1, Digest::kSha256, oid::kRsa,       false},
    {0x0501, Padding::kPkcs1, Digest::kSha384, oid::kRsa,       false},
    {0x0601, Padding::kPkcs1, Digest::kSha512, oid::kRsa,       false},
    {0x0201, Padding::kPkcs1, Digest::kSha1,   oid::kRsa,       false},
    {0x0203, Padding::kNone,  Digest::kSha1,   {},              false},
}};
// clang-format on

const SignatureScheme* FindSignatureScheme(std::uint16_t code);

// The first scheme of the peer's list that the key can produce, null when there is none. PKCS#1 v1.5 only when allowed.
const SignatureScheme* ChooseSignatureScheme(std::span<const std::uint16_t> peerSchemes, const PrivateKey& key,
                                             bool pkcs1Allowed);

// What a signature is checked against besides its bytes.
struct SignatureRules {
  bool tls13 = false;
  Authentication authentication = Authentication::kAny;  // of a TLS 1.2 suite
};

// Checks a signature with the key of a DER certificate. Nothing when it holds, otherwise what to tell the peer.
[[nodiscard]] std::optional<ProtocolFailure> pvTlsSignatureVerify(CryptoServices& services, BytesView certificate,
                                                                  std::uint16_t scheme, const SignatureRules& rules,
                                                                  BytesView content, BytesView signature);

// Signs with a DER private key. Raises "Missing server private key", "Unsupported private key", "Unsupported signature
// scheme (code)" or "Certificate signature failed (scheme)".
Bytes pvTlsSignatureSign(BytesView privateKey, std::uint16_t scheme, BytesView content);

}  // namespace quenmark::tls
