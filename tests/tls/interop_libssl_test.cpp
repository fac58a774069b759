// The engine against libssl, in memory, in both roles.
#include "tests/tls/peers.h"

#include <gtest/gtest.h>

#include <vector>

namespace quenmark::test {
namespace {

using tls::Bytes;

constexpr std::uint32_t kBoth = tls::kFeatureTls12 | tls::kFeatureTls13;

const std::string kSuites[] = {"TLS_AES_128_GCM_SHA256",
                               "TLS_AES_256_GCM_SHA384",
                               "TLS_CHACHA20_POLY1305_SHA256",
                               "ECDHE-ECDSA-AES128-GCM-SHA256",
                               "ECDHE-RSA-AES128-GCM-SHA256",
                               "ECDHE-ECDSA-AES256-GCM-SHA384",
                               "ECDHE-RSA-AES256-GCM-SHA384",
                               "ECDHE-ECDSA-CHACHA20-POLY1305",
                               "ECDHE-RSA-CHACHA20-POLY1305",
                               "ECDHE-ECDSA-AES128-SHA",
                               "ECDHE-RSA-AES128-SHA",
                               "ECDHE-ECDSA-AES256-SHA",
                               "ECDHE-RSA-AES256-SHA",
                               "AES128-GCM-SHA256",
                               "AES256-GCM-SHA384",
                               "AES128-SHA",
                               "AES256-SHA"};
const std::vector<KeyKind> kAllKeys = {KeyKind::kP256, KeyKind::kP384, KeyKind::kRsa2048, KeyKind::kRsa4096,
                                       KeyKind::kRsaPss};

std::vector<KeyKind> KeysOf(const std::string& suite) {
  if (suite.starts_with("TLS_")) return kAllKeys;
  if (suite.starts_with("ECDHE-ECDSA")) return {KeyKind::kP256, KeyKind::kP384};
  if (suite.starts_with("ECDHE-RSA")) return {KeyKind::kRsa2048, KeyKind::kRsa4096, KeyKind::kRsaPss};
  return {KeyKind::kRsa2048, KeyKind::kRsa4096};
}

int VersionOf(const std::string& suite) {
  return suite.starts_with("TLS_") ? TLS1_3_VERSION : TLS1_2_VERSION;
}

TEST(InteropLibssl, EverySuiteWithEveryKeyAndGroupInBothRoles) {
  for (const std::string& suite : kSuites) {
    for (const KeyKind key : KeysOf(suite)) {
      for (const std::string group : {"X25519", "P-256", "P-384", "P-521:P-384"}) {
        for (const bool client : {true, false}) {
          if ((client && group.starts_with("P-521")) || (key == KeyKind::kRsa4096 && group != "X25519")) continue;
          SCOPED_TRACE(suite + " " + KindName(key) + " " + group + (client ? " client" : " server"));
          const bool tls13 = VersionOf(suite) == TLS1_3_VERSION;
          // A TLS 1.2 client of this library must also name the curve of an ECDSA certificate.
          const bool named =
              client || tls13 || !KindName(key).starts_with("P-") || group.find(KindName(key)) != std::string::npos;
          Pair pair({.server = client,
                     .identity = &IdentityOf(key),
                     .version = VersionOf(suite),
                     .suites = suite,
                     .groups = named ? group : group + ":" + KindName(key),
                     .options = group == "P-256" ? SSL_OP_NO_EXTENDED_MASTER_SECRET : 0});
          const tls::Context& context = pair.engine.context;
          EXPECT_EQ(context.cipherSuite->name, suite);
          EXPECT_EQ(context.protocolVersion, SSL_version(pair.peer.Handle()));
          EXPECT_EQ(context.remoteCertificates,
                    client ? std::vector<Bytes>{IdentityOf(key).certificate} : std::vector<Bytes>{});
          EXPECT_EQ(context.sniRequested, client ? "" : "localhost");
          Bytes random(32);
          SSL_get_server_random(pair.peer.Handle(), random.data(), random.size());
          // "DOWNGRD" and 1, from a server that has TLS 1.3 and did not use it
          EXPECT_EQ(ToHex(random).ends_with("444f574e47524401"), !client && !tls13);
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
      Pair pair({.server = client, .version = VersionOf(suite), .suites = suite}, kBoth, nullptr, &random);
      pair.ExpectTraffic(1 << 20, &random);
    }
  }
}

TEST(InteropLibssl, ClientFollowsHelloRetryRequest) {
  for (const std::string group : {"P-256", "P-384"}) {
    Pair pair({.version = TLS1_3_VERSION, .groups = group});
    EXPECT_EQ(pair.engine.context.exchangeGroup, group == "P-256" ? 23 : 24);
    pair.ExpectTraffic();
  }
}

TEST(InteropLibssl, KeyUpdateFromEitherSide) {
  for (const bool client : {true, false}) {
    for (const int type : {SSL_KEY_UPDATE_NOT_REQUESTED, SSL_KEY_UPDATE_REQUESTED}) {
      Pair pair({.server = client, .version = TLS1_3_VERSION});
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
  Pair pair({.version = TLS1_3_VERSION});
  tls::Protection& local = pair.engine.context.local;
  const auto before = ToHex(local.trafficSecret.View());
  local.sequence = tls::kMaxAesGcmRecords - 3;
  pair.engine.Send(Pattern(10));
  EXPECT_EQ(ToHex(local.trafficSecret.View()), before);
  pair.engine.Send(Pattern(10));
  EXPECT_NE(ToHex(local.trafficSecret.View()), before);
  EXPECT_EQ(local.sequence, 1U);
}

TEST(InteropLibssl, ClientCertificateOfEveryKindOrNone) {
  std::vector<const Identity*> identities = {nullptr};
  for (const KeyKind key : kAllKeys) identities.push_back(&IdentityOf(key));
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    for (const Identity* identity : identities) {
      Pair pair({.version = version, .requestCertificate = true, .requireCertificate = identity != nullptr}, kBoth,
                identity);
      EXPECT_EQ(pair.engine.asked, 1);
      EXPECT_EQ(pair.PeerHasCertificate(), identity != nullptr);
      pair.ExpectTraffic();
    }
  }
}

TEST(InteropLibssl, PostHandshakeAuthentication) {
  for (const bool given : {true, false}) {
    Pair pair({.version = TLS1_3_VERSION, .postHandshakeAuth = true}, kBoth,
              given ? &IdentityOf(KeyKind::kP256) : nullptr);
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
      Pair pair({.version = TLS1_2_VERSION, .suites = suite, .options = options});
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
      const Pair pair({.server = client, .version = version, .alpn = "http/1.1"});
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

}  // namespace
}  // namespace quenmark::test
