// Blocks of PEM text (RFC 7468), read leniently as to what stands around them.
#pragma once

#include "platform/secret_bytes.h"

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace quenmark::tls {

inline constexpr std::string_view kPemCertificate = "CERTIFICATE";

// kSkip: a block that is not base64 or is never closed costs no other one.
enum class PemFaults : std::uint8_t { kRefuse, kSkip };

// The contents of all blocks of the type, in the order of the text. A block that is never closed is left out; nothing
// at all when a closed one is not base64 and faults are refused. Lines with ":" inside a block are passed over.
std::optional<std::vector<platform::SecretBuffer>> ReadPemBlocks(std::string_view text, std::string_view type,
                                                                 PemFaults faults = PemFaults::kRefuse);

}  // namespace quenmark::tls
