// The engine's seam to randomness and cryptography. Production uses SystemCrypto(); a test injects the random values
// and keys of a published trace, a fuzzer takes protection away.
#pragma once

#include "tls/primitives.h"

#include <cstdint>
#include <memory>

namespace quenmark::tls {

struct SignatureScheme;

class CryptoServices {
 public:
  virtual ~CryptoServices() = default;

  virtual void Random(std::span<std::uint8_t> out) { pvTlsGetRandom(out); }
  virtual KeyPair MakeKeyPair(const Group& group) { return KeyPair::Generate(group); }
  virtual std::unique_ptr<BulkCipher> MakeCipher(Bulk bulk, BytesView key, CipherUse use) {
    return MakeBulkCipher(bulk, key, use);
  }
  // The comparison of received verify data and MACs.
  virtual bool SecretsEqual(BytesView left, BytesView right) { return platform::ConstantTimeEqual(left, right); }
  virtual bool VerifySignature(const PublicKey& key, const SignatureScheme& scheme, BytesView content,
                               BytesView signature);
};

// Stateless; shared by all contexts.
CryptoServices& SystemCrypto();

}  // namespace quenmark::tls
