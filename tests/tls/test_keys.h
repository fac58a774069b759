// Keys and self-signed certificates for tests, made once per kind and process.
#pragma once

#include "tls/algorithms.h"

#include <string>

namespace quenmark::test {

enum class KeyKind { kP256, kP384, kRsa2048, kRsa4096, kRsaPss, kSecp256k1, kBrainpool256 };

struct Identity {
  tls::Bytes certificate;  // DER
  tls::Bytes privateKey;   // DER, PKCS#8
  std::string certificatePem;
  std::string privateKeyPem;
};

const Identity& IdentityOf(KeyKind kind);
std::string KindName(KeyKind kind);

// "0a1b" (blanks ignored) to bytes and back.
tls::Bytes FromHex(std::string text);
std::string ToHex(tls::BytesView bytes);

}  // namespace quenmark::test
