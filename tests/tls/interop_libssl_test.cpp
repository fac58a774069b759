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

void ExpectTraffic(EnginePeer& engine, LibsslPeer& peer, std::size_t size = 3000, std::mt19937* random = nullptr) {
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

void ExpectReady(EnginePeer& engine, LibsslPeer& peer, std::mt19937* random = nullptr) {
  Converse(engine, peer, random);
  ASSERT_FALSE(engine.failed) << engine.Error();
  ASSERT_FALSE(peer.failed) << peer.Error();
  ASSERT_TRUE(engine.Ready());
  ASSERT_TRUE(peer.Ready());
}

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

TEST(InteropLibssl, ClientTalksEverySuiteWithEveryKeyAndGroup) {
  for (const SuiteCase& suite : kSuites) {
    for (const KeyKind key : suite.keys) {
      for (const std::string group : {"X25519", "P-256", "P-384"}) {
        SCOPED_TRACE(suite.name + " " + KindName(key) + " " + group);
        EnginePeer engine;
        LibsslPeer peer(
            {.identity = &IdentityOf(key), .version = VersionOf(suite.name), .suites = suite.name, .groups = group});
        engine.StartClient(kBoth);
        ExpectReady(engine, peer);
        if (HasFatalFailure()) return;
        EXPECT_EQ(engine.context.cipherSuite->name, suite.name);
        EXPECT_EQ(engine.context.protocolVersion, SSL_version(peer.Handle()));
        EXPECT_EQ(engine.context.remoteCertificates, std::vector<Bytes>{IdentityOf(key).certificate});
        ExpectTraffic(engine, peer);
      }
    }
  }
}

TEST(InteropLibssl, ServerTalksEverySuiteWithEveryKeyAndGroup) {
  for (const SuiteCase& suite : kSuites) {
    for (const KeyKind key : suite.keys) {
      for (const std::string group : {"X25519", "P-256", "P-384", "P-521:P-384"}) {
        SCOPED_TRACE(suite.name + " " + KindName(key) + " " + group);
        // A TLS 1.2 client of this library must also name the curve of an ECDSA certificate.
        const bool named = VersionOf(suite.name) == TLS1_3_VERSION || group.find(KindName(key)) != std::string::npos;
        const std::string groups = group + (key == KeyKind::kP256 || key == KeyKind::kP384 ? ":" + KindName(key) : "");
        EnginePeer engine;
        LibsslPeer peer({.server = false,
                         .version = VersionOf(suite.name),
                         .suites = suite.name,
                         .groups = named ? group : groups});
        engine.StartServer(IdentityOf(key), kBoth);
        ExpectReady(engine, peer);
        if (HasFatalFailure()) return;
        EXPECT_EQ(engine.context.cipherSuite->name, suite.name);
        EXPECT_EQ(engine.context.sniRequested, "localhost");
        ExpectTraffic(engine, peer);
      }
    }
  }
}

TEST(InteropLibssl, MegabyteBothWaysInRandomPieces) {
  std::mt19937 random(20240315);
  for (const std::string suite : {"TLS_AES_128_GCM_SHA256", "ECDHE-RSA-CHACHA20-POLY1305", "AES256-SHA"}) {
    for (const bool client : {true, false}) {
      SCOPED_TRACE(suite);
      EnginePeer engine;
      LibsslPeer peer({.server = client,
                       .identity = client ? &IdentityOf(KeyKind::kRsa2048) : nullptr,
                       .version = VersionOf(suite),
                       .suites = suite});
      if (client) {
        engine.StartClient(kBoth);
      } else {
        engine.StartServer(IdentityOf(KeyKind::kRsa2048), kBoth);
      }
      ExpectReady(engine, peer, &random);
      if (HasFatalFailure()) return;
      ExpectTraffic(engine, peer, 1 << 20, &random);
    }
  }
}

TEST(InteropLibssl, ClientFollowsHelloRetryRequest) {
  for (const std::string group : {"P-256", "P-384"}) {
    EnginePeer engine;
    LibsslPeer peer({.identity = &IdentityOf(KeyKind::kP256), .version = TLS1_3_VERSION, .groups = group});
    engine.StartClient(kTls13);
    ExpectReady(engine, peer);
    EXPECT_EQ(engine.context.exchangeGroup, group == "P-256" ? 23 : 24);
    ExpectTraffic(engine, peer);
  }
}

TEST(InteropLibssl, KeyUpdateFromEitherSide) {
  for (const bool client : {true, false}) {
    for (const int type : {SSL_KEY_UPDATE_NOT_REQUESTED, SSL_KEY_UPDATE_REQUESTED}) {
      EnginePeer engine;
      LibsslPeer peer(
          {.server = client, .identity = client ? &IdentityOf(KeyKind::kP256) : nullptr, .version = TLS1_3_VERSION});
      if (client) {
        engine.StartClient(kTls13);
      } else {
        engine.StartServer(IdentityOf(KeyKind::kP256), kTls13);
      }
      ExpectReady(engine, peer);
      const auto sendingSecret = ToHex(engine.context.local.trafficSecret.View());
      const auto receivingSecret = ToHex(engine.context.remote.trafficSecret.View());
      SSL_key_update(peer.Handle(), type);
      ExpectTraffic(engine, peer);
      ExpectTraffic(engine, peer);
      EXPECT_NE(ToHex(engine.context.remote.trafficSecret.View()), receivingSecret);
      EXPECT_EQ(ToHex(engine.context.local.trafficSecret.View()) == sendingSecret,
                type == SSL_KEY_UPDATE_NOT_REQUESTED);
    }
  }
}

TEST(InteropLibssl, SendingKeysAreRenewedBeforeTheirLimit) {
  EnginePeer engine;
  LibsslPeer peer({.identity = &IdentityOf(KeyKind::kP256), .version = TLS1_3_VERSION});
  engine.StartClient(kTls13);
  ExpectReady(engine, peer);
  // The peer counts along: both sides jump to the same sequence number by way of a fresh protection.
  const auto before = ToHex(engine.context.local.trafficSecret.View());
  engine.context.local.sequence = tls::kMaxAesGcmRecords - 3;
  Bytes out;
  ASSERT_TRUE(tls::TlsSend(engine.context, Pattern(10), out));
  EXPECT_EQ(ToHex(engine.context.local.trafficSecret.View()), before);
  ASSERT_TRUE(tls::TlsSend(engine.context, Pattern(10), out));
  EXPECT_NE(ToHex(engine.context.local.trafficSecret.View()), before);
  EXPECT_EQ(engine.context.local.sequence, 1U);
}

// Sets the certificate when asked.
class Owner : public tls::ClientCertificateOwner {
 public:
  Owner(EnginePeer& engine, const Identity* identity) : m_engine(engine), m_identity(identity) {}
  bool FireOnClientCertificate(const std::vector<Bytes>&) override {
    ++calls;
    if (m_identity == nullptr) return false;
    m_engine.context.localCertificates = {m_identity->certificate};
    m_engine.context.localPrivateKey.assign(m_identity->privateKey.begin(), m_identity->privateKey.end());
    return true;
  }
  int calls = 0;

 private:
  EnginePeer& m_engine;
  const Identity* m_identity;
};

bool PeerHasCertificate(LibsslPeer& peer) {
  return SSL_get0_peer_certificate(peer.Handle()) != nullptr;
}

TEST(InteropLibssl, ClientCertificateOfEveryKind) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    for (const KeyKind key : kAllKeys) {
      SCOPED_TRACE(KindName(key));
      EnginePeer engine;
      Owner owner(engine, &IdentityOf(key));
      LibsslPeer peer({.identity = &IdentityOf(KeyKind::kRsa2048), .version = version, .requireCertificate = true});
      engine.StartClient(kBoth, "localhost", "", &owner);
      ExpectReady(engine, peer);
      if (HasFatalFailure()) return;
      EXPECT_EQ(owner.calls, 1);
      EXPECT_TRUE(PeerHasCertificate(peer));
      ExpectTraffic(engine, peer);
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
  Owner owner(engine, &IdentityOf(KeyKind::kP256));
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
  ExpectReady(engine, peer);
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

TEST(InteropLibssl, ClientCertificateAskedForAndNotGiven) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    EnginePeer engine;
    Owner owner(engine, nullptr);
    LibsslPeer peer({.identity = &IdentityOf(KeyKind::kP256), .version = version, .requestCertificate = true});
    engine.StartClient(kBoth, "localhost", "", &owner);
    ExpectReady(engine, peer);
    EXPECT_EQ(owner.calls, 1);
    EXPECT_FALSE(PeerHasCertificate(peer));
    ExpectTraffic(engine, peer);
  }
}

TEST(InteropLibssl, PostHandshakeAuthentication) {
  for (const bool given : {true, false}) {
    EnginePeer engine;
    Owner owner(engine, given ? &IdentityOf(KeyKind::kP256) : nullptr);
    LibsslPeer peer({.identity = &IdentityOf(KeyKind::kRsa2048), .version = TLS1_3_VERSION, .postHandshakeAuth = true});
    engine.StartClient(kBoth, "localhost", "", &owner);
    ExpectReady(engine, peer);
    ExpectTraffic(engine, peer);
    EXPECT_FALSE(PeerHasCertificate(peer));
    for (int round = 0; round < 2; ++round) {
      ASSERT_EQ(SSL_verify_client_post_handshake(peer.Handle()), 1);
      SSL_do_handshake(peer.Handle());
      ExpectTraffic(engine, peer);
      EXPECT_EQ(PeerHasCertificate(peer), given);
      if (!given) break;
    }
  }
}

TEST(InteropLibssl, RenegotiationOnHelloRequest) {
  for (const std::string suite : {"ECDHE-RSA-AES128-GCM-SHA256", "AES128-SHA"}) {
    for (const unsigned long long options : {0ULL, static_cast<unsigned long long>(SSL_OP_NO_EXTENDED_MASTER_SECRET)}) {
      EnginePeer engine;
      LibsslPeer peer(
          {.identity = &IdentityOf(KeyKind::kRsa2048), .version = TLS1_2_VERSION, .suites = suite, .options = options});
      engine.StartClient(kBoth);
      ExpectReady(engine, peer);
      ExpectTraffic(engine, peer);
      for (int round = 0; round < 3; ++round) {
        const Bytes verifyData = engine.context.localVerifyData;
        ASSERT_EQ(SSL_renegotiate(peer.Handle()), 1);
        SSL_do_handshake(peer.Handle());
        Converse(engine, peer);
        EXPECT_TRUE(engine.Ready()) << engine.Error() << peer.Error();
        EXPECT_NE(engine.context.localVerifyData, verifyData);
        ExpectTraffic(engine, peer);
      }
    }
  }
}

TEST(InteropLibssl, ApplicationProtocol) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    EnginePeer client;
    LibsslPeer server({.identity = &IdentityOf(KeyKind::kP256), .version = version, .alpn = "http/1.1"});
    client.StartClient(kBoth, "localhost", "h2|http/1.1");
    ExpectReady(client, server);
    EXPECT_EQ(client.context.alpnNegotiated, "http/1.1");

    EnginePeer engine;
    LibsslPeer peer({.server = false, .version = version, .alpn = "http/1.1"});
    engine.StartServer(IdentityOf(KeyKind::kP256), kBoth, "h2|http/1.1");
    ExpectReady(engine, peer);
    EXPECT_EQ(engine.context.alpnNegotiated, "http/1.1");
  }
}

TEST(InteropLibssl, CloseFromEitherSide) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    EnginePeer engine;
    LibsslPeer peer({.identity = &IdentityOf(KeyKind::kP256), .version = version});
    engine.StartClient(kBoth);
    ExpectReady(engine, peer);
    ASSERT_TRUE(tls::TlsShutdown(engine.context, engine.output));
    Converse(engine, peer);
    EXPECT_TRUE(peer.closeNotified);
    EXPECT_EQ(engine.context.state, tls::State::kShutdown);

    EnginePeer other;
    LibsslPeer closing({.identity = &IdentityOf(KeyKind::kP256), .version = version});
    other.StartClient(kBoth);
    ExpectReady(other, closing);
    closing.Send(Pattern(100));
    SSL_shutdown(closing.Handle());
    Converse(other, closing);
    EXPECT_EQ(other.plaintext, Pattern(100));
    EXPECT_FALSE(other.failed);
    EXPECT_TRUE(other.Closed());
    EXPECT_EQ(other.Error(), "");
    // The answer has level 2, which a TLS 1.2 peer takes for a failure.
    EXPECT_EQ(closing.closeNotified, version == TLS1_3_VERSION) << closing.Error();
  }
}

TEST(InteropLibssl, ServerChoosesTls12ForAnOldClientAndSaysSo) {
  EnginePeer engine;
  LibsslPeer peer({.server = false, .version = TLS1_2_VERSION, .options = SSL_OP_NO_EXTENDED_MASTER_SECRET});
  engine.StartServer(IdentityOf(KeyKind::kRsa2048), kBoth);
  ExpectReady(engine, peer);
  EXPECT_EQ(engine.context.protocolVersion, tls::kVersionTls12);
  ExpectTraffic(engine, peer);
}

TEST(InteropLibssl, EngineAgainstItself) {
  for (const std::uint32_t features : {kTls12, kTls13, kBoth}) {
    EnginePeer client;
    EnginePeer server;
    client.StartClient(features);
    server.StartServer(IdentityOf(KeyKind::kP384), features);
    for (int round = 0; round < 4; ++round) {
      server.Feed(std::exchange(client.output, {}));
      client.Feed(std::exchange(server.output, {}));
    }
    ASSERT_TRUE(client.Ready()) << client.Error() << server.Error();
    ASSERT_TRUE(server.Ready());
    client.Send(Pattern(65536));
    server.Feed(std::exchange(client.output, {}));
    EXPECT_EQ(server.plaintext, Pattern(65536));
  }
}

}  // namespace
}  // namespace quenmark::test
