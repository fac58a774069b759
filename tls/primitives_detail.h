// What the primitives files share. Included by them alone.
#pragma once

#include "tls/error.h"
#include "tls/primitives.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <memory>
#include <string_view>

namespace quenmark::tls::detail {

// Frees with the library's own function.
template <auto Function>
struct Free {
  template <typename T>
  void operator()(T* object) const {
    Function(object);
  }
};

using PkeyPointer = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;
using PkeyContext = std::unique_ptr<EVP_PKEY_CTX, Free<EVP_PKEY_CTX_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, Free<EVP_MD_CTX_free>>;

// Algorithms fetched once per process; null for a code without one.
const EVP_MD* FetchedDigest(Digest digest);
const EVP_CIPHER* FetchedCipher(Bulk bulk);

[[noreturn]] inline void CallFailed(std::string_view primitive, std::string_view source) {
  throw RaisedError{fmt::format("Call failed ({})", primitive), std::string(source)};
}

}  // namespace quenmark::tls::detail
