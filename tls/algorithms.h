// Codes of the algorithms the TLS engine uses, shared by its tables, its primitives and its error texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace quenmark::tls {

using Bytes = std::vector<std::uint8_t>;
using BytesView = std::span<const std::uint8_t>;

// Digests and, under the same codes, the HMACs over them.
enum class Digest : std::int32_t { kNone = 0, kSha1 = 22, kSha224 = 23, kSha256 = 24, kSha384 = 25, kSha512 = 26 };

enum class Bulk : std::int32_t {
  kNone = 0,
  kChaCha20Poly1305 = 11,
  kAes128Gcm = 12,
  kAes256Gcm = 13,
  kAes128Cbc = 14,
  kAes256Cbc = 15,
};

enum class Exchange : std::int32_t { kNone = 0, kX25519 = 1, kSecp256r1 = 2, kSecp384r1 = 3, kRsa = 5 };

constexpr std::uint16_t kVersionTls12 = 0x0303;
constexpr std::uint16_t kVersionTls13 = 0x0304;

// Feature bits the engine looks at.
constexpr std::uint32_t kFeatureTls12 = 4;
constexpr std::uint32_t kFeatureTls13 = 8;

constexpr std::size_t kMaxDigestSize = 64;

}  // namespace quenmark::tls
