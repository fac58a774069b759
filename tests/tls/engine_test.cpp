// The engine's interface: states, limits, splitting of input, protection that does not hold.
#include "tls/engine.h"

#include "tests/tls/peers.h"
#include "tests/tls/scenario.h"
#include "tls/post_handshake.h"
#include "tls/records.h"
#include "tls/secrets.h"
#include "tls/signature_schemes.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace quenmark::tls {
namespace {

using test::EnginePeer;
using test::FromHex;
using test::IdentityOf;
using test::KeyKind;
using test::LibsslPeer;
using test::Pair;
using test::Pattern;
using test::ToHex;

constexpr std::uint32_t kBoth = kFeatureTls12 | kFeatureTls13;

// The same random bytes and keys every time, so that a conversation can be repeated.
class FixedRandom : public CryptoServices {
 public:
  void Random(std::span<std::uint8_t> out) override {
    for (std::uint8_t& byte : out) byte = ++m_next;
  }
  KeyPair MakeKeyPair(const Group& group) override {
    return KeyPair::FromPrivate(group, Bytes(group.sharedSecretSize, 9));
  }

 private:
  std::uint8_t m_next = 0;
};

std::string LastError(const Context& context) {
  std::int32_t number = 0;
  std::string source;
  const std::string text = TlsGetLastError(context, number, source);
  return text + "|" + std::to_string(number) + "|" + source;
}

TEST(TlsEngine, StatesAndQueries) {
  Context context;
  Bytes out;
  Bytes plaintext;
  EXPECT_TRUE(TlsIsClosed(context));
  EXPECT_FALSE(TlsIsStarted(context));
  EXPECT_FALSE(TlsHandshake(context, {}, out));
  EXPECT_EQ(LastError(context), "Connection closed|-2147221504|mdTlsThunks.TlsHandshake");
  ASSERT_TRUE(TlsInitClient(context, "host", kBoth, nullptr, ""));
  EXPECT_TRUE(TlsIsStarted(context));
  EXPECT_FALSE(TlsReceive(context, FromHex("16030300040b000000"), plaintext, out));
  EXPECT_EQ(LastError(context),
            "Invalid state for handshake content (HandshakeStart). Handshake failure.|-2147221504|"
            "mdTlsThunks.TlsReceive");
  ASSERT_TRUE(TlsInitClient(context, "host", kBoth, nullptr, ""));
  ASSERT_TRUE(TlsHandshake(context, {}, out));
  out.clear();
  EXPECT_FALSE(TlsSend(context, FromHex("41"), out));
  EXPECT_EQ(out, Bytes());
  EXPECT_EQ(context.state, State::kExpectServerHello);
  TlsClose(context);
  EXPECT_TRUE(TlsIsClosed(context));
  EXPECT_EQ(context.handshake, nullptr);
  EXPECT_FALSE(TlsSend(context, FromHex("41"), out));
  EXPECT_EQ(LastError(context), "Connection closed|-2147221504|mdTlsThunks.TlsSend");
}

TEST(TlsEngine, ClientHelloIsWrittenInOrder) {
  FixedRandom services;
  Context context;
  context.services = &services;
  ASSERT_TRUE(TlsInitClient(context, "a.b", kBoth, nullptr, "h2|x"));
  Bytes out;
  ASSERT_TRUE(TlsHandshake(context, {}, out));
  const std::string random = "0102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f20";
  const std::string sessionId = "2122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e3f40";
  const std::string share = ToHex(KeyPair::FromPrivate(GroupOf(29), Bytes(32, 9)).Public());
  EXPECT_EQ(ToHex(out), "16030300fa010000f60303" + random + "20" + sessionId +
                            "0022130113021303c02bc02fc02cc030cca9cca8c009c013c00ac014009c009d002f00350100008b"
                            "000000080006000003612e62"  // server_name
                            "0010000700050268320178"    // ALPN
                            "000a00080006001d00170018"  // supported_groups
                            "000b00020100"
                            "00170000"
                            "ff01000100"  // TLS 1.2
                            "000d001e001c040305030804080508060809080a080b030104010501060102010203"
                            "00310000"
                            "003300260024001d0020" +
                            share +  // TLS 1.3
                            "002b00050403040303");
}

TEST(TlsEngine, OfferFollowsFeaturesAndLocalKey) {
  EXPECT_EQ(CipherSuiteOffer(kBoth, false, "").size(), 17U);
  EXPECT_EQ(CipherSuiteOffer(kFeatureTls13, false, ""), (std::vector<std::uint16_t>{0x1301, 0x1302, 0x1303}));
  EXPECT_EQ(CipherSuiteOffer(kFeatureTls12, true, oid::kSecp256r1),
            (std::vector<std::uint16_t>{0xC02B, 0xC02C, 0xCCA9, 0xC009, 0xC00A}));
  EXPECT_EQ(CipherSuiteOffer(kFeatureTls12, true, oid::kRsaPss),
            (std::vector<std::uint16_t>{0xC02F, 0xC030, 0xCCA8, 0xC013, 0xC014, 0x009C, 0x009D, 0x002F, 0x0035}));
  EXPECT_TRUE(CipherSuiteOffer(0, false, "").empty());
}

// A whole conversation of the engine with itself, every flight byte by byte or, with `cut`, in two parts. Gives the
// size of the longest flight.
std::size_t TalkInPieces(std::uint32_t features, std::size_t cut) {
  EnginePeer client;
  EnginePeer server;
  std::size_t longest = 0;
  const auto pass = [&](EnginePeer& from, EnginePeer& to) {
    const Bytes wire = std::exchange(from.output, {});
    longest = std::max(longest, wire.size());
    for (std::size_t at = 0; at < wire.size();) {
      const std::size_t end = cut == 0 ? at + 1 : at == 0 ? std::min(cut, wire.size()) : wire.size();
      to.Feed(BytesView(wire).subspan(at, end - at));
      at = end;
    }
  };
  server.StartServer(IdentityOf(KeyKind::kP256), features);
  client.StartClient(features);
  for (int round = 0; round < 2; ++round) {
    pass(client, server);
    pass(server, client);
  }
  for (EnginePeer* peer : {&client, &server}) {
    peer->Send(Pattern(40));
    peer->context.sendBuffer.swap(peer->output);
    if (features == kFeatureTls13) SendKeyUpdate(peer->context);
    peer->context.sendBuffer.swap(peer->output);
    peer->Send(Pattern(40));
  }
  pass(client, server);
  EXPECT_TRUE(TlsShutdown(server.context, server.output));
  pass(server, client);
  Bytes sent = Pattern(40);
  sent.insert(sent.end(), sent.begin(), sent.begin() + 40);
  for (const EnginePeer* peer : {&client, &server}) {
    EXPECT_FALSE(peer->failed) << peer->Error();
    EXPECT_EQ(peer->plaintext, sent);
  }
  EXPECT_EQ(client.context.state, State::kClosed);
  return longest;
}

TEST(TlsEngine, EveryCutOfTheInputGivesTheSame) {
  for (const std::uint32_t features : {kFeatureTls12, kFeatureTls13}) {
    const std::size_t longest = TalkInPieces(features, 0);
    for (std::size_t cut = 1; cut < longest && !HasFailure(); ++cut) {
      SCOPED_TRACE(cut);
      TalkInPieces(features, cut);
    }
  }
}

TEST(TlsEngine, ChangedRecordsDoNotDecrypt) {
  const std::pair<std::string, std::string> rows[] = {
      {"TLS_AES_128_GCM_SHA256", "Decryption failed"},      {"TLS_CHACHA20_POLY1305_SHA256", "Decryption failed"},
      {"ECDHE-RSA-AES256-GCM-SHA384", "Decryption failed"}, {"ECDHE-RSA-CHACHA20-POLY1305", "Decryption failed"},
      {"ECDHE-RSA-AES128-SHA", "MAC verification failed"},
  };
  for (const auto& [suite, text] : rows) {
    std::size_t size = 6;  // of the changed record; known when it is there
    for (std::size_t at = 5; at < size; at += 7) {
      SCOPED_TRACE(suite + " " + std::to_string(at));
      Pair connected({.version = suite.starts_with("TLS_") ? TLS1_3_VERSION : TLS1_2_VERSION, .suites = suite});
      connected.peer.Send(Pattern(30));
      Bytes records = connected.peer.TakeOutput();
      const std::size_t start = records.size();
      connected.peer.Send(Pattern(40));
      const Bytes record = connected.peer.TakeOutput();
      size = record.size();
      records.insert(records.end(), record.begin(), record.end());
      records[start + at] ^= 0x40;
      EnginePeer& engine = connected.engine;
      engine.Feed(records);
      EXPECT_TRUE(engine.failed);
      EXPECT_EQ(engine.context.lastError.description, text);
      EXPECT_EQ(engine.context.lastError.alertCode, 20);
      EXPECT_EQ(engine.plaintext, Pattern(30));  // what was good before is not lost, nothing of the rest gets out
      connected.peer.Feed(engine.output);
      EXPECT_NE(connected.peer.Error().find("bad record mac"), std::string::npos) << connected.peer.Error();
    }
  }
}

// Records whose content, MAC and padding are in sight.
TEST(TlsEngine, CbcPaddingAndMacFaultsLookAlike) {
  const Bytes macKey(20, 4);
  const auto open = [&](const Bytes& plain) -> std::string {
    Protection protection;
    protection.suite = &pvTlsSetupCipherSuite(0x002F);
    protection.version = kVersionTls12;
    protection.macKey.Assign(macKey);
    protection.cipher = test::NullProtection().MakeCipher(protection.suite->bulk, {}, CipherUse::kDecrypt);
    Bytes content(16, 1);  // the IV
    content.insert(content.end(), plain.begin(), plain.end());
    Bytes out;
    try {
      return std::to_string(Open(protection, SystemCrypto(), test::Encode({{23, 0, content}}, false), out).size);
    } catch (const ProtocolFailure& failure) {
      return failure.description + " " + std::to_string(failure.alert);
    }
  };
  // Every padding length a sender may choose, up to 256 bytes, is accepted; any wrong byte of it is not.
  for (std::size_t padding = 1; padding <= 256; ++padding) {
    SCOPED_TRACE(padding);
    const std::size_t size = 16 * 20 - 20 - padding;
    Bytes plain(size, 'd');
    Bytes header = FromHex("0000000000000000170303");
    header.push_back(static_cast<std::uint8_t>(size >> 8));
    header.push_back(static_cast<std::uint8_t>(size));
    const SecretBytes mac = pvTlsGetHmac(Digest::kSha1, macKey, {header, plain});
    plain.insert(plain.end(), mac.View().begin(), mac.View().end());
    plain.insert(plain.end(), padding, static_cast<std::uint8_t>(padding - 1));
    ASSERT_EQ(open(plain), std::to_string(size));
    Bytes changed = plain;
    changed[size + 19] ^= 1;  // the end of the MAC
    ASSERT_EQ(open(changed), "MAC verification failed 20");
    if (padding == 1) continue;
    changed = plain;
    changed[size + 20] ^= 1;  // the beginning of the padding
    ASSERT_EQ(open(changed), "MAC verification failed 20");
    plain.back() = 255;  // may reach beyond the record
    ASSERT_EQ(open(plain), padding == 256 ? std::to_string(size) : "MAC verification failed 20");
  }
  EXPECT_EQ(open(Bytes(16)), "Decryption failed 20");
  EXPECT_EQ(open(Bytes(47)), "Decryption failed 20");
}

TEST(TlsEngine, ExplicitNonceChangesWithEveryRecord) {
  Pair connected({.version = TLS1_2_VERSION, .suites = "ECDHE-RSA-AES128-GCM-SHA256"});
  std::set<std::string> nonces;
  for (int i = 0; i < 300; ++i) {
    Bytes out;
    ASSERT_TRUE(TlsSend(connected.engine.context, Pattern(1), out));
    EXPECT_TRUE(nonces.insert(ToHex(BytesView(out).subspan(5, 8))).second);
  }
}

TEST(TlsEngine, UsedUpSequenceNumberClosesInsteadOfComingRound) {
  for (const bool sending : {true, false}) {
    Pair connected({.version = TLS1_2_VERSION});
    Context& context = connected.engine.context;
    (sending ? context.local : context.remote).sequence = kMaxSequence + 1;
    Bytes out;
    Bytes plaintext;
    connected.peer.Send(Pattern(5));
    EXPECT_FALSE(sending ? TlsSend(context, Pattern(5), out)
                         : TlsReceive(context, connected.peer.TakeOutput(), plaintext, out));
    EXPECT_EQ(context.lastError.description, "Record sequence number used up");
    EXPECT_EQ(context.state, State::kClosed);
    EXPECT_TRUE(out.empty());
  }
}

TEST(TlsEngine, InsecureRenegotiationIsDeclined) {
  Pair connected({.version = TLS1_2_VERSION});
  EnginePeer& engine = connected.engine;
  engine.context.secureRenegotiation = false;
  SSL_renegotiate(connected.peer.Handle());
  SSL_do_handshake(connected.peer.Handle());
  engine.Feed(connected.peer.TakeOutput());
  EXPECT_EQ(engine.context.state, State::kPostHandshake);
  EXPECT_FALSE(engine.output.empty());
  connected.peer.Feed(engine.output);
  EXPECT_NE(connected.peer.Error().find("no renegotiation"), std::string::npos) << connected.peer.Error();
}

TEST(TlsEngine, LastErrorText) {
  const std::pair<EngineErrorRecord, const char*> rows[] = {
      {{kEngineError, "Something", "mdTlsThunks.TlsSend", 40},
       "Something. Handshake failure.|-2147221504|mdTlsThunks.TlsSend"},
      {{kEngineError, "", "", 90}, "User canceled.|0|"},
      {{kEngineError, "x", "", 100}, "x. No renegotiation.|0|"},
      {{kEngineError, "x", "", 86}, "x. Unknown (86).|-2147221504|"},
      {{kEngineError, "x", "", 0}, "x|-2147221504|"},
  };
  Context context;
  for (const auto& [error, text] : rows) {
    context.lastError = error;
    EXPECT_EQ(LastError(context), text);
  }
}

TEST(TlsEngine, ShutdownOnceAndThenNoMore) {
  Pair connected({.version = TLS1_3_VERSION});
  EnginePeer& engine = connected.engine;
  ASSERT_TRUE(TlsShutdown(engine.context, engine.output));
  const Bytes closeNotify = engine.output;
  EXPECT_TRUE(TlsIsShutdown(engine.context));
  EXPECT_TRUE(TlsShutdown(engine.context, engine.output));
  EXPECT_FALSE(TlsSend(engine.context, Pattern(3), engine.output));
  EXPECT_TRUE(TlsIsShutdown(engine.context));
  // The other direction goes on, new keys included; nothing is answered (RFC 8446 §6.1).
  SSL_key_update(connected.peer.Handle(), SSL_KEY_UPDATE_REQUESTED);
  connected.peer.Send(Pattern(20));
  SSL_shutdown(connected.peer.Handle());
  engine.Feed(connected.peer.TakeOutput());
  EXPECT_EQ(engine.plaintext, Pattern(20));
  EXPECT_EQ(engine.output, closeNotify);
  EXPECT_EQ(LastError(engine.context), "|0|");
  EXPECT_TRUE(engine.Closed());
}

TEST(TlsEngine, EcdsaSchemesTakeTheirCurvesAlone) {
  const std::pair<KeyKind, const char*> kRows[] = {
      {KeyKind::kP256, "Invalid certificate signature"},
      {KeyKind::kP384, "Unsupported curve size (48)"},
      {KeyKind::kSecp256k1, "Unsupported public key OID (1.3.132.0.10)"},
      {KeyKind::kBrainpool256, "Unsupported public key OID (1.3.36.3.3.2.8.1.1.7)"},
      {KeyKind::kRsa2048, "Unsupported public key OID (1.2.840.113549.1.1.1)"},
  };
  for (const auto& [kind, text] : kRows) {
    for (const bool tls13 : {true, false}) {
      const auto failure =
          pvTlsSignatureVerify(SystemCrypto(), IdentityOf(kind).certificate, 0x0403, {.tls13 = tls13}, {}, {});
      ASSERT_TRUE(failure);
      EXPECT_EQ(failure->description, tls13 || kind != KeyKind::kP384 ? text : "Invalid certificate signature");
      EXPECT_EQ(failure->alert, 40);
    }
  }
}

TEST(TlsEngine, HelpersRaiseTheirErrors) {
  static const Bytes kDigest(32);
  static const Bytes& key = IdentityOf(KeyKind::kP256).privateKey;
  struct Row {
    const char* text;
    void (*call)(Context&);
  };
  const Row rows[] = {
      {"pvTlsGetHash: Unsupported hash type 99", [](Context&) { pvTlsGetHash(static_cast<Digest>(99), {}); }},
      {"pvTlsGetHmac: Unsupported HMAC type 99", [](Context&) { pvTlsGetHmac(static_cast<Digest>(99), {}, {}); }},
      {"pvTlsBulkEncrypt: Unsupported bulk type 99",
       [](Context&) { MakeBulkCipher(static_cast<Bulk>(99), {}, CipherUse::kEncrypt); }},
      {"pvTlsBulkDecrypt: Unsupported bulk type 99",
       [](Context&) { MakeBulkCipher(static_cast<Bulk>(99), {}, CipherUse::kDecrypt); }},
      {"pvTlsSetupExchGroup: Unsupported exchange group (0x0019)", [](Context&) { GroupOf(25); }},
      {"pvTlsSetupCipherSuite: Unsupported cipher suite (0x1304)", [](Context&) { pvTlsSetupCipherSuite(0x1304); }},
      {"pvTlsDeriveHandshakeSecrets: Missing handshake messages", [](Context& c) { DeriveHandshakeSecrets(c); }},
      {"pvTlsDeriveApplicationSecrets: Missing handshake messages",
       [](Context& c) { DeriveApplicationSecrets(c, kDigest); }},
      {"pvTlsDeriveKeyUpdate: Missing previous RemoteTrafficSecret",
       [](Context& c) { pvTlsDeriveKeyUpdate(c, true, false); }},
      {"pvTlsDeriveKeyUpdate: Missing previous LocalTrafficSecret",
       [](Context& c) { pvTlsDeriveKeyUpdate(c, false, true); }},
      {"pvTlsDeriveLegacySecrets: Missing remote random", [](Context& c) { pvTlsDeriveLegacySecrets(c, kDigest); }},
      {"pvTlsGetSharedSecret: Unsupported exchange 9",
       [](Context& c) { pvTlsGetSharedSecret(c, static_cast<Exchange>(9)); }},
      {"pvTlsSetupExchRsaCertificate: Unsupported certificate",
       [](Context& c) { pvTlsSetupExchRsaCertificate(c, IdentityOf(KeyKind::kP256).certificate); }},
      {"pvTlsSetupExchRsaPreMasterSecret: Missing server private key",
       [](Context& c) { pvTlsSetupExchRsaPreMasterSecret(c, kDigest); }},
      {"pvTlsSetupExchRsaPreMasterSecret: Unsupported private key",
       [](Context& c) { c.localPrivateKey.assign(5, 1), pvTlsSetupExchRsaPreMasterSecret(c, kDigest); }},
      {"pvTlsSignatureSign: Missing server private key", [](Context&) { pvTlsSignatureSign({}, 0x0403, {}); }},
      {"pvTlsSignatureSign: Unsupported private key", [](Context&) { pvTlsSignatureSign(kDigest, 0x0403, {}); }},
      {"pvTlsSignatureSign: Unsupported signature scheme (0x0203)",
       [](Context&) { pvTlsSignatureSign(key, 0x0203, {}); }},
      {"pvTlsSignatureSign: Certificate signature failed (RSA_PSS_RSAE_SHA256)",
       [](Context&) { pvTlsSignatureSign(key, 0x0804, {}); }},
  };
  for (const Row& row : rows) {
    Context context;
    context.handshake = std::make_unique<Handshake>();
    try {
      row.call(context);
      ADD_FAILURE() << row.text;
    } catch (const RaisedError& error) {
      EXPECT_EQ(error.source + ": " + error.description, row.text);
      EXPECT_EQ(error.number, static_cast<std::int32_t>(0x80040000));
    }
  }
}

// An owner that calls into the connection, and closes it, while it is asked.
TEST(TlsEngine, OwnerMayCloseInsideItsCallback) {
  EnginePeer engine;
  engine.shown = &IdentityOf(KeyKind::kP256);
  engine.whenAsked = [&] {
    Bytes out;
    EXPECT_FALSE(TlsHandshake(engine.context, FromHex("00"), out));
    TlsClose(engine.context);
  };
  LibsslPeer peer({.identity = &IdentityOf(KeyKind::kP256), .version = TLS1_3_VERSION, .requestCertificate = true});
  engine.StartClient(kBoth);
  Converse(engine, peer);
  EXPECT_TRUE(engine.Closed());
  EXPECT_TRUE(engine.failed);
  EXPECT_FALSE(peer.Ready());
}

TEST(TlsEngine, UndecodableKeyIsTold) {
  for (const bool client : {true, false}) {
    EnginePeer engine;
    LibsslPeer peer({.server = client, .identity = &IdentityOf(KeyKind::kRsa2048), .requestCertificate = client});
    engine.context.localCertificates = {IdentityOf(KeyKind::kP256).certificate};
    if (client) {
      engine.context.localPrivateKey.assign(30, 7);
      engine.StartClient(kFeatureTls13);
    } else {
      engine.failed = !TlsInitServer(engine.context, "", {FromHex("00")}, FromHex("00"), "", kBoth);
    }
    Converse(engine, peer);
    EXPECT_EQ(engine.context.lastError.description, client ? "Unsupported private key" : "Unsupported certificate");
    EXPECT_EQ(engine.context.lastError.alertCode, 40);
  }
}

}  // namespace
}  // namespace quenmark::tls
