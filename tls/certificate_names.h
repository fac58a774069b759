// Which host names a certificate is good for.
#pragma once

#include "tls/algorithms.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::tls {

enum class HostMatch {
  kFirst,      // the first certificate is the first that is good for the host
  kNone,       // none is, or another one is
  kUnreadable  // a subjectAltName on the way does not decode
};

// Whether a DNS name of a certificate covers the host. Both are compared in lower case:
//   - "host" and "www.host" cover host;
//   - a leading "*" stands for any run of characters, but the host must not match "*." and the entry as well, so that
//     "*.d" covers a.d and not a.b.d.
// An empty host and an IP address are covered by nothing.
bool CoversHost(std::string_view dnsName, std::string_view host);

// The certificate whose key signed the handshake is the first; another one that covers the host is of no use. Names
// come from subjectAltName only (RFC 6125 §6.4.4), never from the subject.
HostMatch MatchHost(const std::vector<Bytes>& certificates, std::string_view host);

}  // namespace quenmark::tls
