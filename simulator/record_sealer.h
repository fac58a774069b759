// Protection of TLS 1.3 records (RFC 8446 §5.2) under the keys of a connection that libssl has opened. libssl spends
// several times the cipher's work on a small record; a market at full speed sends one record per event.
#pragma once

#include <openssl/ssl.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace quenmark::simulator {

class RecordSealer {
 public:
  static constexpr std::size_t kMostPlaintext = 16'384;  // bytes of one record
  static constexpr std::uint8_t kAlert = 21;
  static constexpr std::uint8_t kApplicationData = 23;

  // Makes the connections of `context` remember what Take needs.
  static void Watch(SSL_CTX* context);
  // Takes the place of libssl's writing on `ssl`, whose handshake is done. Null when the connection cannot be taken
  // over (TLS 1.2, a context that is not watched); it then goes on by libssl.
  static std::unique_ptr<RecordSealer> Take(SSL* ssl);
  struct State;
  explicit RecordSealer(std::unique_ptr<State> state);
  ~RecordSealer();
  RecordSealer(const RecordSealer&) = delete;
  RecordSealer& operator=(const RecordSealer&) = delete;

  // Appends one record to `out`. False when libcrypto fails; `out` is then of no use.
  bool Seal(std::uint8_t type, std::string_view plaintext, std::string& out);

 private:
  std::unique_ptr<State> m_state;
};

}  // namespace quenmark::simulator
