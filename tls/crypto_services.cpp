#include "tls/crypto_services.h"

#include "tls/signature_schemes.h"

namespace quenmark::tls {

bool CryptoServices::VerifySignature(const PublicKey& key, const SignatureScheme& scheme, BytesView content,
                                     BytesView signature) {
  return key.Verify(scheme.padding, scheme.digest, content, signature);
}

CryptoServices& SystemCrypto() {
  static CryptoServices services;
  return services;
}

}  // namespace quenmark::tls
