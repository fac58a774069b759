#include "tls/keys.h"

#include "tls/certificate_library.h"

#include <openssl/core_names.h>
#include <openssl/pkcs12.h>

#include <array>

namespace quenmark::tls {

using detail::CallError;
using detail::PkeyPointer;

namespace {

using Pkcs8Pointer = std::unique_ptr<PKCS8_PRIV_KEY_INFO, detail::Free<PKCS8_PRIV_KEY_INFO_free>>;
using EncryptedPointer = std::unique_ptr<X509_SIG, detail::Free<X509_SIG_free>>;

constexpr int kWrapIterations = 2048;

}  // namespace

SecretBuffer pvPkiExportRsaPrivateKey(evp_pkey_st* key, CertificateError& error) {
  SecretBuffer der;
  const int kind = EVP_PKEY_get_base_id(key);
  if (kind == EVP_PKEY_RSA || kind == EVP_PKEY_RSA_PSS) {
    if (const Pkcs8Pointer info{EVP_PKEY2PKCS8(key)}) {
      der = detail::Encode<SecretBuffer, const PKCS8_PRIV_KEY_INFO*>(i2d_PKCS8_PRIV_KEY_INFO, info.get());
    }
  }
  if (der.empty()) error = CallError("CryptExportKey(PRIVATEKEYBLOB)", "pvPkiExportRsaPrivateKey");
  return der;
}

SecretBuffer pvPkiExportEccPrivateKey(evp_pkey_st* key, CertificateError& error) {
  std::array<char, 64> curve{};
  const bool known = EVP_PKEY_get_base_id(key) == EVP_PKEY_EC &&
                     EVP_PKEY_get_group_name(key, curve.data(), curve.size(), nullptr) == 1 &&
                     (std::string_view(curve.data()) == SN_X9_62_prime256v1 ||
                      std::string_view(curve.data()) == SN_secp384r1 || std::string_view(curve.data()) == SN_secp521r1);
  SecretBuffer der;
  if (known) der = detail::Encode<SecretBuffer, const EVP_PKEY*>(i2d_PrivateKey, key);
  if (der.empty()) error = CallError("NCryptExportKey(ECCPRIVATEBLOB)", "pvPkiExportEccPrivateKey");
  return der;
}

evp_pkey_st* pvPkiCloneKeyWithExportPolicy(evp_pkey_st* key, CertificateError& error) {
  std::array<std::uint8_t, 32> random{};
  pvTlsGetRandom(random);
  SecretBuffer password;  // the wrap takes it as text
  for (const std::uint8_t byte : random) password.push_back(static_cast<std::uint8_t>('A' + byte % 26));
  platform::WipeMemory(random.data(), random.size());
  const auto* text = reinterpret_cast<const char*>(password.data());
  const auto size = static_cast<int>(password.size());

  const Pkcs8Pointer info(EVP_PKEY2PKCS8(key));
  const EncryptedPointer wrapped(info ? PKCS8_encrypt(NID_pbe_WithSHA1And3_Key_TripleDES_CBC, nullptr, text, size,
                                                      nullptr, 0, kWrapIterations, info.get())
                                      : nullptr);
  if (!wrapped) {
    error = CallError("NCryptExportKey(PKCS8_PRIVATEKEY)", "pvPkiCloneKeyWithExportPolicy");
    return nullptr;
  }
  const Pkcs8Pointer opened(PKCS8_decrypt(wrapped.get(), text, size));
  EVP_PKEY* clone = opened ? EVP_PKCS82PKEY(opened.get()) : nullptr;
  if (clone == nullptr) error = CallError("NCryptImportKey(PKCS8_PRIVATEKEY)", "pvPkiCloneKeyWithExportPolicy");
  return clone;
}

SecretBuffer pvPkiExportPrivateKey(evp_pkey_st* key, CertificateError& error) {
  const auto exportKey = EVP_PKEY_get_base_id(key) == EVP_PKEY_EC ? pvPkiExportEccPrivateKey : pvPkiExportRsaPrivateKey;
  SecretBuffer der = exportKey(key, error);
  if (!der.empty()) return der;
  CertificateError cloneError;
  const PkeyPointer clone(pvPkiCloneKeyWithExportPolicy(key, cloneError));
  return clone ? exportKey(clone.get(), error) : SecretBuffer{};
}

void pvPkiAppendCertContext(const x509_st* certificate, std::vector<Bytes>& certificates) {
  Bytes der = detail::EncodeCertificate(certificate);
  if (!der.empty()) certificates.push_back(std::move(der));
}

}  // namespace quenmark::tls
