// The certificates that TLS connections of this machine trust.
#pragma once

#include <string>

namespace quenmark::platform {

// The system's anchors as one file.
inline constexpr const char* kSystemTrustAnchors = "/etc/ssl/certs/ca-certificates.crt";

// Whether SSL_CERT_FILE names another file than the system's.
bool HasOwnTrustAnchors();

// The system's anchors followed by those of the file that SSL_CERT_FILE names, as PEM text. A file that cannot be read
// adds nothing.
std::string LoadTrustAnchors();

}  // namespace quenmark::platform
