#include "tests/support/certificate.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <utility>

namespace quenmark::test {
namespace {

void WritePem(const std::string& path, EVP_PKEY* key, X509* certificate) {
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "w"), &std::fclose);
  if (!file) throw std::runtime_error("no file " + path);
  if (key != nullptr) PEM_write_PrivateKey(file.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
  PEM_write_X509(file.get(), certificate);
}

}  // namespace

void MakeCertificate(const std::string& both, const std::string& alone) {
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
  const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), &X509_free);
  X509_set_version(certificate.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 24 * 3600);
  X509_set_pubkey(certificate.get(), key.get());
  X509_NAME* const name = X509_get_subject_name(certificate.get());
  const auto* text = reinterpret_cast<const unsigned char*>("localhost");
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, text, -1, -1, 0);
  X509_set_issuer_name(certificate.get(), name);
  for (const auto& [kind, value] :
       {std::pair{NID_subject_alt_name, "DNS:localhost"}, std::pair{NID_basic_constraints, "critical,CA:TRUE"}}) {
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value);
    X509_add_ext(certificate.get(), extension, -1);
    X509_EXTENSION_free(extension);
  }
  X509_sign(certificate.get(), key.get(), EVP_sha256());
  WritePem(both, key.get(), certificate.get());
  WritePem(alone, nullptr, certificate.get());
}

}  // namespace quenmark::test
