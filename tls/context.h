// One connection's state in the TLS engine.
#pragma once

#include "platform/secret_bytes.h"
#include "tls/cipher_suites.h"
#include "tls/crypto_services.h"
#include "tls/error.h"
#include "tls/groups.h"
#include "tls/names.h"
#include "tls/transcript.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace quenmark::tls {

// Limits on what a peer may make the engine hold or do.
constexpr std::size_t kMaxHandshakeMessage = std::size_t{256} * 1024;  // bytes of one message; larger: alert 50
constexpr std::size_t kMaxHandshakeBytes = 4 * kMaxHandshakeMessage;   // of one whole handshake; more: alert 50
constexpr std::size_t kMaxCertificates = 32;                           // of one chain; more: alert 50
constexpr std::size_t kMaxSessionTickets = 4;                          // kept; older ones are dropped
constexpr std::size_t kMaxTicketBytes = 2048;                          // a longer ticket is not kept
constexpr int kMaxIdleRecords =
    32;  // records in a row that bring nothing (empty, warning, ChangeCipherSpec, key update)
constexpr int kMaxCertificatePrompts = 8;             // calls of the owner for one certificate request
constexpr std::size_t kMaxPlaintext = 16384;          // bytes of content in one record
constexpr std::uint64_t kMaxSequence = 0xFFFFFFFF;    // last record under one key
constexpr std::uint64_t kMaxAesGcmRecords = 1 << 24;  // under one TLS 1.3 key

// Asked for a certificate when a server wants one and nothing local fits.
class ClientCertificateOwner {
 public:
  virtual ~ClientCertificateOwner() = default;
  // `issuers`: distinguished names in DER. True after setting the context's local certificates and key (try again).
  virtual bool FireOnClientCertificate(const std::vector<Bytes>& issuers) = 0;
};

struct EngineErrorRecord {
  std::int32_t number = 0;
  std::string description;
  std::string source;
  int alertCode = kNoAlert;
};

// Record protection of one direction; plaintext until it has a cipher.
struct Protection {
  const CipherSuite* suite = nullptr;
  std::uint16_t version = 0;
  SecretBytes trafficSecret;  // TLS 1.3
  SecretBytes macKey;         // CBC suites
  std::array<std::uint8_t, 16> iv{};
  std::unique_ptr<BulkCipher> cipher;
  std::uint64_t sequence = 0;  // of the next record

  bool Active() const { return cipher != nullptr; }
};

// What only a running handshake needs; gone, and wiped, when it is complete.
struct Handshake {
  bool renegotiation = false;
  std::uint32_t features = 0;  // versions offered in this handshake
  std::array<std::uint8_t, 32> localRandom{};
  std::array<std::uint8_t, 32> remoteRandom{};
  Bytes localSessionId;
  Bytes remoteSessionId;

  const Group* group = nullptr;
  KeyPair keyPair;
  Bytes remotePublicKey;
  SecretBytes rsaPreMaster;
  Bytes encryptedRsaPreMaster;

  const CipherSuite* suite = nullptr;
  std::uint16_t version = 0;  // 0: not chosen yet
  Transcript transcript;
  SecretBytes handshakeSecret;
  SecretBytes masterSecret;
  std::unique_ptr<Protection>
      pendingRemote;  // TLS 1.2: until ChangeCipherSpec; TLS 1.3 server: until the client's Finished
  std::unique_ptr<Protection> pendingLocal;  // TLS 1.2 server: until its own ChangeCipherSpec
  bool remoteChangedCipher = false;          // TLS 1.2: ChangeCipherSpec was received

  bool helloRetryRequest = false;  // one was seen or sent
  const CipherSuite* retrySuite = nullptr;
  std::uint16_t requestedGroup = 0;
  Bytes cookie;
  std::vector<std::uint16_t> offeredSuites;
  std::vector<std::uint16_t> offeredExtensions;  // server: those of the client's first hello
  std::vector<std::uint16_t> remoteExtensions;

  std::uint8_t lastMessage = 0;  // last of the ordered messages of state 4
  bool certificateRequested = false;

  bool PeerSent(std::uint16_t extensionType) const;
};

// The context. Public functions over it are in engine.h; fields may be read by the owner, and those marked "owner" set.
struct Context {
  // Set by the owner at any time.
  CryptoServices* services = &SystemCrypto();
  std::vector<Bytes> localCertificates;    // DER, leaf first
  platform::SecretBuffer localPrivateKey;  // DER

  // Arguments of the initialisation, constant until the next one.
  bool isServer = false;
  std::string remoteHostName;
  std::uint32_t localFeatures = 0;
  ClientCertificateOwner* clientCertificateOwner = nullptr;  // not owned
  std::string alpnProtocols;                                 // "|"-separated

  State state = State::kNew;
  EngineErrorRecord lastError;

  // What the connection agreed on.
  std::string alpnNegotiated;
  std::string sniRequested;  // server
  std::uint16_t protocolVersion = 0;
  const CipherSuite* cipherSuite = nullptr;
  std::uint16_t exchangeGroup = 0;
  std::uint16_t peerScheme = 0;           // of the server's signature; 0 where it made none
  std::vector<Bytes> remoteCertificates;  // DER, leaf first
  std::vector<std::uint16_t> peerSupportedGroups;
  std::vector<Bytes> sessionTickets;

  // Client authentication.
  std::uint16_t clientAuthScheme = 0;  // 0: none
  Bytes certificateRequestContext;
  Hash postHandshakeDigest;  // TLS 1.3 client: through its own Finished

  // Renegotiation (RFC 5746, RFC 7627).
  Bytes localVerifyData;
  Bytes remoteVerifyData;
  bool secureRenegotiation = false;
  bool extendedMasterSecret = false;
  std::uint32_t handshakesCompleted = 0;

  Protection local;   // sending
  Protection remote;  // receiving
  std::unique_ptr<Handshake> handshake;

  Bytes receiveBuffer;  // the start of a record whose rest has not come
  Bytes decrypted;      // application data not handed out
  Bytes sendBuffer;     // records not handed out
  Bytes reassembly;     // the start of a handshake message whose rest has not come
  int idleRecords = 0;
  bool busy = false;  // a public function is running
};

}  // namespace quenmark::tls
