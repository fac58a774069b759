// A valid exchange with one thing changed: what the engine says, what it tells the peer, and its state.
#include "tests/tls/scenario.h"
#include "tls/hello_random.h"

#include <fmt/format.h>
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
  std::uint32_t features;
  std::string text;
  int alert;  // -1: raised inside, nothing is sent
  Scenario::Change change;
  KeyKind key = KeyKind::kP256;
};

constexpr auto kRsa = KeyKind::kRsa2048;

std::string Wrong(const char* state, const char* message) {
  return fmt::format("Unexpected message type for {} state ({})", state, message);
}
std::string Size(const char* what) {
  return fmt::format("Invalid data size for {}", what);
}
std::string Record(int type) {
  return fmt::format("Unexpected record type ({})", type);
}

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
Scenario::Change NewBody(std::uint8_t message, const std::string& hex) {
  return Body(message, [=](Bytes& body) { body = FromHex(hex); });
}
Scenario::Change ServerExtension(std::uint16_t type, const std::string& hex) {
  return Body(2, [=](Bytes& body) { ChangeExtension(body, true, type, [&](Bytes& old) { old = FromHex(hex); }); });
}
Scenario::Change MoreServerExtension(std::uint16_t type, const std::string& hex) {
  return Body(2, [=](Bytes& body) { AddExtension(body, true, type, FromHex(hex)); });
}
Scenario::Change NoServerExtensions(std::vector<std::uint16_t> types) {
  return Body(2, [=](Bytes& body) {
    for (const std::uint16_t type : types) RemoveExtension(body, true, type);
  });
}
Scenario::Change ClientExtension(std::uint16_t type, const std::string& hex) {
  return Body(1, [=](Bytes& body) { ChangeExtension(body, false, type, [&](Bytes& old) { old = FromHex(hex); }); });
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
Scenario::Change Instead(std::uint8_t message, std::uint8_t type, const char* hex, int protection = 0) {
  return Instead(message, {type, protection, FromHex(hex)});
}
Scenario::Change Flood(std::size_t at, const Item& item) {
  return [=](Items& items) { items.insert(items.begin() + static_cast<std::ptrdiff_t>(at), 33, item); };
}
Bytes Hex(const char* text) {
  return FromHex(text);
}
std::string Times(int count, const std::string& text) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}
const std::string kZeros = Times(32, "00");
Bytes Repeat(std::size_t count, std::uint8_t value) {
  return Bytes(count, value);
}

// The bytes of a ServerHello body: 2 version, 32 random, 1 + n session id, 2 suite, 1 compression.
std::size_t SuiteAt(const Bytes& body) {
  return 35U + body[34];
}

const Scenario::Change kNothing = [](Items&) {};

std::vector<Case> ClientCases() {
  return {
      // ---- records
      {"big handshake record", k13, "Record size too big", 50, Instead(2, {22, 0, Repeat(16385, 2)})},
      {"big data record", k13, "Record size too big", 50, Instead(2, {23, 0, Repeat(16641, 2)})},
      {"unknown record type", k13, Record(24), 10, Instead(2, 24, "00")},
      {"early data", k13, Record(23), 10, Instead(2, 23, "00")},
      {"empty handshake record", k13, Record(22), 10, Instead(2, {22, 0, {}})},
      {"long ChangeCipherSpec", k13, "Record size too big", 10, Instead(2, 20, "0101")},
      {"other ChangeCipherSpec", k13, Record(20), 10, Instead(2, 20, "02")},
      {"early ChangeCipherSpec", k12, Record(20), 10, Instead(2, 20, "01")},
      {"ChangeCipherSpec in the flight", k12, Record(20), 10,
       [](Items& items) {
         if (items[0].IsMessage(2)) items.insert(items.begin() + 1, Item{20, 0, Hex("01")});
       }},
      {"long alert", k13, "Record size too big", 10, Instead(2, 21, "022800")},
      {"fatal alert", k13, "Received fatal alert", 40, Instead(2, 21, "0228")},
      {"fatal alert under keys", k13, "Received fatal alert", 51, Instead(8, 21, "0233", 1)},
      {"fatal plain alert", k13, "Received fatal alert", 80,
       [](Items& items) {
         if (items.back().IsMessage(20)) items.back() = Item{21, 0, Hex("0250")};
       }},
      {"plain handshake under keys", k13, Record(22), 10,
       [](Items& items) {
         for (Item& item : items) item.protection = 0;
       }},
      {"data under handshake keys", k13, Record(23), 10, Instead(8, 23, "00", 0x0304)},
      {"only padding", k13, Record(0), 10, Instead(8, 0, "0000", 0x0304)},
      {"inner ChangeCipherSpec", k13, Record(20), 10, Instead(8, 20, "01", 0x0304)},
      {"inner text too long", k13, "Record size too big", 22, Instead(8, {22, 0x0304, Repeat(16386, 1)})},
      {"too short for its tag", k13, "Decryption failed", 20, Instead(8, {23, 0, Repeat(16, 1)})},
      {"flood of ChangeCipherSpec", k13, Record(20), 10, Flood(1, {20, 0, Hex("01")})},
      {"flood of warnings", k13, Record(21), 10, Flood(0, {21, 0, Hex("015A")})},
      // ---- messages
      {"version in the hello", k13, "Invalid protocol version", 70, Set(2, 1, 4)},
      {"certificate first", k13, Wrong("ExpectServerHello", "certificate (11)"), 10, Instead(2, 22, "0B000000")},
      {"unknown first message", k13, Wrong("ExpectServerHello", "Unknown (99)"), 10, Instead(2, 22, "63000000")},
      {"huge message", k13, Size("server_hello (2)"), 50, Instead(2, 22, "02040001")},
      {"two hellos in a record", k13, Wrong("ExpectExtensions", "server_hello (2)"), 10,
       [](Items& items) {
         if (!items[0].IsMessage(2)) return;
         const Bytes copy = items[0].content;
         items[0].content.insert(items[0].content.end(), copy.begin(), copy.end());
       }},
      {"no encrypted extensions", k13, Wrong("ExpectExtensions", "certificate (11)"), 10, Without(8)},
      {"encrypted extensions twice", k13, Wrong("ExpectExtensions", "encrypted_extensions (8)"), 10, Twice(8)},
      {"no certificate", k13, Wrong("ExpectExtensions", "certificate_verify (15)"), 10, Without(11)},
      {"no certificate verify", k13, Wrong("ExpectExtensions", "finished (20)"), 10, Without(15)},
      {"certificate twice", k12, Wrong("ExpectExtensions", "certificate (11)"), 10, Twice(11)},
      {"no key exchange", k12, Wrong("ExpectExtensions", "server_hello_done (14)"), 10, Without(12)},
      {"key exchange in TLS 1.3", k13, Wrong("ExpectExtensions", "server_key_exchange (12)"), 10,
       Instead(8, 22, "0C000000", 1)},
      {"early Finished", k12, Wrong("ExpectServerFinished", "finished (20)"), 10,
       [](Items& items) {
         if (items.size() == 2 && items[0].type == 20) items = {Item{22, 0, Hex("1400000C000000000000000000000000")}};
       }},
      {"other message for Finished", k12, Wrong("ExpectServerFinished", "server_hello_done (14)"), 10,
       [](Items& items) {
         if (items.size() == 2 && items[0].type == 20) items[1].content = Hex("0E000000");
       }},
      // ---- ServerHello
      {"short hello", k13, Size("server_hello (2)"), 50, Cut(2)},
      {"unknown suite", k13, "Unsupported cipher suite (0x1304)", -1, Body(2, [](Bytes& b) { b[SuiteAt(b) + 1] = 4; })},
      {"suite not offered", k13, "Unsupported cipher suite (0xC02B)", 47,
       Body(2, [](Bytes& b) { b[SuiteAt(b)] = 0xC0, b[SuiteAt(b) + 1] = 0x2B; })},
      {"TLS 1.3 suite in TLS 1.2", k12 | k13, "Unsupported cipher suite (0x1301)", 47, NoServerExtensions({43, 51})},
      {"compression", k13, "Unsupported compression method (1)", 47, Body(2, [](Bytes& b) { b[SuiteAt(b) + 2] = 1; })},
      {"other session id", k12 | k13, "Invalid session id", 47, Body(2, [](Bytes& b) { b[40] ^= 1; })},
      {"other version", k13, "Invalid protocol version", 47, ServerExtension(43, "0305")},
      {"TLS 1.2 by supported_versions", k12 | k13, "Invalid protocol version", 47, ServerExtension(43, "0303")},
      {"long version", k13, Size("supported_versions (43)"), 50, ServerExtension(43, "030400")},
      {"short key share", k13, Size("key_share (51)"), 50, ServerExtension(51, "001D0000")},
      {"key share without end", k13, Size("key_share (51)"), 50, ServerExtension(51, "001D002001")},
      {"unknown group", k13, "Unsupported exchange group (0x0019)", -1, ServerExtension(51, "001900010000")},
      {"other group", k13, "Unsupported exchange group (0x0017)", 47, ServerExtension(51, "001700010000")},
      {"small key", k13, "Invalid remote key size", 47, ServerExtension(51, "001D00020000")},
      {"key that gives zero", k13, "Invalid remote key", 47, ServerExtension(51, "001D0020" + kZeros)},
      {"no key share", k13, "Missing extension (key_share (51))", 109, NoServerExtensions({51})},
      {"cookie", k13, "Unexpected extension (cookie (44))", 47, MoreServerExtension(44, "000101")},
      {"unasked extension", k13, "Unexpected extension (session_ticket (35))", 110, MoreServerExtension(35, "")},
      {"asked in another place", k13, "Unexpected extension (supported_groups (10))", 47,
       MoreServerExtension(10, "0002001D")},
      {"extension twice", k13, "Unexpected extension (supported_versions (43))", 47, MoreServerExtension(43, "0304")},
      {"renegotiation info", k12, "Renegotiation verification failed", 40, ServerExtension(65281, "0101")},
      // ---- encrypted extensions
      {"groups too short", k13, Size("supported_groups (10)"), 50, NewBody(8, "0005000A000100")},
      {"extension nobody asked for", k13, "Unexpected extension (status_request (5))", 110, NewBody(8, "000400050000")},
      {"key share encrypted", k13, "Unexpected extension (key_share (51))", 47, NewBody(8, "000400330000")},
      {"protocol nobody asked for", k13, "Unexpected extension (application_layer_protocol_negotiation (16))", 110,
       NewBody(8, "0009001000050003026832")},
      {"encrypted extensions cut", k13, Size("encrypted_extensions (8)"), 50, Cut(8)},
      // ---- certificates and signatures
      {"certificate cut", k13, Size("certificate (11)"), 50, Cut(11)},
      {"empty certificate list", k13, "Missing server certificate", 46, NewBody(11, "00000000")},
      {"empty list, TLS 1.2", k12, "Missing server certificate", 46, NewBody(11, "000000")},
      {"too many certificates", k12, Size("certificate (11)"), 50, NewBody(11, "000084" + Times(33, "00000107"))},
      {"no certificate at all", k13, "Unsupported certificate", 40, NewBody(11, "00000006000001070000")},
      {"signature", k13, "Invalid certificate signature", 40, Flip(15, 0), kRsa},
      {"signature, TLS 1.2", k12, "Invalid certificate signature", 40, Flip(12, 0), kRsa},
      {"signed parameters", k12, "Invalid certificate signature", 40, Flip(12, 100)},
      {"unknown scheme", k13, "Unsupported signature scheme (0x0903)", 40, Set(15, 0, 9)},
      {"P-521 scheme", k13, "Unsupported signature scheme (0x0603)", 40, Set(15, 0, 6)},
      {"PKCS#1 in TLS 1.3", k13, "Unsupported signature scheme (0x0401)", 47,
       Body(15, [](Bytes& b) { b[0] = 4, b[1] = 1; }), kRsa},
      {"ECDSA scheme, RSA key", k13, "Unsupported public key OID (1.2.840.113549.1.1.1)", 40,
       Body(15, [](Bytes& b) { b[0] = 4, b[1] = 3; }), kRsa},
      {"curve of another scheme", k13, "Unsupported curve size (48)", 40, Set(15, 0, 4), KeyKind::kP384},
      {"signature cut", k13, Size("certificate_verify (15)"), 50, Cut(15)},
      {"curve type", k12, "Unsupported curve type (1)", 40, Set(12, 0, 1)},
      {"unknown curve", k12, "Unsupported exchange group (0x0019)", -1, Set(12, 2, 25)},
      {"key of another size", k12, "Invalid remote key size", 47, Set(12, 2, 23)},
      {"key exchange cut", k12, Size("server_key_exchange (12)"), 50, Cut(12)},
      {"hello done with a body", k12, Size("server_hello_done (14)"), 50, Longer(14)},
      // ---- Finished
      {"verify data", k13, "Handshake verification failed", 51, Flip(20, 0)},
      {"verify data cut", k13, "Handshake verification failed", 50, Cut(20)},
      {"verify data, TLS 1.2", k12, "Handshake verification failed", 51, Flip(20, 0)},
      {"verify data longer, TLS 1.2", k12, "Handshake verification failed", 50, Longer(20)},
      {"message behind Finished", k13, Wrong("PostHandshake", "new_session_ticket (4)"), 10,
       [](Items& items) {
         if (items.back().IsMessage(20)) items.back().content.insert(items.back().content.end(), {4, 0, 0, 0});
       }},
  };
}

std::vector<Case> ServerCases() {
  return {
      {"other first message", k13, Wrong("ExpectClientHello", "finished (20)"), 10, Instead(1, 22, "14000000")},
      {"early ChangeCipherSpec", k13, Record(20), 10, Instead(1, 20, "01")},
      {"old version", k12, "Invalid protocol version", 70, Set(1, 1, 2)},
      {"no usable version", k13, "Invalid protocol version", 70, ClientExtension(43, "020305")},
      {"version turned off", k13, "Invalid protocol version", 70, NoClientExtension(43)},
      {"hello cut", k13, Size("client_hello (1)"), 50, Cut(1)},
      {"no common suite", k13, "Missing supported ciphersuite", 40,
       Body(1, [](Bytes& b) { b[38] = b[40] = b[42] = 0x20; })},
      {"no suite for the key", k12, "Missing supported ciphersuite", 40,
       Body(1,
            [](Bytes& b) {
              const std::size_t at = 35U + b[34];
              for (std::size_t i = 0; i < 14; ++i) b[at + 2 + 2 * i] = 0xC0, b[at + 3 + 2 * i] = 0x2B;
            }),
       kRsa},
      {"key share size", k13, "Invalid remote key size", 47, ClientExtension(51, "0006001D00020102")},
      {"key share that gives zero", k13, "Invalid remote key", 47, ClientExtension(51, "0024001D0020" + kZeros)},
      {"no scheme for the key", k13, "Negotiate signature type failed", 40, ClientExtension(13, "00020804")},
      {"no scheme for the key, TLS 1.2", k12, "Negotiate signature type failed", 40, NoClientExtension(13)},
      {"no schemes", k13, "Missing extension (signature_algorithms (13))", 109, NoClientExtension(13)},
      {"no groups", k13, "Missing extension (supported_groups (10))", 109, NoClientExtension(10)},
      {"no common group", k13, "HelloRetryRequest failed", 40, ClientExtension(10, "00020019")},
      {"groups cut", k13, Size("supported_groups (10)"), 50, ClientExtension(10, "0004001D")},
      {"compression only", k13, "Unsupported compression method", 47, Body(1, [](Bytes& b) { b[44] = 1; })},
      {"renegotiation info", k12, "Renegotiation verification failed", 40, ClientExtension(65281, "0101")},
      {"other message for key exchange", k12, Wrong("ExpectClientKeyExchange", "certificate (11)"), 10,
       Instead(16, 22, "0B000000")},
      {"client key size", k12, "Invalid remote key size", 47, NewBody(16, "0101")},
      {"client key that gives zero", k12, "Invalid remote key", 47,
       Body(16, [](Bytes& b) { std::fill(b.begin() + 1, b.end(), 0); })},
      {"key exchange cut", k12, Size("client_key_exchange (16)"), 50, Cut(16)},
      {"Finished without ChangeCipherSpec", k12, Wrong("ExpectClientFinished", "finished (20)"), 10,
       [](Items& items) {
         std::erase_if(items, [](const Item& item) { return item.type == 20; });
         for (Item& item : items) item.protection = 0;
       }},
      {"verify data", k13, "Handshake verification failed", 51, Flip(20, 0)},
      {"verify data longer", k13, "Handshake verification failed", 50, Longer(20)},
      {"verify data, TLS 1.2", k12, "Handshake verification failed", 51, Flip(20, 0)},
      {"certificate from the client", k13, Wrong("ExpectClientFinished", "certificate (11)"), 10,
       Instead(20, 22, "0B00000400000000", 1)},
      {"data before Finished", k13, Record(23), 10, Instead(20, 23, "41", 0x0304)},
  };
}

void Check(const Case& one, Under under) {
  SCOPED_TRACE(one.name);
  Scenario scenario;
  scenario.key = one.key;
  scenario.Run(under, one.features, one.change);
  const tls::Context& tested = under == Under::kClient ? scenario.client : scenario.server;
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
  for (const Case& one : ClientCases()) Check(one, Under::kClient);
}

TEST(HostilePeer, ChangedClientIsRefused) {
  for (const Case& one : ServerCases()) Check(one, Under::kServer);
}

// The context as it stands after a handshake, and one call on it.
struct LaterCase {
  std::string name;
  Under under;
  std::uint32_t features;
  std::string text;
  int alert;
  Items items;
};

TEST(HostilePeer, LaterRecordsAreRefused) {
  const auto c = Under::kClient;
  const auto s = Under::kServer;
  const int p13 = 0x0304;
  const Items updates(33, Item{22, p13, Hex("1800000100")});
  const std::vector<LaterCase> cases = {
      {"ChangeCipherSpec", c, k13, Record(20), 10, {{20, 0, Hex("01")}}},
      {"plain alert", c, k13, Record(21), 10, {{21, 0, Hex("0100")}}},
      {"key update size", c, k13, Size("key_update (24)"), 50, {{22, p13, Hex("180000020000")}}},
      {"key update value", s, k13, "Invalid key update request", 47, {{22, p13, Hex("1800000102")}}},
      {"key update and more",
       s,
       k13,
       Wrong("PostHandshake", "key_update (24)"),
       10,
       {{22, p13, Hex("180000010018000001")}}},
      {"flood of key updates", s, k13, Record(22), 10, updates},
      {"flood of empty data", c, k13, Record(23), 10, Items(33, Item{23, p13, {}})},
      {"Finished again", c, k13, Wrong("PostHandshake", "finished (20)"), 10, {{22, p13, Hex("14000000")}}},
      {"ticket to a server",
       s,
       k13,
       Wrong("PostHandshake", "new_session_ticket (4)"),
       10,
       {{22, p13, Hex("04000000")}}},
      {"ticket cut", c, k13, Size("new_session_ticket (4)"), 50, {{22, p13, Hex("0400000400000001")}}},
      {"certificate request without schemes",
       c,
       k13,
       "Missing extension (signature_algorithms (13))",
       109,
       {{22, p13, Hex("0D000003000000")}}},
      {"hello request in TLS 1.3", c, k13, Wrong("PostHandshake", "Unknown (0)"), 10, {{22, p13, Hex("00000000")}}},
      {"renegotiation by the client",
       s,
       k12,
       Wrong("PostHandshake", "client_hello (1)"),
       10,
       {{22, 0x0303, Hex("01000000")}}},
      {"key update in TLS 1.2",
       c,
       k12,
       Wrong("PostHandshake", "key_update (24)"),
       10,
       {{22, 0x0303, Hex("1800000100")}}},
      {"data between fragments", c, k13, Record(23), 10, {{22, p13, Hex("0400")}, {23, p13, Hex("41")}}},
      {"huge message", c, k13, Size("new_session_ticket (4)"), 50, {{22, p13, Hex("04040001")}}},
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
      {"nothing changed", k13, "HelloRetryRequest failed", 47, retry("0013010000 06002B00020304")},
      {"group already sent", k13, "Unsupported exchange group (0x001D)", 47,
       retry("0013010000 0C002B0002030400330002001D")},
      {"unknown group", k13, "Unsupported exchange group (0x0019)", -1, retry("0013010000 0C002B00020304003300020019")},
      {"key share of a whole key", k13, Size("key_share (51)"), 50, retry("0013010000 0D002B0002030400330003001700")},
      {"empty cookie", k13, Size("cookie (44)"), 50, retry("0013010000 0C002B00020304002C00020000")},
  };
  for (const Case& one : cases) Check(one, Under::kClient);

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
