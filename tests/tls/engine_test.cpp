// The engine's interface: states, limits, splitting of input, protection that does not hold.
#include "tls/engine.h"

#include "tests/tls/peers.h"
#include "tests/tls/scenario.h"
#include "tls/post_handshake.h"
#include "tls/records.h"
#include "tls/secrets.h"
#include "tls/signature_schemes.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace quenmark::tls {
namespace {

using test::EnginePeer;
using test::FromHex;
using test::Identity;
using test::IdentityOf;
using test::KeyKind;
using test::LibsslPeer;
using test::Pattern;
using test::Scenario;
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

// A client and a libssl server after their handshake.
struct Connected {
  explicit Connected(int version, const std::string& suites = {}, KeyKind key = KeyKind::kRsa2048)
      : peer({.identity = &IdentityOf(key), .version = version, .suites = suites}) {
    engine.StartClient(kBoth);
    Converse(engine, peer);
    EXPECT_TRUE(engine.Ready()) << engine.Error();
  }
  EnginePeer engine;
  LibsslPeer peer;
};

TEST(TlsEngine, StatesAndQueries) {
  Context context;
  Bytes out;
  Bytes plaintext;
  EXPECT_TRUE(TlsIsClosed(context));
  EXPECT_FALSE(TlsIsStarted(context));
  EXPECT_FALSE(TlsHandshake(context, {}, out));
  EXPECT_EQ(LastError(context), "Connection closed|-2147221504|mdTlsThunks.TlsHandshake");
  ASSERT_TRUE(TlsInitClient(context, "host", kBoth, nullptr, ""));
  EXPECT_EQ(context.state, State::kHandshakeStart);
  EXPECT_TRUE(TlsIsStarted(context));
  EXPECT_FALSE(TlsReceive(context, FromHex("16030300040b000000"), plaintext, out));
  EXPECT_EQ(LastError(context),
            "Invalid state for handshake content (HandshakeStart). Handshake failure.|-2147221504|"
            "mdTlsThunks.TlsReceive");
  ASSERT_TRUE(TlsInitClient(context, "host", kBoth, nullptr, ""));
  out.clear();
  ASSERT_TRUE(TlsHandshake(context, {}, out));
  EXPECT_EQ(context.state, State::kExpectServerHello);
  const std::size_t hello = out.size();
  EXPECT_FALSE(TlsSend(context, FromHex("41"), out));
  EXPECT_EQ(out.size(), hello);
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

TEST(TlsEngine, SendCutsAtSixteenKilobytes) {
  Connected connected(TLS1_3_VERSION);
  Bytes out;
  ASSERT_TRUE(TlsSend(connected.engine.context, Pattern(65536), out));
  EXPECT_EQ(out.size(), 4 * (5 + 16384 + 1 + 16U));
  connected.peer.Feed(out);
  EXPECT_TRUE(connected.peer.plaintext == Pattern(65536));
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
  const auto write = [](EnginePeer& peer, const std::function<void(Context&)>& message) {
    peer.context.sendBuffer.swap(peer.output);
    message(peer.context);
    peer.context.sendBuffer.swap(peer.output);
  };
  server.StartServer(IdentityOf(KeyKind::kP256), features);
  client.StartClient(features);
  for (int round = 0; round < 2; ++round) {
    pass(client, server);
    pass(server, client);
  }
  const bool tls13 = features == kFeatureTls13;
  if (tls13) {
    write(server,
          [](Context& context) { WriteHandshake(context, FromHex("0400000E00000001 00000000 00 0001 0A 0000")); });
  }
  for (EnginePeer* peer : {&client, &server}) {
    peer->Send(Pattern(40));
    if (tls13) write(*peer, SendKeyUpdate);
    peer->Send(Pattern(30, 2));
  }
  pass(client, server);
  EXPECT_TRUE(TlsShutdown(server.context, server.output));
  pass(server, client);
  Bytes sent = Pattern(40);
  const Bytes more = Pattern(30, 2);
  sent.insert(sent.end(), more.begin(), more.end());
  for (const EnginePeer* peer : {&client, &server}) {
    EXPECT_FALSE(peer->failed) << peer->Error();
    EXPECT_EQ(peer->plaintext, sent);
  }
  EXPECT_EQ(client.context.sessionTickets.size(), tls13 ? 1U : 0U);
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

TEST(TlsEngine, HandshakeMessageOverManyRecordsIsReassembled) {
  Scenario scenario;
  int pieces = 0;
  scenario.Run(Scenario::Under::kClient, kFeatureTls13, [&](std::vector<test::Item>& items) {
    std::vector<test::Item> cut;
    for (const test::Item& item : items) {
      if (item.type != 22) {
        cut.push_back(item);
        continue;
      }
      for (std::size_t at = 0; at < item.content.size(); at += 7, ++pieces) {
        const std::size_t end = std::min(at + 7, item.content.size());
        cut.push_back({22, item.protection,
                       Bytes(item.content.begin() + static_cast<std::ptrdiff_t>(at),
                             item.content.begin() + static_cast<std::ptrdiff_t>(end))});
      }
    }
    items = cut;
  });
  EXPECT_GT(pieces, 50);
  EXPECT_EQ(scenario.client.state, State::kPostHandshake) << scenario.client.lastError.description;
}

TEST(TlsEngine, UnknownMessagesInTheServersFlightAreSkipped) {
  // In the digest of both sides, so that the handshake still fails at the end when only one side has it.
  Scenario scenario;
  scenario.Run(Scenario::Under::kClient, kFeatureTls13, [](std::vector<test::Item>& items) {
    for (std::size_t i = 0; i < items.size(); ++i) {
      if (items[i].IsMessage(15))
        items.insert(items.begin() + static_cast<std::ptrdiff_t>(i), {22, 0x0304, FromHex("16000000")});
      if (items[i].IsMessage(22)) break;
    }
  });
  EXPECT_EQ(scenario.client.lastError.description, "Invalid certificate signature");
}

TEST(TlsEngine, DowngradeMarkerEndsTheHandshake) {
  Scenario scenario;
  scenario.client.services = scenario.server.services = &SystemCrypto();
  ASSERT_TRUE(TlsInitClient(scenario.client, "h", kBoth, nullptr, ""));
  Bytes hello;
  ASSERT_TRUE(TlsHandshake(scenario.client, {}, hello));
  // Somebody in between takes the newer version away.
  Bytes body(hello.begin() + 9, hello.end());
  test::RemoveExtension(body, false, 43);
  Bytes message = {1, 0, static_cast<std::uint8_t>(body.size() >> 8), static_cast<std::uint8_t>(body.size())};
  message.insert(message.end(), body.begin(), body.end());
  const Identity& identity = IdentityOf(KeyKind::kP256);
  ASSERT_TRUE(TlsInitServer(scenario.server, "", {identity.certificate}, identity.privateKey, "", kBoth));
  Bytes answer;
  ASSERT_TRUE(TlsHandshake(scenario.server, test::RawRecord(22, message), answer));
  Bytes out;
  EXPECT_FALSE(TlsHandshake(scenario.client, answer, out));
  EXPECT_EQ(scenario.client.lastError.description, "Invalid protocol version");
  EXPECT_EQ(ToHex(out), "1503030002022f");
}

TEST(TlsEngine, ChangedRecordsDoNotDecrypt) {
  struct Row {
    int version;
    std::string suite;
    std::string text;
  };
  const std::vector<Row> rows = {
      {TLS1_3_VERSION, "TLS_AES_128_GCM_SHA256", "Decryption failed"},
      {TLS1_3_VERSION, "TLS_CHACHA20_POLY1305_SHA256", "Decryption failed"},
      {TLS1_2_VERSION, "ECDHE-RSA-AES256-GCM-SHA384", "Decryption failed"},
      {TLS1_2_VERSION, "ECDHE-RSA-CHACHA20-POLY1305", "Decryption failed"},
      {TLS1_2_VERSION, "ECDHE-RSA-AES128-SHA", "MAC verification failed"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.suite);
    Connected first(row.version, row.suite);
    first.peer.Send(Pattern(40));
    const std::size_t size = first.peer.TakeOutput().size();
    for (std::size_t at = 5; at < size; at += 7) {
      Connected connected(row.version, row.suite);
      connected.peer.Send(Pattern(30));
      connected.peer.Send(Pattern(40));
      Bytes records = connected.peer.TakeOutput();
      records[records.size() - size + at] ^= 0x40;
      EnginePeer& engine = connected.engine;
      engine.Feed(records);
      EXPECT_TRUE(engine.failed);
      EXPECT_EQ(engine.context.lastError.description, row.text) << at;
      EXPECT_EQ(engine.context.lastError.alertCode, 20);
      EXPECT_EQ(engine.plaintext, Pattern(30));  // what was good before is not lost, nothing of the rest gets out
      connected.peer.Feed(engine.output);
      EXPECT_NE(connected.peer.Error().find("bad record mac"), std::string::npos) << connected.peer.Error();
    }
  }
}

TEST(TlsEngine, CbcPaddingAndMacFaultsLookAlike) {
  const CipherSuite& suite = pvTlsSetupCipherSuite(0x002F);
  const Bytes key(16, 3);
  const Bytes macKey(20, 4);
  const auto make = [&](CipherUse use) {
    Protection protection;
    protection.suite = &suite;
    protection.version = kVersionTls12;
    protection.macKey.Assign(macKey);
    protection.cipher = MakeBulkCipher(suite.bulk, key, use);
    return protection;
  };
  // Content, MAC and padding as given, encrypted.
  const auto record = [&](const Bytes& plain) {
    const auto cipher = MakeBulkCipher(suite.bulk, key, CipherUse::kEncrypt);
    const Bytes iv(16, 1);
    Bytes out = {23, 3, 3, static_cast<std::uint8_t>((plain.size() + 16) >> 8),
                 static_cast<std::uint8_t>(plain.size() + 16)};
    out.insert(out.end(), iv.begin(), iv.end());
    const std::size_t at = out.size();
    out.resize(at + plain.size());
    EXPECT_TRUE(cipher->Encrypt(iv, {}, plain, out.data() + at));
    return out;
  };
  const auto open = [&](const Bytes& wire) -> std::string {
    Protection protection = make(CipherUse::kDecrypt);
    Bytes out;
    try {
      const Opened opened = Open(protection, SystemCrypto(), wire, out);
      return std::to_string(opened.size);
    } catch (const ProtocolFailure& failure) {
      return failure.description + " " + std::to_string(failure.alert);
    }
  };
  // Every padding length a sender may choose, up to 256 bytes, is accepted; any wrong byte of it is not.
  for (std::size_t padding = 1; padding <= 256; ++padding) {
    const std::size_t size = 16 * 20 - 20 - padding;
    Bytes plain(size, 'd');
    Bytes header = FromHex("0000000000000000170303");
    header.push_back(static_cast<std::uint8_t>(size >> 8));
    header.push_back(static_cast<std::uint8_t>(size));
    const SecretBytes mac = pvTlsGetHmac(Digest::kSha1, macKey, {header, plain});
    plain.insert(plain.end(), mac.View().begin(), mac.View().end());
    plain.insert(plain.end(), padding, static_cast<std::uint8_t>(padding - 1));
    ASSERT_EQ(open(record(plain)), std::to_string(size)) << padding;
    Bytes changed = plain;
    changed[size + 19] ^= 1;
    ASSERT_EQ(open(record(changed)), "MAC verification failed 20");
    if (padding == 1) continue;
    changed = plain;
    changed[size + 20] ^= 1;
    ASSERT_EQ(open(record(changed)), "MAC verification failed 20");
    changed = plain;
    changed.back() = 255;  // may reach beyond the record
    ASSERT_EQ(open(record(changed)), padding == 256 ? std::to_string(size) : "MAC verification failed 20") << padding;
  }
  EXPECT_EQ(open(record(Bytes(16, 0))), "Decryption failed 20");
  Bytes ragged = record(Bytes(48, 0));
  ragged.pop_back();
  ragged[4]--;
  EXPECT_EQ(open(ragged), "Decryption failed 20");
}

TEST(TlsEngine, ExplicitNonceChangesWithEveryRecord) {
  Connected connected(TLS1_2_VERSION, "ECDHE-RSA-AES128-GCM-SHA256");
  std::vector<std::string> nonces;
  for (int i = 0; i < 300; ++i) {
    Bytes out;
    ASSERT_TRUE(TlsSend(connected.engine.context, Pattern(1), out));
    nonces.push_back(ToHex(BytesView(out).subspan(5, 8)));
  }
  std::sort(nonces.begin(), nonces.end());
  EXPECT_EQ(std::adjacent_find(nonces.begin(), nonces.end()), nonces.end());
}

TEST(TlsEngine, UsedUpSequenceNumberClosesInsteadOfComingRound) {
  for (const bool sending : {true, false}) {
    Connected connected(TLS1_2_VERSION);
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
  Connected connected(TLS1_2_VERSION);
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
  Context context;
  context.lastError = {kEngineError, "Something", "mdTlsThunks.TlsSend", 40};
  EXPECT_EQ(LastError(context), "Something. Handshake failure.|-2147221504|mdTlsThunks.TlsSend");
  context.lastError = {kEngineError, "", "", 90};
  EXPECT_EQ(LastError(context), "User canceled.|0|");
  context.lastError = {kEngineError, "x", "", 100};
  EXPECT_EQ(LastError(context), "x. No renegotiation.|0|");
  context.lastError = {kEngineError, "x", "", 86};
  EXPECT_EQ(LastError(context), "x. Unknown (86).|-2147221504|");
  context.lastError = {kEngineError, "x", "", 0};
  EXPECT_EQ(LastError(context), "x|-2147221504|");
}

TEST(TlsEngine, ShutdownOnceAndThenNoMore) {
  Connected connected(TLS1_3_VERSION);
  Context& context = connected.engine.context;
  Bytes out;
  ASSERT_TRUE(TlsShutdown(context, out));
  const std::size_t size = out.size();
  EXPECT_TRUE(TlsIsShutdown(context));
  EXPECT_TRUE(TlsShutdown(context, out));
  EXPECT_EQ(out.size(), size);
  EXPECT_FALSE(TlsSend(context, Pattern(3), out));
  EXPECT_TRUE(TlsIsShutdown(context));
  // The other direction goes on: data, keys, tickets; nothing is answered (RFC 8446 §6.1).
  SSL_new_session_ticket(connected.peer.Handle());
  SSL_key_update(connected.peer.Handle(), SSL_KEY_UPDATE_REQUESTED);
  SSL_do_handshake(connected.peer.Handle());
  connected.peer.Send(Pattern(20));
  const std::size_t tickets = context.sessionTickets.size();
  Bytes plaintext;
  EXPECT_TRUE(TlsReceive(context, connected.peer.TakeOutput(), plaintext, out)) << LastError(context);
  EXPECT_EQ(plaintext, Pattern(20));
  EXPECT_GT(context.sessionTickets.size(), tickets);
  EXPECT_EQ(out.size(), size);
  SSL_shutdown(connected.peer.Handle());
  EXPECT_TRUE(TlsReceive(context, connected.peer.TakeOutput(), plaintext, out)) << LastError(context);
  EXPECT_EQ(context.state, State::kClosed);
}

// A close_notify of one's own does not make the rest of the server's flight trustworthy.
TEST(TlsEngine, ShutdownDoesNotCompleteAHandshake) {
  for (const std::uint8_t type : {content_type::kApplicationData, content_type::kHandshake}) {
    Scenario scenario;
    Bytes out;
    const Bytes content = type == content_type::kHandshake ? FromHex("1800000100") : FromHex("41");
    scenario.Run(Scenario::Under::kClient, kFeatureTls13, [&](std::vector<test::Item>& items) {
      if (items.size() > 1) items.resize(1);  // the ServerHello alone
    });
    ASSERT_EQ(scenario.client.state, State::kExpectExtensions);
    ASSERT_TRUE(TlsShutdown(scenario.client, out));
    Bytes plaintext;
    EXPECT_FALSE(TlsReceive(scenario.client, test::Encode({{type, kVersionTls13, content}}, false), plaintext, out));
    EXPECT_EQ(plaintext, Bytes());
    EXPECT_EQ(scenario.client.lastError.description, type == content_type::kHandshake
                                                         ? "Invalid state for handshake content (Shutdown)"
                                                         : "Unexpected record type (23)");
  }
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
  static const Identity& own = IdentityOf(KeyKind::kP256);
  struct Row {
    const char* text;
    void (*call)(Context&);
  };
  const Row rows[] = {
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
       [](Context& c) { pvTlsSetupExchRsaCertificate(c, own.certificate); }},
      {"pvTlsSetupExchRsaPreMasterSecret: Missing server private key",
       [](Context& c) { pvTlsSetupExchRsaPreMasterSecret(c, kDigest); }},
      {"pvTlsSetupExchRsaPreMasterSecret: Unsupported private key",
       [](Context& c) { c.localPrivateKey.assign(5, 1), pvTlsSetupExchRsaPreMasterSecret(c, kDigest); }},
      {"pvTlsSignatureSign: Missing server private key", [](Context&) { pvTlsSignatureSign({}, 0x0403, {}); }},
      {"pvTlsSignatureSign: Unsupported private key", [](Context&) { pvTlsSignatureSign(kDigest, 0x0403, {}); }},
      {"pvTlsSignatureSign: Unsupported signature scheme (0x0203)",
       [](Context&) { pvTlsSignatureSign(own.privateKey, 0x0203, {}); }},
      {"pvTlsSignatureSign: Certificate signature failed (RSA_PSS_RSAE_SHA256)",
       [](Context&) { pvTlsSignatureSign(own.privateKey, 0x0804, {}); }},
  };
  for (const Row& row : rows) {
    Context context;
    context.handshake = std::make_unique<Handshake>();
    try {
      row.call(context);
      ADD_FAILURE() << row.text;
    } catch (const RaisedError& error) {
      EXPECT_EQ(error.source + ": " + error.description, row.text);
    }
  }
}

// A raised error closes without an alert.
class NoKeys : public CryptoServices {
 public:
  KeyPair MakeKeyPair(const Group& group) override {
    throw RaisedError{"Failed generating key pair (" + std::string(group.name) + ")", "pvTlsSetupExchGroup"};
  }
};

TEST(TlsEngine, RaisedErrorSendsNothing) {
  NoKeys services;
  Context context;
  context.services = &services;
  ASSERT_TRUE(TlsInitClient(context, "h", kBoth, nullptr, ""));
  Bytes out;
  EXPECT_FALSE(TlsHandshake(context, {}, out));
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(LastError(context), "Failed generating key pair (Curve25519)|-2147221504|pvTlsSetupExchGroup");
  EXPECT_EQ(context.state, State::kClosed);
}

// An owner that closes the connection, or calls into it, while it is asked.
TEST(TlsEngine, OwnerMayCloseInsideItsCallback) {
  class Closer : public ClientCertificateOwner {
   public:
    explicit Closer(Context& context) : m_context(context) {}
    bool FireOnClientCertificate(const std::vector<Bytes>&) override {
      Bytes out;
      EXPECT_FALSE(TlsHandshake(m_context, FromHex("00"), out));
      TlsClose(m_context);
      return true;
    }

   private:
    Context& m_context;
  };
  EnginePeer engine;
  Closer owner(engine.context);
  LibsslPeer peer({.identity = &IdentityOf(KeyKind::kP256), .version = TLS1_3_VERSION, .requestCertificate = true});
  engine.StartClient(kBoth, "localhost", "", &owner);
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
