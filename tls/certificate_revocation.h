// Revocation lists of the certificates of a path. For the certificate files alone.
#pragma once

#include "tls/certificate_library.h"
#include "tls/certificate_validation.h"

namespace quenmark::tls {

constexpr std::size_t kMaxRevocationFetches = 8;     // of one validation
constexpr std::size_t kMaxRevocationAddress = 2048;  // characters

// The http addresses of the certificate's CRL distribution points (RFC 5280 §4.2.1.13), in order.
std::vector<std::string> RevocationAddresses(X509* certificate);

// The lists for all certificates of the path but a self-signed root; null when memory runs out. What cannot be had or
// read is missing from it. Each address is asked once.
detail::RevocationListStack FetchRevocationLists(STACK_OF(X509) * path, const FetchRevocationList& fetch);

}  // namespace quenmark::tls
