// Private keys brought out of the library as the engine reads them, and the certificates beside them.
#pragma once

#include "platform/secret_bytes.h"
#include "tls/algorithms.h"
#include "tls/peer_validation.h"

#include <string>
#include <string_view>
#include <vector>

struct evp_pkey_st;  // the library's key and certificate
struct x509_st;

namespace quenmark::tls {

using platform::SecretBuffer;

// Each gives an empty buffer on failure and fills `error` with the failing call.

// RSA keys as PKCS#8, NIST curves as ECPrivateKey; other keys fail. A key that does not give its bytes is tried again
// as a copy that may be exported.
SecretBuffer pvPkiExportPrivateKey(evp_pkey_st* key, CertificateError& error);
// PKCS#8 with algorithm 1.2.840.113549.1.1.1, or 1.2.840.113549.1.1.10 for an RSA-PSS key (RFC 5208, RFC 4055).
SecretBuffer pvPkiExportRsaPrivateKey(evp_pkey_st* key, CertificateError& error);
// ECPrivateKey (RFC 5915) for P-256, P-384 and P-521.
SecretBuffer pvPkiExportEccPrivateKey(evp_pkey_st* key, CertificateError& error);
// A copy of the key through a PKCS#8 wrap (1.2.840.113549.1.12.1.3) under a random password; null on failure. The
// caller frees it.
evp_pkey_st* pvPkiCloneKeyWithExportPolicy(evp_pkey_st* key, CertificateError& error);
// Appends the certificate's bytes.
void pvPkiAppendCertContext(const x509_st* certificate, std::vector<Bytes>& certificates);

// The routines below answer false on failure, `error` filled and the outputs left as they were.

bool pvPkiPemImportCertificates(std::string_view fileNames, Identity& identity, CertificateError& error);
bool pvPkiPkcs12ImportCertificates(std::string_view fileName, std::string_view password, Identity& identity,
                                   CertificateError& error);
bool pvPkiPemImportRootCaCertStore(std::string_view fileName, std::shared_ptr<const RootStore>& rootStore,
                                   CertificateError& error);

// An RSA key of 1024 bits with a certificate for one year from `now` (Unix seconds), signed with SHA-256.
bool pvPkiGenerSelfSignedCertificate(std::string_view subject, std::int64_t now, Identity& identity,
                                     CertificateError& error);
// The subject of a self-signed certificate: what begins with "CN=" as it comes, otherwise built from the name, or from
// the machine's when that is empty.
std::string SelfSignedSubject(std::string_view subject);

}  // namespace quenmark::tls
