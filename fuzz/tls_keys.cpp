// Certificates and private keys in DER.
#include "tls/primitives.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quenmark::tls;
  const BytesView input(data, size);
  const Bytes signature(71, 0x30);
  if (const auto key = PublicKey::FromCertificate(input)) {
    for (const Padding padding : {Padding::kNone, Padding::kPkcs1, Padding::kPss}) {
      if (key->Verify(padding, Digest::kSha256, input.first(1), signature)) return 0;
    }
    static_cast<void>(key->EncryptPkcs1(Bytes(48, 3)));
  }
  if (const auto key = PrivateKey::Decode(input)) {
    if (key->Algorithm().empty()) __builtin_trap();
    static_cast<void>(key->ModulusSize());
  }
  return 0;
}
