#include "tls/primitives_detail.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/obj_mac.h>
#include <openssl/param_build.h>

namespace quenmark::tls {

using detail::PkeyContext;
using detail::PkeyPointer;

namespace {

using BigNumber = std::unique_ptr<BIGNUM, detail::Free<BN_clear_free>>;
using CurvePointer = std::unique_ptr<EC_GROUP, detail::Free<EC_GROUP_free>>;
using PointPointer = std::unique_ptr<EC_POINT, detail::Free<EC_POINT_free>>;
using Parameters = std::unique_ptr<OSSL_PARAM, detail::Free<OSSL_PARAM_free>>;
using ParameterBuilder = std::unique_ptr<OSSL_PARAM_BLD, detail::Free<OSSL_PARAM_BLD_free>>;

std::string CurveName(const Group& group) {
  return group.exchange == Exchange::kSecp256r1 ? "P-256" : "P-384";
}

[[noreturn]] void KeyPairFailed(const Group& group) {
  throw RaisedError{fmt::format("Failed generating key pair ({})", group.name), "pvTlsSetupExchGroup"};
}

// The public key of a private key on a curve, as an uncompressed point.
Bytes PublicPoint(const Group& group, const BIGNUM* scalar) {
  const CurvePointer curve(
      EC_GROUP_new_by_curve_name(group.exchange == Exchange::kSecp256r1 ? NID_X9_62_prime256v1 : NID_secp384r1));
  const PointPointer point(curve ? EC_POINT_new(curve.get()) : nullptr);
  Bytes encoded(group.publicKeySize);
  const bool done = point && EC_POINT_mul(curve.get(), point.get(), scalar, nullptr, nullptr, nullptr) == 1 &&
                    EC_POINT_point2oct(curve.get(), point.get(), POINT_CONVERSION_UNCOMPRESSED, encoded.data(),
                                       encoded.size(), nullptr) == encoded.size();
  if (!done) KeyPairFailed(group);
  return encoded;
}

PkeyPointer CurveKey(const Group& group, BytesView privateKey) {
  const BigNumber scalar(BN_bin2bn(privateKey.data(), static_cast<int>(privateKey.size()), nullptr));
  const ParameterBuilder builder(OSSL_PARAM_BLD_new());
  if (!scalar || !builder) KeyPairFailed(group);
  const Bytes point = PublicPoint(group, scalar.get());
  const std::string curve = CurveName(group);
  OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, curve.c_str(), 0);
  OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(), point.size());
  OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, scalar.get());
  const Parameters parameters(OSSL_PARAM_BLD_to_param(builder.get()));
  const PkeyContext context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
  EVP_PKEY* key = nullptr;
  if (!context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_KEYPAIR, parameters.get()) != 1) {
    KeyPairFailed(group);
  }
  return PkeyPointer(key);
}

Bytes EncodedPublicKey(EVP_PKEY* key) {
  unsigned char* encoded = nullptr;
  const std::size_t size = EVP_PKEY_get1_encoded_public_key(key, &encoded);
  const std::unique_ptr<unsigned char, decltype([](unsigned char* memory) { OPENSSL_free(memory); })> owner(encoded);
  return size == 0 ? Bytes{} : Bytes(encoded, encoded + size);
}

// Null when the bytes are no point of the curve.
PkeyPointer PeerKey(const Group& group, EVP_PKEY* own, BytesView peer) {
  if (group.exchange == Exchange::kX25519) {
    return PkeyPointer(EVP_PKEY_new_raw_public_key(EVP_PKEY_X25519, nullptr, peer.data(), peer.size()));
  }
  // Compressed and hybrid points have other sizes or another first byte; only uncompressed ones are TLS (RFC 8422
  // §5.4).
  if (peer[0] != POINT_CONVERSION_UNCOMPRESSED) return nullptr;
  PkeyPointer key(EVP_PKEY_new());
  if (!key || EVP_PKEY_copy_parameters(key.get(), own) != 1 ||
      EVP_PKEY_set1_encoded_public_key(key.get(), peer.data(), peer.size()) != 1) {
    return nullptr;
  }
  return key;
}

}  // namespace

struct KeyPair::State {
  State(const Group& itsGroup, PkeyPointer itsKey) : group(itsGroup), key(std::move(itsKey)) {
    if (key) publicKey = EncodedPublicKey(key.get());
    if (publicKey.size() != group.publicKeySize) KeyPairFailed(group);
  }

  const Group& group;
  PkeyPointer key;
  Bytes publicKey;
};

KeyPair::KeyPair() = default;
KeyPair::KeyPair(KeyPair&& other) noexcept = default;
KeyPair& KeyPair::operator=(KeyPair&& other) noexcept = default;
KeyPair::~KeyPair() = default;

KeyPair KeyPair::Generate(const Group& group) {
  KeyPair pair;
  EVP_PKEY* key = group.exchange == Exchange::kX25519
                      ? EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519")
                      : EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", CurveName(group).c_str());
  pair.m_state = std::make_unique<State>(group, PkeyPointer(key));
  return pair;
}

KeyPair KeyPair::FromPrivate(const Group& group, BytesView privateKey) {
  KeyPair pair;
  pair.m_state = std::make_unique<State>(
      group, group.exchange == Exchange::kX25519 ? PkeyPointer(EVP_PKEY_new_raw_private_key(
                                                       EVP_PKEY_X25519, nullptr, privateKey.data(), privateKey.size()))
                                                 : CurveKey(group, privateKey));
  return pair;
}

BytesView KeyPair::Public() const {
  return m_state->publicKey;
}

std::optional<SecretBytes> KeyPair::SharedSecret(BytesView peer) const {
  const Group& group = m_state->group;
  if (peer.size() != group.publicKeySize) return std::nullopt;
  const PkeyPointer peerKey = PeerKey(group, m_state->key.get(), peer);
  const PkeyContext context(peerKey ? EVP_PKEY_CTX_new_from_pkey(nullptr, m_state->key.get(), nullptr) : nullptr);
  SecretBytes secret(group.sharedSecretSize);
  std::size_t size = secret.Size();
  if (!context || EVP_PKEY_derive_init(context.get()) != 1 ||
      EVP_PKEY_derive_set_peer(context.get(), peerKey.get()) != 1 ||
      EVP_PKEY_derive(context.get(), secret.Mutable().data(), &size) != 1 || size != secret.Size()) {
    return std::nullopt;
  }
  // RFC 8446 §7.4.2: an all-zero secret comes from a key of small order.
  if (platform::ConstantTimeEqual(secret.View(), SecretBytes(secret.Size()).View())) return std::nullopt;
  return secret;
}

}  // namespace quenmark::tls
