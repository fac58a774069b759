// Blocks of PEM text (RFC 7468), read leniently as to what stands around them.
#pragma once

#include "platform/secret_bytes.h"

#include <optional>
#include <string_view>
#include <vector>

namespace quenmark::tls {

inline constexpr std::string_view kPemCertificate = "CERTIFICATE";

// The contents of all blocks of the type, in the order of the text. A block that is never closed is left out; nothing
// at all when a closed one is not base64. Lines with ":" inside a block are passed over.
std::optional<std::vector<platform::SecretBuffer>> ReadPemBlocks(std::string_view text, std::string_view type);

}  // namespace quenmark::tls
