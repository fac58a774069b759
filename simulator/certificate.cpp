#include "simulator/certificate.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace quenmark::simulator {
namespace {

template <auto Free>
struct Freed {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};
using Key = std::unique_ptr<EVP_PKEY, Freed<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Freed<X509_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Freed<X509_EXTENSION_free>>;
using Bio = std::unique_ptr<BIO, Freed<BIO_free_all>>;

void Require(bool done) {
  if (!done) throw std::runtime_error("cannot make a certificate");
}

struct ExtensionRow {
  int name;
  std::string value;
};

void Extend(X509* certificate, X509* issuer, const ExtensionRow& row) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509V3_set_ctx_nodb(&context);
  const Extension extension{X509V3_EXT_conf_nid(nullptr, &context, row.name, row.value.c_str())};
  Require(extension && X509_add_ext(certificate, extension.get(), -1) == 1);
}

// A certificate for `key` without extensions; it names `issuer`, or itself when that is null.
Certificate Blank(EVP_PKEY* key, const std::string& name, X509* issuer, const CertificateOptions& options) {
  Certificate certificate{X509_new()};
  Require(certificate != nullptr);
  X509* raw = certificate.get();
  std::array<unsigned char, 16> serial{};
  Require(RAND_bytes(serial.data(), static_cast<int>(serial.size())) == 1);
  serial[0] &= 0x7FU;
  const std::unique_ptr<BIGNUM, Freed<BN_free>> number{
      BN_bin2bn(serial.data(), static_cast<int>(serial.size()), nullptr)};
  Require(number && BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(raw)) != nullptr);
  const auto seconds = [](std::chrono::hours time) { return static_cast<long>(std::chrono::seconds{time}.count()); };
  X509_NAME* subject = X509_get_subject_name(raw);
  const auto* text = reinterpret_cast<const unsigned char*>(name.c_str());
  Require(X509_set_version(raw, 2) == 1 && X509_gmtime_adj(X509_getm_notBefore(raw), seconds(options.notBefore)) &&
          X509_gmtime_adj(X509_getm_notAfter(raw), seconds(options.notAfter)) && X509_set_pubkey(raw, key) == 1 &&
          X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8, text, -1, -1, 0) == 1 &&
          X509_set_issuer_name(raw, issuer == nullptr ? subject : X509_get_subject_name(issuer)) == 1);
  return certificate;
}

std::string Contents(BIO* bio) {
  char* begin = nullptr;
  const long size = BIO_get_mem_data(bio, &begin);
  return {begin, static_cast<std::size_t>(size)};
}

std::string Pem(X509* certificate) {
  const Bio bio{BIO_new(BIO_s_mem())};
  Require(bio && PEM_write_bio_X509(bio.get(), certificate) == 1);
  return Contents(bio.get());
}

std::string Pem(EVP_PKEY* key) {
  const Bio bio{BIO_new(BIO_s_mem())};
  Require(bio && PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1);
  return Contents(bio.get());
}

}  // namespace

struct Authority::State {
  Key key;
  Certificate certificate;
};

Authority::Authority() : m_state(std::make_unique<State>()) {
  m_state->key.reset(EVP_EC_gen("P-256"));
  Require(m_state->key != nullptr);
  m_state->certificate = Blank(m_state->key.get(), "Market simulator authority", nullptr, CertificateOptions{});
  X509* raw = m_state->certificate.get();
  for (const ExtensionRow& row : {ExtensionRow{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"},
                                  ExtensionRow{NID_key_usage, "critical,keyCertSign,cRLSign"},
                                  ExtensionRow{NID_subject_key_identifier, "hash"}}) {
    Extend(raw, raw, row);
  }
  Require(X509_sign(raw, m_state->key.get(), EVP_sha256()) > 0);
}

Authority::~Authority() = default;

std::string Authority::Pem() const {
  return simulator::Pem(m_state->certificate.get());
}

ServerCertificate Authority::Sign(const CertificateOptions& options) const {
  const Key key{EVP_EC_gen("P-256")};
  Require(key != nullptr);
  X509* issuer = m_state->certificate.get();
  const Certificate server = Blank(key.get(), options.dnsName, issuer, options);
  for (const ExtensionRow& row :
       {ExtensionRow{NID_basic_constraints, "critical,CA:FALSE"},
        ExtensionRow{NID_key_usage, "critical,digitalSignature"}, ExtensionRow{NID_ext_key_usage, "serverAuth"},
        ExtensionRow{NID_subject_alt_name, "DNS:" + options.dnsName + ",IP:" + options.address},
        ExtensionRow{NID_subject_key_identifier, "hash"}, ExtensionRow{NID_authority_key_identifier, "keyid"}}) {
    Extend(server.get(), issuer, row);
  }
  Require(X509_sign(server.get(), m_state->key.get(), EVP_sha256()) > 0);
  return {simulator::Pem(server.get()), simulator::Pem(key.get())};
}

}  // namespace quenmark::simulator
