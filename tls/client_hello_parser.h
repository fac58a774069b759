// The server's view of a ClientHello.
#pragma once

#include "tls/handshake.h"

namespace quenmark::tls {

struct KeyShare {
  std::uint16_t group = 0;
  BytesView key;
};

// Views go into the message.
struct ClientHello {
  std::uint16_t legacyVersion = 0;
  BytesView random;
  BytesView sessionId;
  std::vector<std::uint16_t> suites;
  BytesView compressionMethods;
  std::vector<std::uint16_t> extensions;  // types, in order
  std::string serverName;
  std::vector<std::string> alpn;
  std::vector<std::uint16_t> groups;
  std::vector<std::uint16_t> schemes;
  std::vector<std::uint16_t> versions;
  std::vector<KeyShare> keyShares;
  Bytes renegotiationInfo;

  bool Has(std::uint16_t extensionType) const { return Contains(extensions, extensionType); }
};

// Throws "Invalid data size for name", alert 50, for what is malformed.
ClientHello ParseClientHello(const Message& message);

}  // namespace quenmark::tls
