// A valid exchange with one thing changed: what the engine says, what it tells the peer, and its state.
#include "tests/tls/scenario.h"
#include "tls/hello_random.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace quenmark::test {
namespace {

using tls::Bytes;
using tls::State;
using Under = Scenario::Under;
using Items = std::vector<Item>;

constexpr std::uint32_t k12 = tls::kFeatureTls12;
constexpr std::uint32_t k13 = tls::kFeatureTls13;

struct Case {
  std::string name;
  Under under;
  std::uint32_t features;
  KeyKind key;
  Scenario::Change change;
  std::string text;
  int alert;  // -1: raised inside, nothing is sent
};

// Changes the body of the first message of this type.
Scenario::Change Body(std::uint8_t message, std::function<void(Bytes&)> change) {
  return [message, change = std::move(change)](Items& items) {
    for (Item& item : items) {
      if (item.IsMessage(message)) return item.Replace(change);
    }
  };
}
Scenario::Change Set(std::uint8_t message, std::size_t at, std::uint8_t value) {
  return Body(message, [=](Bytes& body) { body.at(at) = value; });
}
Scenario::Change Flip(std::uint8_t message, std::size_t fromEnd) {
  return Body(message, [=](Bytes& body) { body.at(body.size() - 1 - fromEnd) ^= 1; });
}
Scenario::Change Cut(std::uint8_t message) {
  return Body(message, [](Bytes& body) { body.pop_back(); });
}
Scenario::Change Longer(std::uint8_t message) {
  return Body(message, [](Bytes& body) { body.push_back(0); });
}
Scenario::Change ServerExtension(std::uint16_t type, Bytes data) {
  return Body(2, [=](Bytes& body) { ChangeExtension(body, true, type, [&](Bytes& old) { old = data; }); });
}
Scenario::Change MoreServerExtension(std::uint16_t type, Bytes data) {
  return Body(2, [=](Bytes& body) { AddExtension(body, true, type, data); });
}
Scenario::Change ClientExtension(std::uint16_t type, Bytes data) {
  return Body(1, [=](Bytes& body) { ChangeExtension(body, false, type, [&](Bytes& old) { old = data; }); });
}
Scenario::Change NoClientExtension(std::uint16_t type) {
  return Body(1, [=](Bytes& body) { RemoveExtension(body, false, type); });
}
// Takes a message out.
Scenario::Change Without(std::uint8_t message) {
  return [=](Items& items) { std::erase_if(items, [&](const Item& item) { return item.IsMessage(message); }); };
}
// Puts a copy of a message behind it.
Scenario::Change Twice(std::uint8_t message) {
  return [=](Items& items) {
    for (std::size_t i = 0; i < items.size(); ++i) {
      if (!items[i].IsMessage(message)) continue;
      const Item copy = items[i];
      items.insert(items.begin() + static_cast<std::ptrdiff_t>(i), copy);
      return;
    }
  };
}
// Puts an item in place of a message and all that follows it in the flight. Protection 1: as the message had.
Scenario::Change Instead(std::uint8_t message, Item replacement) {
  return [=](Items& items) {
    for (std::size_t i = 0; i < items.size(); ++i) {
      if (!items[i].IsMessage(message)) continue;
      Item put = replacement;
      if (put.protection == 1) put.protection = items[i].protection;
      items.resize(i);
      items.push_back(put);
      return;
    }
  };
}
Bytes Hex(const char* text) {
  return FromHex(text);
}
Bytes Repeat(std::size_t count, std::uint8_t value) {
  return Bytes(count, value);
}

// The bytes of a ServerHello body: 2 version, 32 random, 1 + n session id, 2 suite, 1 compression.
std::size_t SuiteAt(const Bytes& body) {
  return 35U + body[34];
}

Bytes EmptyCertificate12() {
  return Hex("000000");
}

const Scenario::Change kNothing = [](Items&) {};

std::vector<Case> ClientCases() {
  const auto c = Under::kClient;
  const auto p256 = KeyKind::kP256;
  const auto rsa = KeyKind::kRsa2048;
  return {
      // ---- records
      {"big handshake record", c, k13, p256, Instead(2, {22, 0, Repeat(16385, 2)}), "Record size too big", 50},
      {"big data record", c, k13, p256, Instead(2, {23, 0, Repeat(16641, 2)}), "Record size too big", 50},
      {"unknown record type", c, k13, p256, Instead(2, {24, 0, Hex("00")}), "Unexpected record type (24)", 10},
      {"early data", c, k13, p256, Instead(2, {23, 0, Hex("00")}), "Unexpected record type (23)", 10},
      {"empty handshake record", c, k13, p256, Instead(2, {22, 0, {}}), "Unexpected record type (22)", 10},
      {"long ChangeCipherSpec", c, k13, p256, Instead(2, {20, 0, Hex("0101")}), "Record size too big", 10},
      {"other ChangeCipherSpec", c, k13, p256, Instead(2, {20, 0, Hex("02")}), "Unexpected record type (20)", 10},
      {"early ChangeCipherSpec", c, k12, p256, Instead(2, {20, 0, Hex("01")}), "Unexpected record type (20)", 10},
      {"ChangeCipherSpec in the flight", c, k12, p256,
       [](Items& items) {
         if (items[0].IsMessage(2)) items.insert(items.begin() + 1, Item{20, 0, Hex("01")});
       },
       "Unexpected record type (20)", 10},
      {"long alert", c, k13, p256, Instead(2, {21, 0, Hex("022800")}), "Record size too big", 10},
      {"fatal alert", c, k13, p256, Instead(2, {21, 0, Hex("0228")}), "Received fatal alert", 40},
      {"fatal alert under keys", c, k13, p256, Instead(8, {21, 1, Hex("0233")}), "Received fatal alert", 51},
      {"fatal plain alert", c, k13, p256,
       [](Items& items) {
         if (items.back().IsMessage(20)) items.back() = Item{21, 0, Hex("0250")};
       },
       "Received fatal alert", 80},
      {"plain handshake under keys", c, k13, p256,
       [](Items& items) {
         for (Item& item : items) item.protection = 0;
       },
       "Unexpected record type (22)", 10},
      {"data under handshake keys", c, k13, p256, Instead(8, {23, 0x0304, Hex("00")}), "Unexpected record type (23)",
       10},
      {"only padding", c, k13, p256, Instead(8, {0, 0x0304, Hex("0000")}), "Unexpected record type (0)", 10},
      {"inner ChangeCipherSpec", c, k13, p256, Instead(8, {20, 0x0304, Hex("01")}), "Unexpected record type (20)", 10},
      {"inner text too long", c, k13, p256, Instead(8, {22, 0x0304, Repeat(16386, 1)}), "Record size too big", 22},
      {"too short for its tag", c, k13, p256, Instead(8, {23, 0, Repeat(16, 1)}), "Decryption failed", 20},
      {"flood of ChangeCipherSpec", c, k13, p256,
       [](Items& items) {
         items.insert(items.begin() + 1, 33, Item{20, 0, Hex("01")});
       },
       "Unexpected record type (20)", 10},
      {"flood of warnings", c, k13, p256,
       [](Items& items) {
         items.insert(items.begin(), 33, Item{21, 0, Hex("015A")});
       },
       "Unexpected record type (21)", 10},
      // ---- messages
      {"version in the hello", c, k13, p256, Set(2, 1, 4), "Invalid protocol version", 70},
      {"certificate first", c, k13, p256, Instead(2, {22, 0, Hex("0B000000")}),
       "Unexpected message type for ExpectServerHello state (certificate (11))", 10},
      {"unknown first message", c, k13, p256, Instead(2, {22, 0, Hex("63000000")}),
       "Unexpected message type for ExpectServerHello state (Unknown (99))", 10},
      {"huge message", c, k13, p256, Instead(2, {22, 0, Hex("02040001")}), "Invalid data size for server_hello (2)",
       50},
      {"two hellos in a record", c, k13, p256,
       [](Items& items) {
         if (!items[0].IsMessage(2)) return;
         const Bytes copy = items[0].content;
         items[0].content.insert(items[0].content.end(), copy.begin(), copy.end());
       },
       "Unexpected message type for ExpectExtensions state (server_hello (2))", 10},
      {"no encrypted extensions", c, k13, p256, Without(8),
       "Unexpected message type for ExpectExtensions state (certificate (11))", 10},
      {"encrypted extensions twice", c, k13, p256, Twice(8),
       "Unexpected message type for ExpectExtensions state (encrypted_extensions (8))", 10},
      {"no certificate", c, k13, p256, Without(11),
       "Unexpected message type for ExpectExtensions state (certificate_verify (15))", 10},
      {"no certificate verify", c, k13, p256, Without(15),
       "Unexpected message type for ExpectExtensions state (finished (20))", 10},
      {"certificate twice", c, k12, p256, Twice(11),
       "Unexpected message type for ExpectExtensions state (certificate (11))", 10},
      {"no key exchange", c, k12, p256, Without(12),
       "Unexpected message type for ExpectExtensions state (server_hello_done (14))", 10},
      {"key exchange in TLS 1.3", c, k13, p256, Instead(8, {22, 1, Hex("0C000000")}),
       "Unexpected message type for ExpectExtensions state (server_key_exchange (12))", 10},
      {"early Finished", c, k12, p256,
       [](Items& items) {
         if (items.size() == 2 && items[0].type == 20) items = {Item{22, 0, Hex("1400000C000000000000000000000000")}};
       },
       "Unexpected message type for ExpectServerFinished state (finished (20))", 10},
      {"other message for Finished", c, k12, p256,
       [](Items& items) {
         if (items.size() == 2 && items[0].type == 20) items[1].content = Hex("0E000000");
       },
       "Unexpected message type for ExpectServerFinished state (server_hello_done (14))", 10},
      // ---- ServerHello
      {"short hello", c, k13, p256, Cut(2), "Invalid data size for server_hello (2)", 50},
      {"unknown suite", c, k13, p256, Body(2, [](Bytes& b) { b[SuiteAt(b) + 1] = 4; }),
       "Unsupported cipher suite (0x1304)", -1},
      {"suite not offered", c, k13, p256, Body(2, [](Bytes& b) { b[SuiteAt(b)] = 0xC0, b[SuiteAt(b) + 1] = 0x2B; }),
       "Unsupported cipher suite (0xC02B)", 47},
      {"TLS 1.3 suite in TLS 1.2", c, k12 | k13, p256,
       Body(2,
            [](Bytes& b) {
              RemoveExtension(b, true, 43);
              RemoveExtension(b, true, 51);
            }),
       "Unsupported cipher suite (0x1301)", 47},
      {"compression", c, k13, p256, Body(2, [](Bytes& b) { b[SuiteAt(b) + 2] = 1; }),
       "Unsupported compression method (1)", 47},
      {"other session id", c, k12 | k13, p256, Body(2, [](Bytes& b) { b[40] ^= 1; }), "Invalid session id", 47},
      {"other version", c, k13, p256, ServerExtension(43, Hex("0305")), "Invalid protocol version", 47},
      {"TLS 1.2 by supported_versions", c, k12 | k13, p256, ServerExtension(43, Hex("0303")),
       "Invalid protocol version", 47},
      {"long version", c, k13, p256, ServerExtension(43, Hex("030400")),
       "Invalid data size for supported_versions (43)", 50},
      {"short key share", c, k13, p256, ServerExtension(51, Hex("001D0000")), "Invalid data size for key_share (51)",
       50},
      {"key share without end", c, k13, p256, ServerExtension(51, Hex("001D002001")),
       "Invalid data size for key_share (51)", 50},
      {"unknown group", c, k13, p256, ServerExtension(51, Hex("001900010000")), "Unsupported exchange group (0x0019)",
       -1},
      {"other group", c, k13, p256, ServerExtension(51, Hex("001700010000")), "Unsupported exchange group (0x0017)",
       47},
      {"small key", c, k13, p256, ServerExtension(51, Hex("001D00020000")), "Invalid remote key size", 47},
      {"key that gives zero", c, k13, p256,
       ServerExtension(51, Hex("001D0020"
                               "0000000000000000000000000000000000000000000000000000000000000000")),
       "Invalid remote key", 47},
      {"no key share", c, k13, p256, Body(2, [](Bytes& b) { RemoveExtension(b, true, 51); }),
       "Missing extension (key_share (51))", 109},
      {"cookie", c, k13, p256, MoreServerExtension(44, Hex("000101")), "Unexpected extension (cookie (44))", 47},
      {"unasked extension", c, k13, p256, MoreServerExtension(35, {}), "Unexpected extension (session_ticket (35))",
       110},
      {"asked in another place", c, k13, p256, MoreServerExtension(10, Hex("0002001D")),
       "Unexpected extension (supported_groups (10))", 47},
      {"extension twice", c, k13, p256, MoreServerExtension(43, Hex("0304")),
       "Unexpected extension (supported_versions (43))", 47},
      {"renegotiation info", c, k12, p256, ServerExtension(65281, Hex("0101")), "Renegotiation verification failed",
       40},
      // ---- encrypted extensions
      {"groups too short", c, k13, p256, Body(8, [](Bytes& b) { b = Hex("0005000A000100"); }),
       "Invalid data size for supported_groups (10)", 50},
      {"extension nobody asked for", c, k13, p256, Body(8, [](Bytes& b) { b = Hex("000400050000"); }),
       "Unexpected extension (status_request (5))", 110},
      {"key share encrypted", c, k13, p256, Body(8, [](Bytes& b) { b = Hex("000400330000"); }),
       "Unexpected extension (key_share (51))", 47},
      {"protocol nobody asked for", c, k13, p256, Body(8, [](Bytes& b) { b = Hex("0009001000050003026832"); }),
       "Unexpected extension (application_layer_protocol_negotiation (16))", 110},
      {"encrypted extensions cut", c, k13, p256, Cut(8), "Invalid data size for encrypted_extensions (8)", 50},
      // ---- certificates and signatures
      {"certificate cut", c, k13, p256, Cut(11), "Invalid data size for certificate (11)", 50},
      {"empty certificate list", c, k13, p256, Body(11, [](Bytes& b) { b = Hex("00000000"); }),
       "Missing server certificate", 46},
      {"empty list, TLS 1.2", c, k12, p256, Body(11, [](Bytes& b) { b = EmptyCertificate12(); }),
       "Missing server certificate", 46},
      {"too many certificates", c, k12, p256,
       Body(11,
            [](Bytes& b) {
              b = Hex("000084");
              for (int i = 0; i < 33; ++i) b.insert(b.end(), {0, 0, 1, 7});
            }),
       "Invalid data size for certificate (11)", 50},
      {"no certificate at all", c, k13, p256, Body(11, [](Bytes& b) { b = Hex("00000006000001070000"); }),
       "Unsupported certificate", 40},
      {"signature", c, k13, rsa, Flip(15, 0), "Invalid certificate signature", 40},
      {"signature, TLS 1.2", c, k12, rsa, Flip(12, 0), "Invalid certificate signature", 40},
      {"signed parameters", c, k12, p256, Flip(12, 100), "Invalid certificate signature", 40},
      {"unknown scheme", c, k13, p256, Set(15, 0, 9), "Unsupported signature scheme (0x0903)", 40},
      {"P-521 scheme", c, k13, p256, Set(15, 0, 6), "Unsupported signature scheme (0x0603)", 40},
      {"PKCS#1 in TLS 1.3", c, k13, rsa, Body(15, [](Bytes& b) { b[0] = 4, b[1] = 1; }),
       "Unsupported signature scheme (0x0401)", 47},
      {"ECDSA scheme, RSA key", c, k13, rsa, Body(15, [](Bytes& b) { b[0] = 4, b[1] = 3; }),
       "Unsupported public key OID (1.2.840.113549.1.1.1)", 40},
      {"curve of another scheme", c, k13, KeyKind::kP384, Set(15, 0, 4), "Unsupported curve size (48)", 40},
      {"signature cut", c, k13, p256, Cut(15), "Invalid data size for certificate_verify (15)", 50},
      {"curve type", c, k12, p256, Set(12, 0, 1), "Unsupported curve type (1)", 40},
      {"unknown curve", c, k12, p256, Set(12, 2, 25), "Unsupported exchange group (0x0019)", -1},
      {"key of another size", c, k12, p256, Set(12, 2, 23), "Invalid remote key size", 47},
      {"key exchange cut", c, k12, p256, Cut(12), "Invalid data size for server_key_exchange (12)", 50},
      {"hello done with a body", c, k12, p256, Longer(14), "Invalid data size for server_hello_done (14)", 50},
      // ---- Finished
      {"verify data", c, k13, p256, Flip(20, 0), "Handshake verification failed", 51},
      {"verify data cut", c, k13, p256, Cut(20), "Handshake verification failed", 50},
      {"verify data, TLS 1.2", c, k12, p256, Flip(20, 0), "Handshake verification failed", 51},
      {"verify data longer, TLS 1.2", c, k12, p256, Longer(20), "Handshake verification failed", 50},
      {"message behind Finished", c, k13, p256,
       [](Items& items) {
         if (items.back().IsMessage(20)) items.back().content.insert(items.back().content.end(), {4, 0, 0, 0});
       },
       "Unexpected message type for PostHandshake state (new_session_ticket (4))", 10},
  };
}

std::vector<Case> ServerCases() {
  const auto s = Under::kServer;
  const auto p256 = KeyKind::kP256;
  const auto rsa = KeyKind::kRsa2048;
  return {
      {"other first message", s, k13, p256, Instead(1, {22, 0, Hex("14000000")}),
       "Unexpected message type for ExpectClientHello state (finished (20))", 10},
      {"early ChangeCipherSpec", s, k13, p256, Instead(1, {20, 0, Hex("01")}), "Unexpected record type (20)", 10},
      {"old version", s, k12, p256, Set(1, 1, 2), "Invalid protocol version", 70},
      {"no usable version", s, k13, p256, ClientExtension(43, Hex("020305")), "Invalid protocol version", 70},
      {"version turned off", s, k13, p256, NoClientExtension(43), "Invalid protocol version", 70},
      {"hello cut", s, k13, p256, Cut(1), "Invalid data size for client_hello (1)", 50},
      {"no common suite", s, k13, p256, Body(1, [](Bytes& b) { b[38] = b[40] = b[42] = 0x20; }),
       "Missing supported ciphersuite", 40},
      {"no suite for the key", s, k12, rsa,
       Body(1,
            [](Bytes& b) {
              const std::size_t at = 35U + b[34];
              for (std::size_t i = 0; i < 14; ++i) b[at + 2 + 2 * i] = 0xC0, b[at + 3 + 2 * i] = 0x2B;
            }),
       "Missing supported ciphersuite", 40},
      {"key share size", s, k13, p256, ClientExtension(51, Hex("0006001D00020102")), "Invalid remote key size", 47},
      {"key share that gives zero", s, k13, p256,
       ClientExtension(51, Hex("0024001D0020"
                               "0000000000000000000000000000000000000000000000000000000000000000")),
       "Invalid remote key", 47},
      {"no scheme for the key", s, k13, p256, ClientExtension(13, Hex("00020804")), "Negotiate signature type failed",
       40},
      {"no scheme for the key, TLS 1.2", s, k12, p256, NoClientExtension(13), "Negotiate signature type failed", 40},
      {"no schemes", s, k13, p256, NoClientExtension(13), "Missing extension (signature_algorithms (13))", 109},
      {"no groups", s, k13, p256, NoClientExtension(10), "Missing extension (supported_groups (10))", 109},
      {"no common group", s, k13, p256, ClientExtension(10, Hex("00020019")), "HelloRetryRequest failed", 40},
      {"groups cut", s, k13, p256, ClientExtension(10, Hex("0004001D")), "Invalid data size for supported_groups (10)",
       50},
      {"compression only", s, k13, p256, Body(1, [](Bytes& b) { b[44] = 1; }), "Unsupported compression method", 47},
      {"renegotiation info", s, k12, p256, ClientExtension(65281, Hex("0101")), "Renegotiation verification failed",
       40},
      {"other message for key exchange", s, k12, p256, Instead(16, {22, 0, Hex("0B000000")}),
       "Unexpected message type for ExpectClientKeyExchange state (certificate (11))", 10},
      {"client key size", s, k12, p256, Body(16, [](Bytes& b) { b = Hex("0101"); }), "Invalid remote key size", 47},
      {"client key that gives zero", s, k12, p256, Body(16, [](Bytes& b) { std::fill(b.begin() + 1, b.end(), 0); }),
       "Invalid remote key", 47},
      {"key exchange cut", s, k12, p256, Cut(16), "Invalid data size for client_key_exchange (16)", 50},
      {"Finished without ChangeCipherSpec", s, k12, p256,
       [](Items& items) {
         std::erase_if(items, [](const Item& item) { return item.type == 20; });
         for (Item& item : items) item.protection = 0;
       },
       "Unexpected message type for ExpectClientFinished state (finished (20))", 10},
      {"verify data", s, k13, p256, Flip(20, 0), "Handshake verification failed", 51},
      {"verify data longer", s, k13, p256, Longer(20), "Handshake verification failed", 50},
      {"verify data, TLS 1.2", s, k12, p256, Flip(20, 0), "Handshake verification failed", 51},
      {"certificate from the client", s, k13, p256, Instead(20, {22, 1, Hex("0B00000400000000")}),
       "Unexpected message type for ExpectClientFinished state (certificate (11))", 10},
      {"data before Finished", s, k13, p256, Instead(20, {23, 0x0304, Hex("41")}), "Unexpected record type (23)", 10},
  };
}

void Check(const Case& one) {
  SCOPED_TRACE(one.name);
  Scenario scenario;
  scenario.key = one.key;
  scenario.Run(one.under, one.features, one.change);
  const tls::Context& tested = one.under == Under::kClient ? scenario.client : scenario.server;
  EXPECT_TRUE(scenario.failed);
  EXPECT_EQ(tested.state, State::kClosed);
  EXPECT_EQ(tested.lastError.description, one.text);
  EXPECT_EQ(tested.lastError.alertCode, one.alert);
  EXPECT_EQ(tested.lastError.number, tls::kEngineError);
  if (one.alert < 0) {
    EXPECT_EQ(tested.lastError.source.find("mdTlsThunks"), std::string::npos);
    return;
  }
  EXPECT_EQ(tested.lastError.source, "mdTlsThunks.TlsHandshake");
  ASSERT_FALSE(scenario.lastOutput.empty());
  const Items sent = scenario.Sent();
  EXPECT_EQ(sent.back().type, 21);
  Bytes alert = sent.back().content;
  // Behind a ChangeCipherSpec of TLS 1.2: explicit nonce, alert, tag.
  if (alert.size() == 8 + 2 + 16) alert = Bytes(alert.begin() + 8, alert.begin() + 10);
  EXPECT_EQ(alert, (Bytes{2, static_cast<std::uint8_t>(one.alert)}));
}

TEST(HostilePeer, ChangedServerIsRefused) {
  for (const Case& one : ClientCases()) Check(one);
}

TEST(HostilePeer, ChangedClientIsRefused) {
  for (const Case& one : ServerCases()) Check(one);
}

// The context as it stands after a handshake, and one call on it.
struct LaterCase {
  std::string name;
  Under under;
  std::uint32_t features;
  Items items;
  std::string text;
  int alert;
};

TEST(HostilePeer, LaterRecordsAreRefused) {
  const auto c = Under::kClient;
  const auto s = Under::kServer;
  const int p13 = 0x0304;
  const Items updates(33, Item{22, p13, Hex("1800000100")});
  const std::vector<LaterCase> cases = {
      {"ChangeCipherSpec", c, k13, {{20, 0, Hex("01")}}, "Unexpected record type (20)", 10},
      {"plain alert", c, k13, {{21, 0, Hex("0100")}}, "Unexpected record type (21)", 10},
      {"key update size", c, k13, {{22, p13, Hex("180000020000")}}, "Invalid data size for key_update (24)", 50},
      {"key update value", s, k13, {{22, p13, Hex("1800000102")}}, "Invalid key update request", 47},
      {"key update and more",
       s,
       k13,
       {{22, p13, Hex("180000010018000001")}},
       "Unexpected message type for PostHandshake state (key_update (24))",
       10},
      {"flood of key updates", s, k13, updates, "Unexpected record type (22)", 10},
      {"flood of empty data", c, k13, Items(33, Item{23, p13, {}}), "Unexpected record type (23)", 10},
      {"Finished again",
       c,
       k13,
       {{22, p13, Hex("14000000")}},
       "Unexpected message type for PostHandshake state (finished (20))",
       10},
      {"ticket to a server",
       s,
       k13,
       {{22, p13, Hex("04000000")}},
       "Unexpected message type for PostHandshake state (new_session_ticket (4))",
       10},
      {"ticket cut", c, k13, {{22, p13, Hex("0400000400000001")}}, "Invalid data size for new_session_ticket (4)", 50},
      {"certificate request without schemes",
       c,
       k13,
       {{22, p13, Hex("0D000003000000")}},
       "Missing extension (signature_algorithms (13))",
       109},
      {"hello request in TLS 1.3",
       c,
       k13,
       {{22, p13, Hex("00000000")}},
       "Unexpected message type for PostHandshake state (Unknown (0))",
       10},
      {"renegotiation by the client",
       s,
       k12,
       {{22, 0x0303, Hex("01000000")}},
       "Unexpected message type for PostHandshake state (client_hello (1))",
       10},
      {"key update in TLS 1.2",
       c,
       k12,
       {{22, 0x0303, Hex("1800000100")}},
       "Unexpected message type for PostHandshake state (key_update (24))",
       10},
      {"data between fragments",
       c,
       k13,
       {{22, p13, Hex("0400")}, {23, p13, Hex("41")}},
       "Unexpected record type (23)",
       10},
      {"huge message", c, k13, {{22, p13, Hex("04040001")}}, "Invalid data size for new_session_ticket (4)", 50},
  };
  for (const LaterCase& one : cases) {
    SCOPED_TRACE(one.name);
    Scenario scenario;
    scenario.Run(one.under, one.features, kNothing);
    tls::Context& tested = one.under == c ? scenario.client : scenario.server;
    ASSERT_EQ(tested.state, State::kPostHandshake);
    Bytes plaintext;
    Bytes output;
    EXPECT_FALSE(tls::TlsReceive(tested, Encode(one.items, true), plaintext, output));
    EXPECT_EQ(tested.state, State::kClosed);
    EXPECT_EQ(tested.lastError.description, one.text);
    EXPECT_EQ(tested.lastError.source, "mdTlsThunks.TlsReceive");
    const Bytes alert = {2, static_cast<std::uint8_t>(one.alert)};
    EXPECT_NE(std::search(output.begin(), output.end(), alert.begin(), alert.end()), output.end());
    EXPECT_TRUE(plaintext.empty());
  }
}

// Behind this side's close_notify what asks for an answer gets none, and other messages have no place.
TEST(HostilePeer, AfterTheOwnCloseNotify) {
  struct Row {
    std::uint32_t features;
    const char* message;
    const char* text;  // empty: taken
  };
  const Row rows[] = {
      {k12, "00000000", ""},
      {k13, "0D00000B000008000D000400020403", ""},
      {k13, "14000000", "Invalid state for handshake content (Shutdown)"},
      {k13, "1800000102", "Invalid key update request"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.message);
    Scenario scenario;
    scenario.Run(Under::kClient, row.features, kNothing);
    Bytes plaintext;
    Bytes output;
    ASSERT_TRUE(tls::TlsShutdown(scenario.client, output));
    output.clear();
    const Item item{22, row.features == k12 ? 0x0303 : 0x0304, Hex(row.message)};
    EXPECT_EQ(tls::TlsReceive(scenario.client, Encode({item}, true), plaintext, output), *row.text == '\0');
    EXPECT_EQ(scenario.client.lastError.description, row.text);
    EXPECT_EQ(output.empty(), *row.text == '\0');
  }
}

TEST(HostilePeer, HelloRetryRequestRules) {
  const auto retry = [](const char* extensions) {
    return Instead(2, {22, 0, [&] {
                         Bytes body = {3, 3};
                         body.insert(body.end(), tls::kHelloRetryRandom.begin(), tls::kHelloRetryRandom.end());
                         const Bytes rest = Hex(extensions);
                         body.insert(body.end(), rest.begin(), rest.end());
                         Bytes message = {2, 0, 0, static_cast<std::uint8_t>(body.size())};
                         message.insert(message.end(), body.begin(), body.end());
                         return message;
                       }()});
  };
  const std::vector<Case> cases = {
      {"nothing changed", Under::kClient, k13, KeyKind::kP256, retry("0013010000 06002B00020304"),
       "HelloRetryRequest failed", 47},
      {"group already sent", Under::kClient, k13, KeyKind::kP256, retry("0013010000 0C002B0002030400330002001D"),
       "Unsupported exchange group (0x001D)", 47},
      {"unknown group", Under::kClient, k13, KeyKind::kP256, retry("0013010000 0C002B00020304003300020019"),
       "Unsupported exchange group (0x0019)", -1},
      {"key share of a whole key", Under::kClient, k13, KeyKind::kP256,
       retry("0013010000 0D002B0002030400330003001700"), "Invalid data size for key_share (51)", 50},
      {"empty cookie", Under::kClient, k13, KeyKind::kP256, retry("0013010000 0C002B00020304002C00020000"),
       "Invalid data size for cookie (44)", 50},
  };
  for (const Case& one : cases) Check(one);

  // A second one, and a suite that changes.
  for (const bool second : {true, false}) {
    Scenario scenario;
    const Bytes request = [] {
      Bytes message = Hex("020000380303");
      message.insert(message.end(), tls::kHelloRetryRandom.begin(), tls::kHelloRetryRandom.end());
      const Bytes rest = Hex("00130100000C002B00020304003300020017");
      message.insert(message.end(), rest.begin(), rest.end());
      message[3] = static_cast<std::uint8_t>(message.size() - 4);
      return message;
    }();
    scenario.Run(Under::kClient, k13, [&](Items& items) {
      items = {Item{22, 0, request}};
      if (second) {
        items.push_back(items[0]);
      } else {
        Bytes hello =
            Hex("0200002E03030101010101010101010101010101010101010101010101010101010101010101001302000006002B00020304");
        items.push_back(Item{22, 0, hello});
      }
    });
    EXPECT_EQ(scenario.client.lastError.description,
              second ? "Unexpected message type for ExpectServerHello state (server_hello (2))"
                     : "Unsupported cipher suite (0x1302)");
    EXPECT_EQ(scenario.client.lastError.alertCode, second ? 10 : 47);
  }
}

// The server asks once for another group; what the client may then not do.
TEST(HostilePeer, SecondClientHelloRules) {
  struct SecondCase {
    const char* name;
    std::function<void(Bytes&)> change;  // of the second hello
    const char* text;
    int alert;
  };
  const Bytes p256Share = [] {
    const tls::KeyPair pair = tls::KeyPair::Generate(tls::GroupOf(23));
    Bytes data = Hex("004500170041");
    data.insert(data.end(), pair.Public().begin(), pair.Public().end());
    return data;
  }();
  const SecondCase cases[] = {
      {"same again", [](Bytes&) {}, "HelloRetryRequest failed", 40},
      {"new extension", [](Bytes& b) { AddExtension(b, false, 16, Hex("0003026832")); },
       "Unexpected extension (application_layer_protocol_negotiation (16))", 47},
      {"another suite",
       [&](Bytes& b) {
         ChangeExtension(b, false, 51, [&](Bytes& data) { data = p256Share; });
         b[38] = 0x20;
       },
       "HelloRetryRequest failed", 40},
  };
  for (const SecondCase& one : cases) {
    SCOPED_TRACE(one.name);
    Scenario scenario;
    scenario.Run(Under::kServer, k13, [&](Items& items) {
      if (items.empty() || !items[0].IsMessage(1)) return;
      items[0].Replace([](Bytes& b) {
        ChangeExtension(b, false, 10, [](Bytes& data) { data = Hex("00020017"); });
        RemoveExtension(b, false, 51);
        AddExtension(b, false, 51, Hex("0000"));
      });
      items.push_back(items[0]);
      items[1].Replace(one.change);
    });
    EXPECT_TRUE(scenario.failed);
    EXPECT_EQ(scenario.server.lastError.description, one.text);
    EXPECT_EQ(scenario.server.lastError.alertCode, one.alert);
  }
}

TEST(HostilePeer, UnchangedExchangeSucceeds) {
  for (const std::uint32_t features : {k12, k13, k12 | k13}) {
    for (const KeyKind key : {KeyKind::kP256, KeyKind::kP384, KeyKind::kRsa2048}) {
      Scenario scenario;
      scenario.key = key;
      scenario.Run(Under::kClient, features, kNothing);
      EXPECT_EQ(scenario.client.state, State::kPostHandshake) << scenario.client.lastError.description;
      EXPECT_EQ(scenario.server.state, State::kPostHandshake) << scenario.server.lastError.description;
    }
  }
}

}  // namespace
}  // namespace quenmark::test
