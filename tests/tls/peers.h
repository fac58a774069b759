// The two ends of an in-memory connection: this system's engine and libssl.
#pragma once

#include "tests/tls/test_keys.h"
#include "tls/engine.h"

#include <openssl/ssl.h>

#include <functional>
#include <memory>
#include <random>
#include <string>

namespace quenmark::test {

// The engine as its owner uses it.
class EnginePeer final : tls::ClientCertificateOwner {
 public:
  void StartClient(std::uint32_t features, const std::string& alpn = "");
  void StartServer(const Identity& identity, std::uint32_t features, const std::string& alpn = "");
  // What came from the network.
  void Feed(tls::BytesView input);
  void Send(tls::BytesView data);
  bool Ready() const { return tls::TlsIsReady(context); }
  bool Closed() const { return tls::TlsIsClosed(context); }
  std::string Error() const;

  tls::Context context;
  tls::Bytes output;     // for the network
  tls::Bytes plaintext;  // received
  bool failed = false;
  const Identity* shown = nullptr;  // when asked for a certificate
  std::function<void()> whenAsked = [] {};
  int asked = 0;

 private:
  bool FireOnClientCertificate(const std::vector<tls::Bytes>& issuers) override;
};

struct PeerOptions {
  bool server = true;
  const Identity* identity = nullptr;
  int version = 0;          // TLS1_2_VERSION, TLS1_3_VERSION, 0 for both
  std::string suites = {};  // TLS 1.2 names or TLS 1.3 names
  std::string groups = {};
  std::string alpn = {};  // one name
  bool requestCertificate = false;
  bool requireCertificate = false;
  bool postHandshakeAuth = false;
  unsigned long long options = 0;  // SSL_OP_...
};

// libssl over memory.
class LibsslPeer {
 public:
  explicit LibsslPeer(const PeerOptions& options);
  ~LibsslPeer();
  LibsslPeer(const LibsslPeer&) = delete;
  LibsslPeer& operator=(const LibsslPeer&) = delete;

  void Feed(tls::BytesView input);
  tls::Bytes TakeOutput();
  void Send(tls::BytesView data);
  SSL* Handle() { return m_ssl; }
  bool Ready() const { return SSL_is_init_finished(m_ssl) != 0; }
  std::string Error() const { return m_error; }
  // Runs handshake and reading as far as the input goes.
  void Run();

  tls::Bytes plaintext;
  bool failed = false;
  bool closeNotified = false;

 private:
  const std::string m_alpn;
  SSL_CTX* m_context = nullptr;
  SSL* m_ssl = nullptr;
  std::string m_error;
};

void UseIdentity(SSL* peer, const Identity& identity);

// The engine in one role and libssl in the other, after their handshake. The server shows the identity.
struct Pair {
  explicit Pair(const PeerOptions& options, std::uint32_t features = tls::kFeatureTls12 | tls::kFeatureTls13,
                const Identity* shown = nullptr, std::mt19937* random = nullptr);
  void Shake(std::mt19937* random = nullptr);
  void ExpectTraffic(std::size_t size = 3000, std::mt19937* random = nullptr);
  bool PeerHasCertificate() { return SSL_get0_peer_certificate(peer.Handle()) != nullptr; }

  const Identity& identity;
  EnginePeer engine;
  LibsslPeer peer;
};

// Moves bytes both ways until neither side has any left. With `random` the bytes arrive in pieces of random size.
void Converse(EnginePeer& engine, LibsslPeer& peer, std::mt19937* random = nullptr);

tls::Bytes Pattern(std::size_t size, unsigned seed = 1);

}  // namespace quenmark::test
