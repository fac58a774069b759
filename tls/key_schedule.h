// Key derivation of TLS 1.3 (RFC 8446 section 7, RFC 5869) and TLS 1.2 (RFC 5246 section 5). Pure functions.
#pragma once

#include "tls/cipher_suites.h"
#include "tls/primitives.h"

#include <array>
#include <cstdint>
#include <initializer_list>
#include <string_view>

namespace quenmark::tls {

SecretBytes HkdfExtract(Digest digest, BytesView salt, BytesView input);
// Fills `out`, at most 255 digests long.
void HkdfExpand(Digest digest, BytesView secret, BytesView info, std::span<std::uint8_t> out);
SecretBytes HkdfExpandLabel(Digest digest, BytesView secret, std::string_view label, BytesView context,
                            std::size_t length);

// TLS 1.3: early, handshake and master secret, each from the one before.
SecretBytes EarlySecret(Digest digest);
SecretBytes HandshakeSecret(Digest digest, BytesView sharedSecret);
SecretBytes MasterSecret(Digest digest, BytesView handshakeSecret);

struct TrafficKeys {
  SecretBytes key;
  SecretBytes iv;
};
TrafficKeys DeriveTrafficKeys(const CipherSuite& suite, BytesView trafficSecret);

// Verify data of a TLS 1.3 Finished.
SecretBytes FinishedVerifyData(Digest digest, BytesView trafficSecret, BytesView transcriptDigest);

// TLS 1.2 PRF into `out`.
void Prf(Digest digest, BytesView secret, std::string_view label, std::initializer_list<BytesView> seed,
         std::span<std::uint8_t> out);

// A TLS 1.2 key block cut up; `client` and `server` are the directions of writing.
struct LegacyKeys {
  struct Side {
    SecretBytes macKey;
    SecretBytes key;
    SecretBytes fixedIv;
  };
  Side client;
  Side server;
};
LegacyKeys DeriveLegacyKeys(const CipherSuite& suite, BytesView masterSecret, BytesView clientRandom,
                            BytesView serverRandom);

}  // namespace quenmark::tls
