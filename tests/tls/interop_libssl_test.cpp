// The engine against libssl, in memory, in both roles.
#include "platform/byte_cursor.h"
#include "tests/tls/peers.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace quenmark::test {
namespace {

using tls::Bytes;

constexpr std::uint32_t kTls12 = tls::kFeatureTls12;
constexpr std::uint32_t kTls13 = tls::kFeatureTls13;
constexpr std::uint32_t kBoth = kTls12 | kTls13;

// Sets the certificate when asked.
class Owner : public tls::ClientCertificateOwner {
 public:
  explicit Owner(const Identity* identity) : m_identity(identity) {}
  bool FireOnClientCertificate(const std::vector<Bytes>&) override {
    ++calls;
    if (m_identity == nullptr) return false;
    engine->context.localCertificates = {m_identity->certificate};
    engine->context.localPrivateKey.assign(m_identity->privateKey.begin(), m_identity->privateKey.end());
    return true;
  }
  EnginePeer* engine = nullptr;
  int calls = 0;

 private:
  const Identity* m_identity;
};

// The engine in one role and libssl in the other, after their handshake.
struct Pair {
  explicit Pair(PeerOptions options, std::uint32_t features = kBoth, Owner* owner = nullptr,
                std::mt19937* random = nullptr, const std::string& alpn = "")
      : identity(options.identity != nullptr ? options.identity : &IdentityOf(KeyKind::kP256)), peer(Role(options)) {
    if (options.server) {
      if (owner != nullptr) owner->engine = &engine;
      engine.StartClient(features, "localhost", alpn, owner);
    } else {
      engine.StartServer(*identity, features, alpn);
    }
    Shake(random);
  }
  void Shake(std::mt19937* random = nullptr) {
    Converse(engine, peer, random);
    EXPECT_FALSE(engine.failed) << engine.Error();
    EXPECT_FALSE(peer.failed) << peer.Error();
    EXPECT_TRUE(engine.Ready() && peer.Ready());
  }
  // Libssl shows the identity when it is the server, and the engine otherwise.
  PeerOptions Role(PeerOptions options) const {
    options.identity = options.server ? identity : nullptr;
    return options;
  }
  bool PeerHasCertificate() { return SSL_get0_peer_certificate(peer.Handle()) != nullptr; }
  void ExpectTraffic(std::size_t size = 3000, std::mt19937* random = nullptr) {
    const Bytes toPeer = Pattern(size, 1);
    const Bytes toEngine = Pattern(size, 2);
    engine.plaintext.clear();
    peer.plaintext.clear();
    engine.Send(toPeer);
    peer.Send(toEngine);
    Converse(engine, peer, random);
    EXPECT_TRUE(engine.plaintext == toEngine) << engine.Error();
    EXPECT_TRUE(peer.plaintext == toPeer) << peer.Error();
  }

  const Identity* identity;
  EnginePeer engine;
  LibsslPeer peer;
};

struct SuiteCase {
  std::string name;
  std::vector<KeyKind> keys;
};

const std::vector<KeyKind> kAllKeys = {KeyKind::kP256, KeyKind::kP384, KeyKind::kRsa2048, KeyKind::kRsa4096,
                                       KeyKind::kRsaPss};
const std::vector<KeyKind> kEcdsaKeys = {KeyKind::kP256, KeyKind::kP384};
const std::vector<KeyKind> kRsaKeys = {KeyKind::kRsa2048, KeyKind::kRsa4096, KeyKind::kRsaPss};
const std::vector<KeyKind> kTransportKeys = {KeyKind::kRsa2048, KeyKind::kRsa4096};

const std::vector<SuiteCase> kSuites = {
    {"TLS_AES_128_GCM_SHA256", kAllKeys},
    {"TLS_AES_256_GCM_SHA384", kAllKeys},
    {"TLS_CHACHA20_POLY1305_SHA256", kAllKeys},
    {"ECDHE-ECDSA-AES128-GCM-SHA256", kEcdsaKeys},
    {"ECDHE-RSA-AES128-GCM-SHA256", kRsaKeys},
    {"ECDHE-ECDSA-AES256-GCM-SHA384", kEcdsaKeys},
    {"ECDHE-RSA-AES256-GCM-SHA384", kRsaKeys},
    {"ECDHE-ECDSA-CHACHA20-POLY1305", kEcdsaKeys},
    {"ECDHE-RSA-CHACHA20-POLY1305", kRsaKeys},
    {"ECDHE-ECDSA-AES128-SHA", kEcdsaKeys},
    {"ECDHE-RSA-AES128-SHA", kRsaKeys},
    {"ECDHE-ECDSA-AES256-SHA", kEcdsaKeys},
    {"ECDHE-RSA-AES256-SHA", kRsaKeys},
    {"AES128-GCM-SHA256", kTransportKeys},
    {"AES256-GCM-SHA384", kTransportKeys},
    {"AES128-SHA", kTransportKeys},
    {"AES256-SHA", kTransportKeys},
};

int VersionOf(const std::string& suite) {
  return suite.starts_with("TLS_") ? TLS1_3_VERSION : TLS1_2_VERSION;
}

TEST(InteropLibssl, EverySuiteWithEveryKeyAndGroupInBothRoles) {
  for (const SuiteCase& suite : kSuites) {
    for (const KeyKind key : suite.keys) {
      for (const std::string group : {"X25519", "P-256", "P-384", "P-521:P-384"}) {
        for (const bool client : {true, false}) {
          if ((client && group.starts_with("P-521")) || (key == KeyKind::kRsa4096 && group != "X25519")) continue;
          SCOPED_TRACE(suite.name + " " + KindName(key) + " " + group + (client ? " client" : " server"));
          // A TLS 1.2 client of this library must also name the curve of an ECDSA certificate.
          const bool named = client || VersionOf(suite.name) == TLS1_3_VERSION || !KindName(key).starts_with("P-") ||
                             group.find(KindName(key)) != std::string::npos;
          Pair pair({.server = client,
                     .identity = &IdentityOf(key),
                     .version = VersionOf(suite.name),
                     .suites = suite.name,
                     .groups = named ? group : group + ":" + KindName(key)});
          const tls::Context& context = pair.engine.context;
          EXPECT_EQ(context.cipherSuite->name, suite.name);
          EXPECT_EQ(context.protocolVersion, SSL_version(pair.peer.Handle()));
          EXPECT_EQ(context.remoteCertificates,
                    client ? std::vector<Bytes>{IdentityOf(key).certificate} : std::vector<Bytes>{});
          EXPECT_EQ(context.sniRequested, client ? "" : "localhost");
          pair.ExpectTraffic();
        }
      }
    }
  }
}

TEST(InteropLibssl, MegabyteBothWaysInRandomPieces) {
  std::mt19937 random(20240315);
  for (const std::string suite : {"TLS_AES_128_GCM_SHA256", "ECDHE-RSA-CHACHA20-POLY1305", "AES256-SHA"}) {
    for (const bool client : {true, false}) {
      SCOPED_TRACE(suite);
      Pair pair(
          {.server = client, .identity = &IdentityOf(KeyKind::kRsa2048), .version = VersionOf(suite), .suites = suite},
          kBoth, nullptr, &random);
      pair.ExpectTraffic(1 << 20, &random);
    }
  }
}

TEST(InteropLibssl, ClientFollowsHelloRetryRequest) {
  for (const std::string group : {"P-256", "P-384"}) {
    Pair pair({.version = TLS1_3_VERSION, .groups = group}, kTls13);
    EXPECT_EQ(pair.engine.context.exchangeGroup, group == "P-256" ? 23 : 24);
    pair.ExpectTraffic();
  }
}

TEST(InteropLibssl, KeyUpdateFromEitherSide) {
  for (const bool client : {true, false}) {
    for (const int type : {SSL_KEY_UPDATE_NOT_REQUESTED, SSL_KEY_UPDATE_REQUESTED}) {
      Pair pair({.server = client, .version = TLS1_3_VERSION}, kTls13);
      const tls::Context& context = pair.engine.context;
      const auto sendingSecret = ToHex(context.local.trafficSecret.View());
      const auto receivingSecret = ToHex(context.remote.trafficSecret.View());
      SSL_key_update(pair.peer.Handle(), type);
      pair.ExpectTraffic();
      pair.ExpectTraffic();
      EXPECT_NE(ToHex(context.remote.trafficSecret.View()), receivingSecret);
      EXPECT_EQ(ToHex(context.local.trafficSecret.View()) == sendingSecret, type == SSL_KEY_UPDATE_NOT_REQUESTED);
    }
  }
}

TEST(InteropLibssl, SendingKeysAreRenewedBeforeTheirLimit) {
  EnginePeer engine = std::move(Pair({.version = TLS1_3_VERSION}, kTls13).engine);
  const auto before = ToHex(engine.context.local.trafficSecret.View());
  engine.context.local.sequence = tls::kMaxAesGcmRecords - 3;
  Bytes out;
  ASSERT_TRUE(tls::TlsSend(engine.context, Pattern(10), out));
  EXPECT_EQ(ToHex(engine.context.local.trafficSecret.View()), before);
  ASSERT_TRUE(tls::TlsSend(engine.context, Pattern(10), out));
  EXPECT_NE(ToHex(engine.context.local.trafficSecret.View()), before);
  EXPECT_EQ(engine.context.local.sequence, 1U);
}

TEST(InteropLibssl, ClientCertificateOfEveryKindOrNone) {
  std::vector<const Identity*> identities = {nullptr};
  for (const KeyKind key : kAllKeys) identities.push_back(&IdentityOf(key));
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    for (const Identity* identity : identities) {
      Owner owner(identity);
      Pair pair({.identity = &IdentityOf(KeyKind::kRsa2048),
                 .version = version,
                 .requestCertificate = true,
                 .requireCertificate = identity != nullptr},
                kBoth, &owner);
      EXPECT_EQ(owner.calls, 1);
      EXPECT_EQ(pair.PeerHasCertificate(), identity != nullptr);
      pair.ExpectTraffic();
    }
  }
}

// What libssl saw of the client's authentication, to the byte, and its signature checked over the messages it saw.
TEST(InteropLibssl, ClientAuthenticationToTheByte) {
  struct Seen {
    Bytes all;
    std::vector<Bytes> fromClient;
  } seen;
  EnginePeer engine;
  Owner owner(&IdentityOf(KeyKind::kP256));
  owner.engine = &engine;
  LibsslPeer peer({.identity = &IdentityOf(KeyKind::kRsa2048), .version = TLS1_3_VERSION, .requireCertificate = true});
  SSL_set_msg_callback_arg(peer.Handle(), &seen);
  SSL_set_msg_callback(peer.Handle(), [](int out, int, int type, const void* data, std::size_t size, SSL*, void* to) {
    if (type != SSL3_RT_HANDSHAKE) return;
    auto& record = *static_cast<Seen*>(to);
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    if (out == 0) record.fromClient.emplace_back(bytes, bytes + size);
    if (record.fromClient.size() < 3) record.all.insert(record.all.end(), bytes, bytes + size);
  });
  engine.StartClient(kTls13, "localhost", "", &owner);
  Converse(engine, peer);
  ASSERT_EQ(seen.fromClient.size(), 4u);  // hello, certificate, verify, finished
  const Bytes& own = IdentityOf(KeyKind::kP256).certificate;
  Bytes expected;
  platform::ByteWriter writer(expected);
  writer.U8(11);
  writer.Block(3, [&] {
    writer.U8(0);  // request context
    writer.Block(3, [&] {
      writer.AppendBlock(3, own);
      writer.U16(0);  // extensions
    });
  });
  EXPECT_EQ(ToHex(seen.fromClient[1]), ToHex(expected));

  Bytes content(64, 0x20);
  for (const char c : std::string_view("TLS 1.3, client CertificateVerify"))
    content.push_back(static_cast<std::uint8_t>(c));
  content.push_back(0);
  Bytes digest(48);  // of the suite that libssl prefers, by libssl's own library
  ASSERT_EQ(EVP_Digest(seen.all.data(), seen.all.size(), digest.data(), nullptr,
                       SSL_CIPHER_get_handshake_digest(SSL_get_current_cipher(peer.Handle())), nullptr),
            1);
  digest.resize(static_cast<std::size_t>(
      EVP_MD_get_size(SSL_CIPHER_get_handshake_digest(SSL_get_current_cipher(peer.Handle())))));
  content.insert(content.end(), digest.begin(), digest.end());
  platform::ByteReader verify(seen.fromClient[2]);
  verify.Take(4);
  EXPECT_EQ(verify.U16(), 0x0403);
  const tls::BytesView signature = verify.TakeBlock(2);
  EXPECT_TRUE(verify.Done());
  EVP_MD_CTX* check = EVP_MD_CTX_new();
  EVP_DigestVerifyInit(check, nullptr, EVP_sha256(), nullptr,
                       X509_get0_pubkey(SSL_get0_peer_certificate(peer.Handle())));
  EXPECT_EQ(EVP_DigestVerify(check, signature.data(), signature.size(), content.data(), content.size()), 1);
  EVP_MD_CTX_free(check);
}

TEST(InteropLibssl, PostHandshakeAuthentication) {
  for (const bool given : {true, false}) {
    Owner owner(given ? &IdentityOf(KeyKind::kP256) : nullptr);
    Pair pair({.identity = &IdentityOf(KeyKind::kRsa2048), .version = TLS1_3_VERSION, .postHandshakeAuth = true}, kBoth,
              &owner);
    pair.ExpectTraffic();
    EXPECT_FALSE(pair.PeerHasCertificate());
    for (int round = 0; round < (given ? 2 : 1); ++round) {
      ASSERT_EQ(SSL_verify_client_post_handshake(pair.peer.Handle()), 1);
      SSL_do_handshake(pair.peer.Handle());
      pair.ExpectTraffic();
      EXPECT_EQ(pair.PeerHasCertificate(), given);
    }
  }
}

TEST(InteropLibssl, RenegotiationOnHelloRequest) {
  for (const std::string suite : {"ECDHE-RSA-AES128-GCM-SHA256", "AES128-SHA"}) {
    for (const unsigned long long options : {0ULL, static_cast<unsigned long long>(SSL_OP_NO_EXTENDED_MASTER_SECRET)}) {
      Pair pair(
          {.identity = &IdentityOf(KeyKind::kRsa2048), .version = TLS1_2_VERSION, .suites = suite, .options = options});
      pair.ExpectTraffic();
      for (int round = 0; round < 3; ++round) {
        const Bytes verifyData = pair.engine.context.localVerifyData;
        ASSERT_EQ(SSL_renegotiate(pair.peer.Handle()), 1);
        SSL_do_handshake(pair.peer.Handle());
        pair.Shake();
        EXPECT_NE(pair.engine.context.localVerifyData, verifyData);
        pair.ExpectTraffic();
      }
    }
  }
}

TEST(InteropLibssl, ApplicationProtocol) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    for (const bool client : {true, false}) {
      const Pair pair({.server = client, .version = version, .alpn = "http/1.1"}, kBoth, nullptr, nullptr,
                      "h2|http/1.1");
      EXPECT_EQ(pair.engine.context.alpnNegotiated, "http/1.1");
    }
  }
}

TEST(InteropLibssl, CloseFromEitherSide) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    Pair pair({.version = version});
    ASSERT_TRUE(tls::TlsShutdown(pair.engine.context, pair.engine.output));
    Converse(pair.engine, pair.peer);
    EXPECT_TRUE(pair.peer.closeNotified);
    EXPECT_EQ(pair.engine.context.state, tls::State::kShutdown);

    Pair other({.version = version});
    other.peer.Send(Pattern(100));
    SSL_shutdown(other.peer.Handle());
    Converse(other.engine, other.peer);
    EXPECT_EQ(other.engine.plaintext, Pattern(100));
    EXPECT_FALSE(other.engine.failed);
    EXPECT_TRUE(other.engine.Closed());
    EXPECT_EQ(other.engine.Error(), "");
    EXPECT_EQ(other.engine.context.lastError.number, 0);
    // The answer has level 2, which a TLS 1.2 peer takes for a failure.
    EXPECT_EQ(other.peer.closeNotified, version == TLS1_3_VERSION) << other.peer.Error();
  }
}

TEST(InteropLibssl, ServerChoosesTls12ForAnOldClientAndSaysSo) {
  Pair pair({.server = false,
             .identity = &IdentityOf(KeyKind::kRsa2048),
             .version = TLS1_2_VERSION,
             .options = SSL_OP_NO_EXTENDED_MASTER_SECRET});
  EXPECT_EQ(pair.engine.context.protocolVersion, tls::kVersionTls12);
  pair.ExpectTraffic();
}

}  // namespace
}  // namespace quenmark::test
