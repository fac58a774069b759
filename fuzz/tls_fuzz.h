// What the TLS fuzz targets share: an engine whose protection, comparisons and signatures let everything through, and
// whose random values repeat. The code under test is the code that ships.
#pragma once

#include "fuzz/tls_fuzz_key.h"
#include "tls/engine.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace quenmark::fuzz {

class OpenCipher final : public tls::BulkCipher {
 public:
  explicit OpenCipher(std::size_t tagSize) : m_tagSize(tagSize) {}
  bool Encrypt(tls::BytesView, tls::BytesView, tls::BytesView in, std::uint8_t* out) override {
    if (in.data() != out) std::copy(in.begin(), in.end(), out);
    std::fill_n(out + in.size(), m_tagSize, std::uint8_t{0});
    return true;
  }
  bool Decrypt(tls::BytesView, tls::BytesView, tls::BytesView in, std::uint8_t* out) override {
    std::copy_n(in.begin(), in.size() - m_tagSize, out);
    return true;
  }

 private:
  std::size_t m_tagSize;
};

class OpenCrypto final : public tls::CryptoServices {
 public:
  void Random(std::span<std::uint8_t> out) override { std::fill(out.begin(), out.end(), std::uint8_t{7}); }
  tls::KeyPair MakeKeyPair(const tls::Group& group) override {
    return tls::KeyPair::FromPrivate(group, tls::Bytes(group.sharedSecretSize, 9));
  }
  std::unique_ptr<tls::BulkCipher> MakeCipher(tls::Bulk bulk, tls::BytesView, tls::CipherUse) override {
    const bool cbc = bulk == tls::Bulk::kAes128Cbc || bulk == tls::Bulk::kAes256Cbc;
    return std::make_unique<OpenCipher>(cbc ? 0 : 16);
  }
  bool SecretsEqual(tls::BytesView, tls::BytesView) override { return true; }
  bool VerifySignature(const tls::PublicKey&, const tls::SignatureScheme&, tls::BytesView, tls::BytesView) override {
    return true;
  }
};

inline void Require(bool condition) {
  if (!condition) std::abort();
}

// The engine fed by a fuzzer, with what must hold after every call.
class FuzzedEngine {
 public:
  FuzzedEngine() { m_context.services = &m_services; }

  tls::Context& Context() { return m_context; }
  // Says good-bye as soon as the handshake is complete, so that everything behind it comes in state 10.
  void SetLeavesEarly(bool leaves) { m_leavesEarly = leaves; }
  bool Closed() const { return tls::TlsIsClosed(m_context); }

  void Feed(tls::BytesView input) {
    tls::Bytes output;
    const std::size_t before = m_plaintext.size();
    const bool ready = tls::TlsIsReady(m_context);
    const bool done =
        ready ? tls::TlsReceive(m_context, input, m_plaintext, output) : tls::TlsHandshake(m_context, input, output);
    Require(done || Closed());
    if (m_leavesEarly && tls::TlsIsReady(m_context)) Require(tls::TlsShutdown(m_context, output));
    Require(m_plaintext.size() - before <= input.size() + 16640);
    Require(m_context.receiveBuffer.size() <= 16640 + 5);
    Require(m_context.reassembly.size() <= tls::kMaxHandshakeMessage + 4);
    Require(m_context.sessionTickets.size() <= tls::kMaxSessionTickets);
    if (Closed()) Require(m_context.handshake == nullptr && !m_context.local.Active());
    // What is sent is whole records.
    tls::BytesView records(output);
    while (!records.empty()) {
      Require(records.size() >= 5);
      const std::size_t size = 5 + (static_cast<std::size_t>(records[3]) << 8 | records[4]);
      Require(size <= records.size());
      records = records.subspan(size);
    }
  }

 private:
  OpenCrypto m_services;
  tls::Context m_context;
  tls::Bytes m_plaintext;
  bool m_leavesEarly = false;
};

// The first byte chooses the versions: bit 0 TLS 1.2, bit 1 TLS 1.3, neither both. Bit 3 leaves early.
inline std::uint32_t Features(std::uint8_t choice) {
  const std::uint32_t features = (choice & 3U) << 2;
  return features == 0 ? tls::kFeatureTls12 | tls::kFeatureTls13 : features;
}

// Starts a client, its hello sent.
inline void StartClient(FuzzedEngine& engine, std::uint8_t choice) {
  engine.SetLeavesEarly((choice & 8U) != 0);
  Require(tls::TlsInitClient(engine.Context(), "localhost", Features(choice), nullptr, "h2|http/1.1"));
  engine.Feed({});
}

// Starts a server; bit 2 of the choice takes the RSA key.
inline void StartServer(FuzzedEngine& engine, std::uint8_t choice) {
  engine.SetLeavesEarly((choice & 8U) != 0);
  const tls::BytesView key = (choice & 4U) != 0 ? tls::BytesView(kRsaServerKey) : tls::BytesView(kServerKey);
  Require(tls::TlsInitServer(engine.Context(), "",
                             {tls::Bytes(std::begin(kServerCertificate), std::end(kServerCertificate))}, key,
                             "h2|http/1.1", Features(choice)));
}

// Record by record: the second byte is the size of the pieces in which the rest arrives, 0 for all at once.
inline void FeedRecords(FuzzedEngine& engine, tls::BytesView input) {
  if (input.empty()) return;
  const std::size_t piece = input[0];
  input = input.subspan(1);
  while (!input.empty() && !engine.Closed()) {
    const std::size_t count = piece == 0 ? input.size() : std::min(piece, input.size());
    engine.Feed(input.first(count));
    input = input.subspan(count);
  }
}

// Message by message: each piece is a record type, a 2-byte length and the content; it gets the protection that is in
// force.
inline void FeedMessages(FuzzedEngine& engine, tls::BytesView input) {
  while (input.size() >= 3 && !engine.Closed()) {
    const std::uint8_t type = input[0];
    const std::size_t size =
        std::min<std::size_t>(static_cast<std::size_t>(input[1]) << 8 | input[2], input.size() - 3);
    tls::Bytes content(input.begin() + 3, input.begin() + 3 + static_cast<std::ptrdiff_t>(size));
    input = input.subspan(3 + size);
    const tls::Protection& remote = engine.Context().remote;
    std::uint8_t outer = type;
    if (remote.Active() && type != 20) {
      if (remote.version == tls::kVersionTls13) {
        content.push_back(type);
        outer = 23;
      }
      content.insert(content.begin(), remote.suite->explicitNonceSize, 0);
      content.insert(content.end(), remote.suite->tagSize, 0);
    }
    tls::Bytes record = {outer, 3, 3, static_cast<std::uint8_t>(content.size() >> 8),
                         static_cast<std::uint8_t>(content.size())};
    record.insert(record.end(), content.begin(), content.end());
    engine.Feed(record);
  }
}

}  // namespace quenmark::fuzz
