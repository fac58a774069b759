// Random values of hellos that have a meaning (RFC 8446 section 4.1.3).
#pragma once

#include "tls/algorithms.h"

#include <algorithm>
#include <array>

namespace quenmark::tls {

// SHA-256 of "HelloRetryRequest".
constexpr std::array<std::uint8_t, 32> kHelloRetryRandom = {
    0xCF, 0x21, 0xAD, 0x74, 0xE5, 0x9A, 0x61, 0x11, 0xBE, 0x1D, 0x8C, 0x02, 0x1E, 0x65, 0xB8, 0x91,
    0xC2, 0xA2, 0x11, 0x16, 0x7A, 0xBB, 0x8C, 0x5E, 0x07, 0x9E, 0x09, 0xE2, 0xC8, 0xA8, 0x33, 0x9C};

// "DOWNGRD" and 1: a TLS 1.3 server chose TLS 1.2; 0: something older.
constexpr std::array<std::uint8_t, 8> kDowngradeMarker = {0x44, 0x4F, 0x57, 0x4E, 0x47, 0x52, 0x44, 0x01};

inline bool IsHelloRetryRequest(BytesView random) {
  return std::equal(random.begin(), random.end(), kHelloRetryRandom.begin(), kHelloRetryRandom.end());
}

inline bool HasDowngradeMarker(BytesView random) {
  const BytesView tail = random.last(kDowngradeMarker.size());
  return std::equal(tail.begin(), tail.end() - 1, kDowngradeMarker.begin()) && tail.back() <= 1;
}

}  // namespace quenmark::tls
