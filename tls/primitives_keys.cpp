#include "platform/byte_cursor.h"
#include "tls/cipher_suites.h"
#include "tls/primitives_detail.h"

#include <openssl/core_names.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace quenmark::tls {

using detail::DigestContext;
using detail::PkeyContext;
using detail::PkeyPointer;

namespace {

using CertificatePointer = std::unique_ptr<X509, detail::Free<X509_free>>;
using Pkcs8Pointer = std::unique_ptr<PKCS8_PRIV_KEY_INFO, detail::Free<PKCS8_PRIV_KEY_INFO_free>>;

constexpr std::size_t kPreMasterSize = 48;
constexpr std::uint8_t kDerSequence = 0x30;
constexpr std::uint8_t kDerInteger = 0x02;

std::string_view CurveOid(std::string_view name) {
  if (name == SN_X9_62_prime256v1) return oid::kSecp256r1;
  if (name == SN_secp384r1) return oid::kSecp384r1;
  if (name == SN_secp521r1) return oid::kSecp521r1;
  return {};
}

std::string_view KeyCurve(EVP_PKEY* key) {
  std::array<char, 64> name{};
  if (EVP_PKEY_get_group_name(key, name.data(), name.size(), nullptr) != 1) return {};
  return CurveOid(name.data());
}

std::string AlgorithmText(const ASN1_OBJECT* object) {
  std::array<char, 128> text{};
  return OBJ_obj2txt(text.data(), static_cast<int>(text.size()), object, 1) > 0 ? text.data() : "";
}

bool SetPadding(EVP_PKEY_CTX* context, Padding padding) {
  switch (padding) {
    case Padding::kNone:
      return true;
    case Padding::kPkcs1:
      return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) == 1;
    case Padding::kPss:
      return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) == 1 &&
             EVP_PKEY_CTX_set_rsa_pss_saltlen(context, RSA_PSS_SALTLEN_DIGEST) == 1;
  }
  return false;
}

// SEQUENCE { INTEGER ... }: what every plain private-key format begins with. An encrypted one does not; the library
// would ask the terminal for its password.
bool LooksLikePlainKey(BytesView der) {
  platform::ByteReader reader(der);
  if (reader.U8() != kDerSequence) return false;
  const std::uint8_t length = reader.U8();
  if (length > 0x80) reader.Take(length & 0x7F);
  return reader.U8() == kDerInteger && reader.Ok();
}

PkeyPointer DecodePlainKey(BytesView der) {
  const unsigned char* position = der.data();
  const auto size = static_cast<long>(der.size());
  if (const Pkcs8Pointer info{d2i_PKCS8_PRIV_KEY_INFO(nullptr, &position, size)}) {
    return PkeyPointer(EVP_PKCS82PKEY(info.get()));
  }
  for (const int type : {EVP_PKEY_RSA, EVP_PKEY_EC}) {
    position = der.data();
    if (PkeyPointer key{d2i_PrivateKey(type, nullptr, &position, size)}) return key;
  }
  return nullptr;
}

}  // namespace

struct PublicKey::State {
  CertificatePointer certificate;
  EVP_PKEY* key = nullptr;  // the certificate's
  std::string algorithm;
  std::string curve;
  std::size_t coordinateSize = 0;
};

PublicKey::PublicKey(std::unique_ptr<State> state) : m_state(std::move(state)) {}
PublicKey::PublicKey(PublicKey&& other) noexcept = default;
PublicKey& PublicKey::operator=(PublicKey&& other) noexcept = default;
PublicKey::~PublicKey() = default;

std::optional<PublicKey> PublicKey::FromCertificate(BytesView certificate) {
  auto state = std::make_unique<State>();
  const unsigned char* position = certificate.data();
  state->certificate.reset(d2i_X509(nullptr, &position, static_cast<long>(certificate.size())));
  if (!state->certificate || position != certificate.data() + certificate.size()) return std::nullopt;
  state->key = X509_get0_pubkey(state->certificate.get());
  X509_ALGOR* identifier = nullptr;
  if (state->key == nullptr || X509_PUBKEY_get0_param(nullptr, nullptr, nullptr, &identifier,
                                                      X509_get_X509_PUBKEY(state->certificate.get())) != 1) {
    return std::nullopt;
  }
  const ASN1_OBJECT* algorithm = nullptr;
  const void* parameter = nullptr;
  int parameterType = 0;
  X509_ALGOR_get0(&algorithm, &parameterType, &parameter, identifier);
  state->algorithm = AlgorithmText(algorithm);
  if (EVP_PKEY_get_base_id(state->key) == EVP_PKEY_EC) {
    state->coordinateSize = static_cast<std::size_t>(EVP_PKEY_get_bits(state->key) + 7) / 8;
    if (parameterType == V_ASN1_OBJECT) state->curve = AlgorithmText(static_cast<const ASN1_OBJECT*>(parameter));
  }
  return PublicKey(std::move(state));
}

const std::string& PublicKey::Algorithm() const {
  return m_state->algorithm;
}
std::size_t PublicKey::CoordinateSize() const {
  return m_state->coordinateSize;
}
const std::string& PublicKey::Curve() const {
  return m_state->curve;
}

bool PublicKey::Verify(Padding padding, Digest digest, BytesView content, BytesView signature) const {
  const DigestContext context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* options = nullptr;
  const EVP_MD* algorithm = detail::FetchedDigest(digest);
  return context && algorithm != nullptr &&
         EVP_DigestVerifyInit_ex(context.get(), &options, EVP_MD_get0_name(algorithm), nullptr, nullptr, m_state->key,
                                 nullptr) == 1 &&
         SetPadding(options, padding) &&
         EVP_DigestVerify(context.get(), signature.data(), signature.size(), content.data(), content.size()) == 1;
}

std::optional<Bytes> PublicKey::EncryptPkcs1(BytesView secret) const {
  const PkeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, m_state->key, nullptr));
  Bytes encrypted(static_cast<std::size_t>(std::max(EVP_PKEY_get_size(m_state->key), 0)));
  std::size_t size = encrypted.size();
  if (!context || EVP_PKEY_encrypt_init(context.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) != 1 ||
      EVP_PKEY_encrypt(context.get(), encrypted.data(), &size, secret.data(), secret.size()) != 1) {
    return std::nullopt;
  }
  encrypted.resize(size);
  return encrypted;
}

struct PrivateKey::State {
  PkeyPointer key;
  std::string algorithm;
};

PrivateKey::PrivateKey(std::unique_ptr<State> state) : m_state(std::move(state)) {}
PrivateKey::PrivateKey(PrivateKey&& other) noexcept = default;
PrivateKey& PrivateKey::operator=(PrivateKey&& other) noexcept = default;
PrivateKey::~PrivateKey() = default;

std::optional<PrivateKey> PrivateKey::Decode(BytesView der) {
  if (!LooksLikePlainKey(der)) return std::nullopt;
  auto state = std::make_unique<State>();
  state->key = DecodePlainKey(der);
  if (!state->key) return std::nullopt;
  switch (EVP_PKEY_get_base_id(state->key.get())) {
    case EVP_PKEY_RSA:
      state->algorithm = oid::kRsa;
      break;
    case EVP_PKEY_RSA_PSS:
      state->algorithm = oid::kRsaPss;
      break;
    case EVP_PKEY_EC:
      state->algorithm = KeyCurve(state->key.get());
      break;
    default:
      break;
  }
  if (state->algorithm.empty()) return std::nullopt;
  return PrivateKey(std::move(state));
}

const std::string& PrivateKey::Algorithm() const {
  return m_state->algorithm;
}

std::size_t PrivateKey::ModulusSize() const {
  return static_cast<std::size_t>(EVP_PKEY_get_bits(m_state->key.get()) + 7) / 8;
}

std::optional<Bytes> PrivateKey::Sign(Padding padding, Digest digest, BytesView content) const {
  const DigestContext context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* options = nullptr;
  const EVP_MD* algorithm = detail::FetchedDigest(digest);
  Bytes signature(static_cast<std::size_t>(std::max(EVP_PKEY_get_size(m_state->key.get()), 0)));
  std::size_t size = signature.size();
  if (!context || algorithm == nullptr ||
      EVP_DigestSignInit_ex(context.get(), &options, EVP_MD_get0_name(algorithm), nullptr, nullptr, m_state->key.get(),
                            nullptr) != 1 ||
      !SetPadding(options, padding) ||
      EVP_DigestSign(context.get(), signature.data(), &size, content.data(), content.size()) != 1) {
    return std::nullopt;
  }
  signature.resize(size);
  return signature;
}

SecretBytes PrivateKey::DecryptPreMaster(BytesView encrypted) const {
  SecretBytes secret(kPreMasterSize);
  pvTlsGetRandom(secret.Mutable());
  const PkeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, m_state->key.get(), nullptr));
  unsigned int version = kVersionTls12;
  const OSSL_PARAM parameters[] = {OSSL_PARAM_construct_uint(OSSL_ASYM_CIPHER_PARAM_TLS_CLIENT_VERSION, &version),
                                   OSSL_PARAM_construct_end()};
  if (!context || EVP_PKEY_decrypt_init(context.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_WITH_TLS_PADDING) != 1 ||
      EVP_PKEY_CTX_set_params(context.get(), parameters) != 1) {
    throw RaisedError{"Unsupported private key", "pvTlsSetupExchRsaPreMasterSecret"};
  }
  SecretBytes decrypted(kPreMasterSize);
  std::size_t size = decrypted.Size();
  if (EVP_PKEY_decrypt(context.get(), decrypted.Mutable().data(), &size, encrypted.data(), encrypted.size()) == 1 &&
      size == kPreMasterSize) {
    return decrypted;
  }
  return secret;
}

}  // namespace quenmark::tls
