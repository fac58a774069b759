// libssl's side of the TLS benchmarks: one suite, one group, a P-256 certificate, no tickets, no checks.
#pragma once

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <stdexcept>

namespace quenmark::bench {

inline void Require(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

inline SSL_CTX* MakeContext(bool server, int version) {
  SSL_CTX* context = SSL_CTX_new(server ? TLS_server_method() : TLS_client_method());
  SSL_CTX_set_min_proto_version(context, version);
  SSL_CTX_set_max_proto_version(context, version);
  SSL_CTX_set_ciphersuites(context, "TLS_AES_128_GCM_SHA256");
  SSL_CTX_set_cipher_list(context, "ECDHE-ECDSA-AES128-GCM-SHA256");
  SSL_CTX_set1_groups_list(context, "X25519:P-256");
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(context, 0);
  SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
  if (!server) return context;
  EVP_PKEY* key = EVP_EC_gen("P-256");
  X509* certificate = X509_new();
  X509_set_version(certificate, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
  X509_gmtime_adj(X509_getm_notAfter(certificate), 86400);
  X509_set_pubkey(certificate, key);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
  X509_set_issuer_name(certificate, X509_get_subject_name(certificate));
  X509_sign(certificate, key, EVP_sha256());
  Require(SSL_CTX_use_certificate(context, certificate) == 1 && SSL_CTX_use_PrivateKey(context, key) == 1, "identity");
  X509_free(certificate);
  EVP_PKEY_free(key);
  return context;
}

}  // namespace quenmark::bench
