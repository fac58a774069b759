// What a TLS socket needs of certificates and keys: loading its own, loading trusted roots, and the verdict on a peer's
// chain. The socket programs against this; production uses MakeCertificateServices.
//
// Nothing here throws. A function that answers false has filled `error` and left its other outputs as they were.
#pragma once

#include "platform/secret_bytes.h"
#include "tls/algorithms.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::platform {
class MessageLoop;
}

namespace quenmark::tls {

struct CertificateError {
  std::int32_t number = 0;  // never 0 after a failure
  std::string description;  // for the user; holds no secret
  std::string source;       // the routine: "cTlsSocket.pvPkiCertChainValidate"
};

// A certificate chain with the key of its first certificate.
struct Identity {
  std::vector<Bytes> certificates;    // DER, end-entity first
  platform::SecretBuffer privateKey;  // DER: PKCS#8, RSAPrivateKey or ECPrivateKey, as the engine takes it
};

// Trusted roots, parsed. Immutable once made.
class RootStore {
 public:
  virtual ~RootStore() = default;
};

// What the certificate must be good for (RFC 5280 §4.2.1.12).
enum class PeerUsage { kServer, kClient };

struct ChainRequest {
  std::string_view remoteHostName;             // not looked at for kClient
  const std::vector<Bytes>* chain = nullptr;   // DER as received; the first signed the handshake; never empty
  std::shared_ptr<const RootStore> rootStore;  // the only trust when set, else the system's
  PeerUsage usage = PeerUsage::kServer;
  bool checkRevocation = false;
};

class CertificateServices {
 public:
  virtual ~CertificateServices() = default;

  // True when the chain is valid. May let the loop's messages run (main tick left out) while it fetches revocation
  // lists; `request` and what it points to live until it returns.
  [[nodiscard]] virtual bool ValidateChain(const ChainRequest& request, CertificateError& error) = 0;

  // All certificates and the first private key of the "|"-separated PEM files. Either may be missing from them, and is
  // empty then.
  [[nodiscard]] virtual bool ImportPem(std::string_view fileNames, Identity& identity, CertificateError& error) = 0;
  [[nodiscard]] virtual bool ImportPkcs12(std::string_view fileName, std::string_view password, Identity& identity,
                                          CertificateError& error) = 0;
  // Every certificate of the PEM file.
  [[nodiscard]] virtual bool ImportRoots(std::string_view fileName, std::shared_ptr<const RootStore>& rootStore,
                                         CertificateError& error) = 0;
  // Subject: "CN=…" as it comes, a name, or empty for the machine's name.
  [[nodiscard]] virtual bool MakeSelfSigned(std::string_view subject, Identity& identity, CertificateError& error) = 0;
};

// The production implementation: certificate_services.cpp. The loop must outlive it; it serves the fetching of
// revocation lists.
std::shared_ptr<CertificateServices> MakeCertificateServices(platform::MessageLoop& loop);

}  // namespace quenmark::tls
