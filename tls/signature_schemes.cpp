#include "tls/signature_schemes.h"

#include "tls/crypto_services.h"
#include "tls/names.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>

namespace quenmark::tls {

namespace {

std::string Unsupported(std::uint16_t scheme) {
  return fmt::format("Unsupported signature scheme ({})", Hexadecimal(scheme));
}

// The key must be of the kind the scheme and the suite name.
std::optional<ProtocolFailure> KeyMismatch(const SignatureScheme& scheme, const PublicKey& key,
                                           const SignatureRules& rules) {
  const bool ecdsa = scheme.padding == Padding::kNone;
  const std::string_view wanted = ecdsa ? oid::kEcPublicKey : scheme.signingKey;
  const bool suiteFits =
      rules.authentication == Authentication::kAny || (rules.authentication == Authentication::kEcdsa) == ecdsa;
  const auto unsupported = [](std::string_view identifier) {
    return ProtocolFailure{fmt::format("Unsupported public key OID ({})", identifier), alert::kHandshakeFailure};
  };
  if (key.Algorithm() != wanted || !suiteFits) return unsupported(key.Algorithm());
  if (!ecdsa) return std::nullopt;
  // Other curves have coordinates of the same sizes, and no code point of these schemes (RFC 8446 §4.2.3).
  const std::string& curve = key.Curve();
  if (curve != oid::kSecp256r1 && curve != oid::kSecp384r1 && curve != oid::kSecp521r1) {
    return unsupported(curve.empty() ? key.Algorithm() : curve);
  }
  // TLS 1.3 binds the curve to the scheme, TLS 1.2 does not.
  const std::size_t size = key.CoordinateSize();
  const bool sizeFits = rules.tls13 ? size == DigestSize(scheme.digest) : size == 32 || size == 48;
  if (!sizeFits) {
    return ProtocolFailure{fmt::format("Unsupported curve size ({})", size), alert::kHandshakeFailure};
  }
  return std::nullopt;
}

}  // namespace

const SignatureScheme* FindSignatureScheme(std::uint16_t code) {
  const auto found = std::find_if(kSignatureSchemes.begin(), kSignatureSchemes.end(),
                                  [&](const SignatureScheme& scheme) { return scheme.code == code; });
  return found == kSignatureSchemes.end() ? nullptr : &*found;
}

const SignatureScheme* ChooseSignatureScheme(std::span<const std::uint16_t> peerSchemes, const PrivateKey& key,
                                             bool pkcs1Allowed) {
  for (const std::uint16_t code : peerSchemes) {
    const SignatureScheme* scheme = FindSignatureScheme(code);
    if (scheme == nullptr || scheme->signingKey.empty() || scheme->signingKey != key.Algorithm()) continue;
    if (scheme->padding == Padding::kPkcs1 && !pkcs1Allowed) continue;
    if (scheme->padding == Padding::kPss && key.ModulusSize() <= 2 * DigestSize(scheme->digest) + 2) continue;
    return scheme;
  }
  return nullptr;
}

std::optional<ProtocolFailure> pvTlsSignatureVerify(CryptoServices& services, BytesView certificate,
                                                    std::uint16_t scheme, const SignatureRules& rules,
                                                    BytesView content, BytesView signature) {
  const auto key = PublicKey::FromCertificate(certificate);
  if (!key) return ProtocolFailure{"Unsupported certificate", alert::kHandshakeFailure};
  const SignatureScheme* row = FindSignatureScheme(scheme);
  if (row == nullptr) return ProtocolFailure{Unsupported(scheme), alert::kHandshakeFailure};
  if (rules.tls13 && !row->tls13) return ProtocolFailure{Unsupported(scheme), alert::kIllegalParameter};
  if (auto mismatch = KeyMismatch(*row, *key, rules)) return mismatch;
  if (!services.VerifySignature(*key, *row, content, signature)) {
    return ProtocolFailure{"Invalid certificate signature", alert::kHandshakeFailure};
  }
  return std::nullopt;
}

Bytes pvTlsSignatureSign(BytesView privateKey, std::uint16_t scheme, BytesView content) {
  const auto fail = [](std::string description) { throw RaisedError{std::move(description), "pvTlsSignatureSign"}; };
  if (privateKey.empty()) fail("Missing server private key");
  const auto key = PrivateKey::Decode(privateKey);
  if (!key) fail("Unsupported private key");
  const SignatureScheme* row = FindSignatureScheme(scheme);
  if (row == nullptr || row->signingKey.empty()) fail(Unsupported(scheme));
  auto signature = key->Sign(row->padding, row->digest, content);
  if (!signature) fail(fmt::format("Certificate signature failed ({})", SignatureSchemeName(scheme)));
  return std::move(*signature);
}

}  // namespace quenmark::tls
