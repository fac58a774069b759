#include "tests/tls/test_keys.h"

#include <fmt/format.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <map>
#include <memory>
#include <stdexcept>

namespace quenmark::test {

namespace {

EVP_PKEY* MakeKey(KeyKind kind) {
  switch (kind) {
    case KeyKind::kP256:
      return EVP_EC_gen("P-256");
    case KeyKind::kP384:
      return EVP_EC_gen("P-384");
    case KeyKind::kSecp256k1:
      return EVP_EC_gen("secp256k1");
    case KeyKind::kBrainpool256:
      return EVP_EC_gen("brainpoolP256r1");
    case KeyKind::kRsa2048:
      return EVP_RSA_gen(2048);
    case KeyKind::kRsa4096:
      return EVP_RSA_gen(4096);
    case KeyKind::kRsaPss: {
      const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
          EVP_PKEY_CTX_new_from_name(nullptr, "RSA-PSS", nullptr), &EVP_PKEY_CTX_free);
      EVP_PKEY* key = nullptr;
      EVP_PKEY_keygen_init(context.get());
      EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), 2048);
      EVP_PKEY_keygen(context.get(), &key);
      return key;
    }
  }
  return nullptr;
}

std::string Text(BIO* bio) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio, &data);
  std::string text(data, static_cast<std::size_t>(size));
  BIO_free(bio);
  return text;
}

Identity Make(KeyKind kind) {
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

  Identity identity;
  unsigned char* der = nullptr;
  int size = i2d_X509(certificate, &der);
  identity.certificate.assign(der, der + size);
  OPENSSL_free(der);
  PKCS8_PRIV_KEY_INFO* info = EVP_PKEY2PKCS8(key);
  der = nullptr;
  size = i2d_PKCS8_PRIV_KEY_INFO(info, &der);
  identity.privateKey.assign(der, der + size);
  OPENSSL_free(der);
  PKCS8_PRIV_KEY_INFO_free(info);
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_X509(bio, certificate);
  identity.certificatePem = Text(bio);
  bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PKCS8PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
  identity.privateKeyPem = Text(bio);
  X509_free(certificate);
  EVP_PKEY_free(key);
  return identity;
}

}  // namespace

const Identity& IdentityOf(KeyKind kind) {
  static std::map<KeyKind, Identity> made;
  const auto found = made.find(kind);
  return found != made.end() ? found->second : made.emplace(kind, Make(kind)).first->second;
}

std::string KindName(KeyKind kind) {
  switch (kind) {
    case KeyKind::kP256:
      return "P-256";
    case KeyKind::kP384:
      return "P-384";
    case KeyKind::kRsa2048:
      return "RSA 2048";
    case KeyKind::kRsa4096:
      return "RSA 4096";
    case KeyKind::kRsaPss:
      return "RSA-PSS";
    case KeyKind::kSecp256k1:
      return "secp256k1";
    case KeyKind::kBrainpool256:
      return "brainpoolP256r1";
  }
  return "";
}

tls::Bytes FromHex(const std::string& text) {
  std::string digits;
  for (const char c : text) {
    if (isxdigit(static_cast<unsigned char>(c)) != 0) digits += c;
  }
  tls::Bytes bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

std::string ToHex(tls::BytesView bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

}  // namespace quenmark::test
