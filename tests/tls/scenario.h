// A client and a server of the engine without protection, so that a test can look at and change any message between
// them. The digests, signatures and comparisons stay real.
#pragma once

#include "tests/tls/test_keys.h"
#include "tls/engine.h"

#include <functional>
#include <string>
#include <vector>

namespace quenmark::test {

// Copies instead of encrypting; the tag is zeros.
class NullCipher final : public tls::BulkCipher {
 public:
  explicit NullCipher(std::size_t tagSize) : m_tagSize(tagSize) {}
  bool Encrypt(tls::BytesView nonce, tls::BytesView additional, tls::BytesView in, std::uint8_t* out) override;
  bool Decrypt(tls::BytesView nonce, tls::BytesView additional, tls::BytesView in, std::uint8_t* out) override;

 private:
  std::size_t m_tagSize;
};

class NullProtection : public tls::CryptoServices {
 public:
  std::unique_ptr<tls::BulkCipher> MakeCipher(tls::Bulk bulk, tls::BytesView key, tls::CipherUse use) override;
};

// One handshake message, or the content of another record.
struct Item {
  std::uint8_t type = 22;
  int protection = 0;  // 0, or the version (0x0303, 0x0304) under whose keys it travels
  tls::Bytes content;

  bool IsMessage(std::uint8_t message) const { return type == 22 && !content.empty() && content[0] == message; }
  // The message's body changed and its length put right.
  void Replace(const std::function<void(tls::Bytes&)>& change);
};

struct Scenario {
  enum class Under { kClient, kServer };
  using Change = std::function<void(std::vector<Item>&)>;

  Scenario();
  // Runs the handshake until nothing moves. `change` sees every flight to the side under test before it arrives.
  void Run(Under under, std::uint32_t features, const Change& change);

  NullProtection services;
  tls::Context client;
  tls::Context server;
  KeyKind key = KeyKind::kP256;
  std::vector<Item> sent;  // by the side under test, the last time
  bool failed = false;     // the side under test
};

tls::Bytes Encode(const std::vector<Item>& items, bool explicitNonce);

// In the body of a ClientHello (1) or ServerHello (2).
void AddExtension(tls::Bytes& body, std::uint8_t hello, std::uint16_t type, const tls::Bytes& data);
void RemoveExtension(tls::Bytes& body, std::uint8_t hello, std::uint16_t type);
void ReplaceExtension(tls::Bytes& body, std::uint8_t hello, std::uint16_t type, const tls::Bytes& data);

}  // namespace quenmark::test
