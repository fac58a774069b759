#include "tests/tls/test_keys.h"

#include <fmt/format.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <map>
#include <stdexcept>

namespace quenmark::test {

namespace {

struct Kind {
  const char* name;  // of the curve too, where it is one
  const char* algorithm;
  int bits;
};
// In the order of KeyKind.
constexpr Kind kKinds[] = {{"P-256", "EC", 0},          {"P-384", "EC", 0},           {"RSA 2048", "RSA", 2048},
                           {"RSA 4096", "RSA", 4096},   {"RSA-PSS", "RSA-PSS", 2048}, {"secp256k1", "EC", 0},
                           {"brainpoolP256r1", "EC", 0}};

EVP_PKEY* MakeKey(const Kind& kind) {
  EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_from_name(nullptr, kind.algorithm, nullptr);
  EVP_PKEY_keygen_init(context);
  if (kind.bits == 0) {
    EVP_PKEY_CTX_set_group_name(context, kind.name);
  } else {
    EVP_PKEY_CTX_set_rsa_keygen_bits(context, kind.bits);
  }
  EVP_PKEY* key = nullptr;
  EVP_PKEY_keygen(context, &key);
  EVP_PKEY_CTX_free(context);
  return key;
}

template <typename Object>
tls::Bytes Der(int (*encode)(const Object*, unsigned char**), const Object* object) {
  tls::Bytes der(static_cast<std::size_t>(encode(object, nullptr)));
  unsigned char* at = der.data();
  encode(object, &at);
  return der;
}

std::string Pem(const char* name, const tls::Bytes& der) {
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio(bio, name, "", der.data(), static_cast<long>(der.size()));
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio, &data);
  const std::string text(data, static_cast<std::size_t>(size));
  BIO_free(bio);
  return text;
}

Identity Make(const Kind& kind) {
  EVP_PKEY* key = MakeKey(kind);
  X509* certificate = X509_new();
  X509_set_version(certificate, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate), -86400);
  X509_gmtime_adj(X509_getm_notAfter(certificate), 86400L * 365);
  X509_set_pubkey(certificate, key);
  X509_NAME* name = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
  X509_set_issuer_name(certificate, name);
  X509_EXTENSION* names = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "DNS:localhost");
  X509_add_ext(certificate, names, -1);
  X509_EXTENSION_free(names);
  if (X509_sign(certificate, key, EVP_sha256()) == 0) throw std::runtime_error("no certificate");
  PKCS8_PRIV_KEY_INFO* info = EVP_PKEY2PKCS8(key);
  Identity identity{Der<X509>(i2d_X509, certificate), Der<PKCS8_PRIV_KEY_INFO>(i2d_PKCS8_PRIV_KEY_INFO, info), {}, {}};
  identity.certificatePem = Pem("CERTIFICATE", identity.certificate);
  identity.privateKeyPem = Pem("PRIVATE KEY", identity.privateKey);
  PKCS8_PRIV_KEY_INFO_free(info);
  X509_free(certificate);
  EVP_PKEY_free(key);
  return identity;
}

const Kind& KindOf(KeyKind kind) {
  return kKinds[static_cast<std::size_t>(kind)];
}

}  // namespace

const Identity& IdentityOf(KeyKind kind) {
  static std::map<KeyKind, Identity> made;
  const auto found = made.find(kind);
  return found != made.end() ? found->second : made.emplace(kind, Make(KindOf(kind))).first->second;
}

std::string KindName(KeyKind kind) {
  return KindOf(kind).name;
}

tls::Bytes FromHex(std::string text) {
  std::erase(text, ' ');
  tls::Bytes bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

std::string ToHex(tls::BytesView bytes) {
  return fmt::format("{:02x}", fmt::join(bytes, ""));
}

}  // namespace quenmark::test
