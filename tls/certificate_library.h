// What the certificates* and keys* files share of the library behind them. Included by their .cpp files alone.
#pragma once

#include "platform/secret_bytes.h"
#include "tls/peer_validation.h"
#include "tls/primitives_detail.h"

#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::tls::detail {

inline void FreeCertificates(STACK_OF(X509) * stack) {
  sk_X509_pop_free(stack, X509_free);
}
inline void FreeCertificateStack(STACK_OF(X509) * stack) {
  sk_X509_free(stack);
}
inline void FreeRevocationLists(STACK_OF(X509_CRL) * stack) {
  sk_X509_CRL_pop_free(stack, X509_CRL_free);
}

using CertificatePointer = std::unique_ptr<X509, Free<X509_free>>;
using CertificateStack = std::unique_ptr<STACK_OF(X509), Free<FreeCertificates>>;           // owns what it holds
using CertificateReferences = std::unique_ptr<STACK_OF(X509), Free<FreeCertificateStack>>;  // does not
using RevocationListPointer = std::unique_ptr<X509_CRL, Free<X509_CRL_free>>;
using RevocationListStack = std::unique_ptr<STACK_OF(X509_CRL), Free<FreeRevocationLists>>;  // owns what it holds
using StorePointer = std::unique_ptr<X509_STORE, Free<X509_STORE_free>>;

// Null when it is not one certificate and nothing else.
inline CertificatePointer ParseCertificate(BytesView der) {
  const unsigned char* position = der.data();
  CertificatePointer certificate(d2i_X509(nullptr, &position, static_cast<long>(der.size())));
  if (position != der.data() + der.size()) certificate.reset();
  return certificate;
}

// A DER encoding by one of the library's i2d functions; empty on failure.
template <typename Container, typename Object>
Container Encode(int (*encode)(Object, unsigned char**), Object object) {
  const int size = encode(object, nullptr);
  Container der(size > 0 ? static_cast<std::size_t>(size) : 0);
  unsigned char* position = der.data();
  if (size > 0 && encode(object, &position) != size) der.clear();
  return der;
}

inline Bytes EncodeCertificate(const X509* certificate) {
  return Encode<Bytes, const X509*>(i2d_X509, certificate);
}

constexpr std::uint32_t kPlatformCallFailed = 0x80070000;
constexpr std::uint32_t kFileNotFound = 2;
constexpr std::uint32_t kInvalidData = 13;

inline CertificateError PlatformError(std::string_view call, std::string_view routine, std::uint32_t code) {
  return {static_cast<std::int32_t>(kPlatformCallFailed | code), fmt::format("Call failed ({})", call),
          fmt::format("cTlsSocket.{}", routine)};
}

// The failure of a platform call, numbered with the library's reason, or "invalid data" where it gives none. Empties
// the library's error queue.
inline CertificateError CallError(std::string_view call, std::string_view routine) {
  const auto reason = static_cast<std::uint32_t>(ERR_GET_REASON(ERR_peek_last_error())) & 0xFFFF;
  ERR_clear_error();
  return PlatformError(call, routine, reason != 0 ? reason : kInvalidData);
}

}  // namespace quenmark::tls::detail
