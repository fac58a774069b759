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
constexpr int k13Keys = tls::kVersionTls13;

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

// Changes a flight where the first message of this type stands in it.
Scenario::Change At(std::uint8_t message, const std::function<void(Items&, Items::iterator)>& change) {
  return [=](Items& items) {
    const auto at = std::ranges::find_if(items, [&](const Item& item) { return item.IsMessage(message); });
    if (at != items.end()) change(items, at);
  };
}
Scenario::Change Body(std::uint8_t message, const std::function<void(Bytes&)>& change) {
  return At(message, [=](Items&, Items::iterator at) { at->Replace(change); });
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
// Of a ClientHello (1) or a ServerHello (2).
Scenario::Change Extension(std::uint8_t hello, std::uint16_t type, const std::string& hex) {
  return Body(hello, [=](Bytes& body) { ReplaceExtension(body, hello, type, FromHex(hex)); });
}
Scenario::Change MoreExtension(std::uint8_t hello, std::uint16_t type, const std::string& hex) {
  return Body(hello, [=](Bytes& body) { AddExtension(body, hello, type, FromHex(hex)); });
}
Scenario::Change NoExtension(std::uint8_t hello, std::uint16_t type) {
  return Body(hello, [=](Bytes& body) { RemoveExtension(body, hello, type); });
}
Scenario::Change Without(std::uint8_t message) {
  return At(message, [](Items& items, Items::iterator at) { items.erase(at); });
}
Scenario::Change Twice(std::uint8_t message) {
  return At(message, [](Items& items, Items::iterator at) { items.insert(at, Item(*at)); });
}
// Further bytes in the record of a message.
Scenario::Change Joined(std::uint8_t message, const char* hex) {
  return At(message, [=](Items&, Items::iterator at) {
    const Bytes more = FromHex(hex);
    at->content.insert(at->content.end(), more.begin(), more.end());
  });
}
Scenario::Change Before(std::uint8_t message, const Item& item, std::size_t count = 1) {
  return At(message, [=](Items& items, Items::iterator at) { items.insert(at, count, item); });
}
// An item in place of a message and all that follows it in the flight. Protection 1: as the message had.
Scenario::Change Instead(std::uint8_t message, const Item& item) {
  return At(message, [=](Items& items, Items::iterator at) {
    const int protection = item.protection == 1 ? at->protection : item.protection;
    items.erase(at, items.end());
    items.push_back({item.type, protection, item.content});
  });
}
Scenario::Change Instead(std::uint8_t message, std::uint8_t type, const char* hex, int protection = 0) {
  return Instead(message, {type, protection, FromHex(hex)});
}
std::string Times(int count, const std::string& text) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}
const std::string kZeros = Times(32, "00");

// The bytes of a ServerHello body: 2 version, 32 random, 1 + n session id, 2 suite, 1 compression.
std::size_t SuiteAt(const Bytes& body) {
  return 35U + body[34];
}

void TakeVersion13(Bytes& serverHello) {
  RemoveExtension(serverHello, 2, 43);
  RemoveExtension(serverHello, 2, 51);
}
// Hellos of the server in place of its flight: the random and what follows it, as hexadecimal digits.
Scenario::Change Hellos(const std::vector<std::string>& hellos) {
  return [=](Items& items) {
    items.clear();
    for (const std::string& hello : hellos) {
      items.push_back({22, 0, FromHex("02000000")});
      items.back().Replace([&](Bytes& body) { body = FromHex("0303" + hello); });
    }
  };
}
const std::string kRetry = ToHex(tls::kHelloRetryRandom) + "00130100";
const std::string kRetryP256 = kRetry + "000C002B00020304003300020017";

// A client whose only group is P-256 and that sent no key, and behind its hello the second one.
Scenario::Change SecondHello(const std::function<void(Bytes&)>& change) {
  return At(1, [=](Items& items, Items::iterator at) {
    at->Replace([](Bytes& body) {
      ReplaceExtension(body, 1, 10, FromHex("00020017"));
      ReplaceExtension(body, 1, 51, FromHex("0000"));
    });
    items.push_back(Item(*at));
    items.back().Replace(change);
  });
}

void Nothing(Items&) {}

std::vector<Case> ClientCases() {
  return {
      // ---- records
      {"big handshake record", k13, "Record size too big", 50, Instead(2, {22, 0, Bytes(16385, 2)})},
      {"big data record", k13, "Record size too big", 50, Instead(2, {23, 0, Bytes(16641, 2)})},
      {"unknown record type", k13, Record(24), 10, Instead(2, 24, "00")},
      {"early data", k13, Record(23), 10, Instead(2, 23, "00")},
      {"empty handshake record", k13, Record(22), 10, Instead(2, {22, 0, {}})},
      {"long ChangeCipherSpec", k13, "Record size too big", 10, Instead(2, 20, "0101")},
      {"other ChangeCipherSpec", k13, Record(20), 10, Instead(2, 20, "02")},
      {"early ChangeCipherSpec", k12, Record(20), 10, Instead(2, 20, "01")},
      {"ChangeCipherSpec in the flight", k12, Record(20), 10, Before(11, {20, 0, {1}})},
      {"long alert", k13, "Record size too big", 10, Instead(2, 21, "022800")},
      {"fatal alert", k13, "Received fatal alert", 40, Instead(2, 21, "0228")},
      {"fatal alert under keys", k13, "Received fatal alert", 51, Instead(8, 21, "0233", 1)},
      {"fatal plain alert", k13, "Received fatal alert", 80, Instead(20, 21, "0250")},
      {"plain handshake under keys", k13, Record(22), 10,
       [](Items& items) {
         for (Item& item : items) item.protection = 0;
       }},
      {"data under handshake keys", k13, Record(23), 10, Instead(8, 23, "00", k13Keys)},
      {"only padding", k13, Record(0), 10, Instead(8, 0, "0000", k13Keys)},
      {"inner ChangeCipherSpec", k13, Record(20), 10, Instead(8, 20, "01", k13Keys)},
      {"inner text too long", k13, "Record size too big", 22, Instead(8, {22, k13Keys, Bytes(16386, 1)})},
      {"too short for its tag", k13, "Decryption failed", 20, Instead(8, {23, 0, Bytes(16, 1)})},
      {"flood of ChangeCipherSpec", k13, Record(20), 10, Before(8, {20, 0, {1}}, 33)},
      {"flood of warnings", k13, Record(21), 10, Before(2, {21, 0, {1, 90}}, 33)},
      // ---- messages
      {"version in the hello", k13, "Invalid protocol version", 70, Set(2, 1, 4)},
      {"certificate first", k13, Wrong("ExpectServerHello", "certificate (11)"), 10, Instead(2, 22, "0B000000")},
      {"unknown first message", k13, Wrong("ExpectServerHello", "Unknown (99)"), 10, Instead(2, 22, "63000000")},
      {"huge message", k13, Size("server_hello (2)"), 50, Instead(2, 22, "02040001")},
      {"two hellos in a record", k13, Wrong("ExpectExtensions", "server_hello (2)"), 10, Joined(2, "02000000")},
      {"no encrypted extensions", k13, Wrong("ExpectExtensions", "certificate (11)"), 10, Without(8)},
      {"encrypted extensions twice", k13, Wrong("ExpectExtensions", "encrypted_extensions (8)"), 10, Twice(8)},
      {"no certificate", k13, Wrong("ExpectExtensions", "certificate_verify (15)"), 10, Without(11)},
      {"no certificate verify", k13, Wrong("ExpectExtensions", "finished (20)"), 10, Without(15)},
      {"certificate twice", k12, Wrong("ExpectExtensions", "certificate (11)"), 10, Twice(11)},
      {"no key exchange", k12, Wrong("ExpectExtensions", "server_hello_done (14)"), 10, Without(12)},
      {"key exchange in TLS 1.3", k13, Wrong("ExpectExtensions", "server_key_exchange (12)"), 10,
       Instead(8, 22, "0C000000", 1)},
      {"early Finished", k12, Wrong("ExpectServerFinished", "finished (20)"), 10,
       At(20,
          [](Items& items, Items::iterator) {
            items = {{22, 0, FromHex("1400000C" + Times(12, "00"))}};
          })},
      {"other message for Finished", k12, Wrong("ExpectServerFinished", "server_hello_done (14)"), 10,
       Instead(20, 22, "0E000000", 1)},
      // ---- ServerHello
      {"short hello", k13, Size("server_hello (2)"), 50, Cut(2)},
      {"unknown suite", k13, "Unsupported cipher suite (0x1304)", -1, Body(2, [](Bytes& b) { b[SuiteAt(b) + 1] = 4; })},
      {"suite not offered", k13, "Unsupported cipher suite (0xC02B)", 47,
       Body(2, [](Bytes& b) { b[SuiteAt(b)] = 0xC0, b[SuiteAt(b) + 1] = 0x2B; })},
      {"TLS 1.3 suite in TLS 1.2", k12 | k13, "Unsupported cipher suite (0x1301)", 47, Body(2, TakeVersion13)},
      {"downgrade marker", k12 | k13, "Invalid protocol version", 47,
       Body(2,
            [](Bytes& b) {
              std::ranges::copy(FromHex("444F574E47524401"), b.begin() + 26);
              TakeVersion13(b);
            })},
      {"compression", k13, "Unsupported compression method (1)", 47, Body(2, [](Bytes& b) { b[SuiteAt(b) + 2] = 1; })},
      {"other session id", k12 | k13, "Invalid session id", 47, Body(2, [](Bytes& b) { b[40] ^= 1; })},
      {"other version", k13, "Invalid protocol version", 47, Extension(2, 43, "0305")},
      {"TLS 1.2 by supported_versions", k12 | k13, "Invalid protocol version", 47, Extension(2, 43, "0303")},
      {"long version", k13, Size("supported_versions (43)"), 50, Extension(2, 43, "030400")},
      {"short key share", k13, Size("key_share (51)"), 50, Extension(2, 51, "001D0000")},
      {"key share without end", k13, Size("key_share (51)"), 50, Extension(2, 51, "001D002001")},
      {"unknown group", k13, "Unsupported exchange group (0x0019)", -1, Extension(2, 51, "001900010000")},
      {"other group", k13, "Unsupported exchange group (0x0017)", 47, Extension(2, 51, "001700010000")},
      {"small key", k13, "Invalid remote key size", 47, Extension(2, 51, "001D00020000")},
      {"key that gives zero", k13, "Invalid remote key", 47, Extension(2, 51, "001D0020" + kZeros)},
      {"no key share", k13, "Missing extension (key_share (51))", 109, NoExtension(2, 51)},
      {"cookie", k13, "Unexpected extension (cookie (44))", 47, MoreExtension(2, 44, "000101")},
      {"unasked extension", k13, "Unexpected extension (session_ticket (35))", 110, MoreExtension(2, 35, "")},
      {"asked in another place", k13, "Unexpected extension (supported_groups (10))", 47,
       MoreExtension(2, 10, "0002001D")},
      {"extension twice", k13, "Unexpected extension (supported_versions (43))", 47, MoreExtension(2, 43, "0304")},
      {"renegotiation info", k12, "Renegotiation verification failed", 40, Extension(2, 65281, "0101")},
      // ---- HelloRetryRequest
      {"retry changes nothing", k13, "HelloRetryRequest failed", 47, Hellos({kRetry + "0006002B00020304"})},
      {"retry for the group sent", k13, "Unsupported exchange group (0x001D)", 47,
       Hellos({kRetry + "000C002B0002030400330002001D"})},
      {"retry for an unknown group", k13, "Unsupported exchange group (0x0019)", -1,
       Hellos({kRetry + "000C002B00020304003300020019"})},
      {"retry with a whole key", k13, Size("key_share (51)"), 50, Hellos({kRetry + "000D002B0002030400330003001700"})},
      {"retry with an empty cookie", k13, Size("cookie (44)"), 50, Hellos({kRetry + "000C002B00020304002C00020000"})},
      {"retry again", k13, Wrong("ExpectServerHello", "server_hello (2)"), 10, Hellos({kRetryP256, kRetryP256})},
      {"another suite behind a retry", k13, "Unsupported cipher suite (0x1302)", 47,
       Hellos({kRetryP256, Times(32, "01") + "00130200" + "0006002B00020304"})},
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
      {"message in one digest alone", k13, "Invalid certificate signature", 40,
       Before(15, {22, k13Keys, {22, 0, 0, 0}})},
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
      {"message behind Finished", k13, Wrong("PostHandshake", "new_session_ticket (4)"), 10, Joined(20, "04000000")},
  };
}

std::vector<Case> ServerCases() {
  return {
      {"other first message", k13, Wrong("ExpectClientHello", "finished (20)"), 10, Instead(1, 22, "14000000")},
      {"early ChangeCipherSpec", k13, Record(20), 10, Instead(1, 20, "01")},
      {"old version", k12, "Invalid protocol version", 70, Set(1, 1, 2)},
      {"no usable version", k13, "Invalid protocol version", 70, Extension(1, 43, "020305")},
      {"version turned off", k13, "Invalid protocol version", 70, NoExtension(1, 43)},
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
      {"key share size", k13, "Invalid remote key size", 47, Extension(1, 51, "0006001D00020102")},
      {"key share that gives zero", k13, "Invalid remote key", 47, Extension(1, 51, "0024001D0020" + kZeros)},
      {"no scheme for the key", k13, "Negotiate signature type failed", 40, Extension(1, 13, "00020804")},
      {"no scheme for the key, TLS 1.2", k12, "Negotiate signature type failed", 40, NoExtension(1, 13)},
      {"no schemes", k13, "Missing extension (signature_algorithms (13))", 109, NoExtension(1, 13)},
      {"no groups", k13, "Missing extension (supported_groups (10))", 109, NoExtension(1, 10)},
      {"no common group", k13, "HelloRetryRequest failed", 40, Extension(1, 10, "00020019")},
      {"groups cut", k13, Size("supported_groups (10)"), 50, Extension(1, 10, "0004001D")},
      {"compression only", k13, "Unsupported compression method", 47, Body(1, [](Bytes& b) { b[44] = 1; })},
      {"renegotiation info", k12, "Renegotiation verification failed", 40, Extension(1, 65281, "0101")},
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
      {"no common protocol", k13, "Negotiate application protocol failed", 120, MoreExtension(1, 16, "0003026833")},
      {"second hello as the first", k13, "HelloRetryRequest failed", 40, SecondHello([](Bytes&) {})},
      {"second hello with more", k13, "Unexpected extension (application_layer_protocol_negotiation (16))", 47,
       SecondHello([](Bytes& b) { AddExtension(b, 1, 16, FromHex("0003026832")); })},
      {"second hello with another suite", k13, "HelloRetryRequest failed", 40, SecondHello([](Bytes& b) {
         ReplaceExtension(b, 1, 51, FromHex("004500170041" + Times(65, "04")));
         b[38] = 0x20;
       })},
      {"data before Finished", k13, Record(23), 10, Instead(20, 23, "41", k13Keys)},
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
    EXPECT_TRUE(scenario.sent.empty());
    return;
  }
  EXPECT_EQ(tested.lastError.source, "mdTlsThunks.TlsHandshake");
  ASSERT_FALSE(scenario.sent.empty());
  EXPECT_EQ(scenario.sent.back().type, 21);
  EXPECT_EQ(scenario.sent.back().content, (Bytes{2, static_cast<std::uint8_t>(one.alert)}));
}

TEST(HostilePeer, ChangedServerIsRefused) {
  for (const Case& one : ClientCases()) Check(one, Under::kClient);
}

TEST(HostilePeer, ChangedClientIsRefused) {
  for (const Case& one : ServerCases()) Check(one, Under::kServer);
}

// What comes when the handshake is over. Protection 1: under the keys.
struct LaterCase {
  std::string name;
  Under under;
  std::uint32_t features;
  std::string text;
  int alert;
  Items items;
};

Item Message(const char* hex) {
  return {22, 1, FromHex(hex)};
}
bool Receive(tls::Context& context, Items items, Bytes& plaintext, Bytes& output) {
  for (Item& item : items) {
    if (item.protection == 1) item.protection = context.protocolVersion;
  }
  return tls::TlsReceive(context, Encode(items, true), plaintext, output);
}

TEST(HostilePeer, LaterRecordsAreRefused) {
  const auto c = Under::kClient;
  const auto s = Under::kServer;
  const auto wrong = [](const char* message) { return Wrong("PostHandshake", message); };
  const LaterCase cases[] = {
      {"ChangeCipherSpec", c, k13, Record(20), 10, {{20, 0, {1}}}},
      {"plain alert", c, k13, Record(21), 10, {{21, 0, {1, 0}}}},
      {"key update size", c, k13, Size("key_update (24)"), 50, {Message("180000020000")}},
      {"key update value", s, k13, "Invalid key update request", 47, {Message("1800000102")}},
      {"key update and more", s, k13, wrong("key_update (24)"), 10, {Message("180000010018000001")}},
      {"flood of key updates", s, k13, Record(22), 10, Items(33, Message("1800000100"))},
      {"flood of empty data", c, k13, Record(23), 10, Items(33, {23, 1, {}})},
      {"Finished again", c, k13, wrong("finished (20)"), 10, {Message("14000000")}},
      {"ticket to a server", s, k13, wrong("new_session_ticket (4)"), 10, {Message("04000000")}},
      {"ticket cut", c, k13, Size("new_session_ticket (4)"), 50, {Message("0400000400000001")}},
      {"certificate request without schemes",
       c,
       k13,
       "Missing extension (signature_algorithms (13))",
       109,
       {Message("0D000003000000")}},
      {"hello request in TLS 1.3", c, k13, wrong("Unknown (0)"), 10, {Message("00000000")}},
      {"renegotiation by the client", s, k12, wrong("client_hello (1)"), 10, {Message("01000000")}},
      {"key update in TLS 1.2", c, k12, wrong("key_update (24)"), 10, {Message("1800000100")}},
      {"data between fragments", c, k13, Record(23), 10, {Message("0400"), {23, 1, {65}}}},
      {"huge message", c, k13, Size("new_session_ticket (4)"), 50, {Message("04040001")}},
  };
  for (const LaterCase& one : cases) {
    SCOPED_TRACE(one.name);
    Scenario scenario;
    scenario.Run(one.under, one.features, Nothing);
    tls::Context& tested = one.under == c ? scenario.client : scenario.server;
    ASSERT_EQ(tested.state, State::kPostHandshake);
    Bytes plaintext;
    Bytes output;
    EXPECT_FALSE(Receive(tested, one.items, plaintext, output));
    EXPECT_EQ(tested.state, State::kClosed);
    EXPECT_EQ(tested.lastError.description, one.text);
    EXPECT_EQ(tested.lastError.source, "mdTlsThunks.TlsReceive");
    const Bytes alert = {2, static_cast<std::uint8_t>(one.alert)};
    EXPECT_NE(std::search(output.begin(), output.end(), alert.begin(), alert.end()), output.end());
    EXPECT_TRUE(plaintext.empty());
  }
}

// Behind this side's close_notify what asks for an answer gets none, and other messages have no place. Nor does a
// close_notify of one's own make the rest of the server's flight trustworthy.
TEST(HostilePeer, AfterTheOwnCloseNotify) {
  const Scenario::Change helloAlone = [](Items& items) { items.resize(1); };
  const char* const wrong = "Invalid state for handshake content (Shutdown)";
  struct Row {
    std::uint32_t features;
    Scenario::Change change;
    Item item;
    std::string text;  // empty: taken
  };
  const Row rows[] = {
      {k12, Nothing, Message("00000000"), ""},
      {k13, Nothing, Message("0D00000B000008000D000400020403"), ""},
      {k13, Nothing,
       Message("0400000E"
               "0000000000000000"
               "00"
               "0001"
               "0A"
               "0000"),
       ""},
      {k13, Nothing, Message("14000000"), wrong},
      {k13, Nothing, Message("1800000102"), "Invalid key update request"},
      {k13, helloAlone, Message("1800000100"), wrong},
      {k13, helloAlone, {23, 1, {65}}, Record(23)},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(ToHex(row.item.content) + row.text);
    Scenario scenario;
    scenario.Run(Under::kClient, row.features, row.change);
    Bytes plaintext;
    Bytes output;
    ASSERT_TRUE(tls::TlsShutdown(scenario.client, output));
    output.clear();
    EXPECT_EQ(Receive(scenario.client, {row.item}, plaintext, output), row.text.empty());
    EXPECT_EQ(scenario.client.lastError.description, row.text);
    EXPECT_EQ(output.empty(), row.text.empty());
    EXPECT_TRUE(plaintext.empty());
  }
}

TEST(HostilePeer, UnchangedExchangeSucceeds) {
  const Scenario::Change cutUp = [](Items& items) {
    Items pieces;
    for (const Item& item : items) {
      for (std::size_t at = 0; at < item.content.size(); at += 7) {
        const tls::BytesView piece =
            tls::BytesView(item.content).subspan(at, std::min<std::size_t>(7, item.content.size() - at));
        pieces.push_back({item.type, item.protection, Bytes(piece.begin(), piece.end())});
      }
    }
    items = pieces;
  };
  for (const Scenario::Change& change : {Scenario::Change(Nothing), cutUp}) {
    for (const std::uint32_t features : {k12, k13, k12 | k13}) {
      for (const KeyKind key : {KeyKind::kP256, KeyKind::kP384, KeyKind::kRsa2048}) {
        Scenario scenario;
        scenario.key = key;
        scenario.Run(Under::kClient, features, change);
        EXPECT_EQ(scenario.client.state, State::kPostHandshake) << scenario.client.lastError.description;
        EXPECT_EQ(scenario.server.state, State::kPostHandshake) << scenario.server.lastError.description;
      }
    }
  }
}

}  // namespace
}  // namespace quenmark::test
