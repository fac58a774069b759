// The verdict on a peer's certificate chain.
#pragma once

#include "tls/peer_validation.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::tls {

// What can be wrong with a chain, as bits of its trust status.
namespace trust_error {
constexpr std::uint32_t kTime = 0x1;
constexpr std::uint32_t kRevoked = 0x4;
constexpr std::uint32_t kSignature = 0x8;
constexpr std::uint32_t kUsage = 0x10;
constexpr std::uint32_t kUntrustedRoot = 0x20;
constexpr std::uint32_t kRevocationUnknown = 0x40;
constexpr std::uint32_t kExtension = 0x100;
constexpr std::uint32_t kBasicConstraints = 0x400;
constexpr std::uint32_t kNameConstraints = 0x4000;
constexpr std::uint32_t kIncomplete = 0x10000;
constexpr std::uint32_t kWeak = 0x100000;
}  // namespace trust_error

// Trusted roots from certificates in DER; null when one of them cannot be read and `skipUnreadable` is not set.
std::shared_ptr<const RootStore> MakeRootStore(const std::vector<Bytes>& certificates, bool skipUnreadable);
std::size_t RootCount(const RootStore& roots);

// Fetches the revocation list at an address; empty when it cannot be had.
using FetchRevocationList = std::function<Bytes(const std::string& address)>;

struct ChainCheck {
  ChainRequest request;
  const RootStore* systemRoots = nullptr;  // the trust when the request has no root store
  std::int64_t time = 0;                   // Unix seconds
  FetchRevocationList fetch;               // called when the request asks for revocation; empty: nothing can be had
};

// The sentence for a status other than 0.
std::string TrustErrorText(std::uint32_t status);

// Checks host name and chain. A chain is valid when its status is 0.
bool pvPkiCertChainValidate(const ChainCheck& check, CertificateError& error);

}  // namespace quenmark::tls
