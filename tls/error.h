// How a fault travels inside the engine, up to the public function that records it.
#pragma once

#include <cstdint>
#include <string>

namespace quenmark::tls {

constexpr std::int32_t kEngineError = static_cast<std::int32_t>(0x80040000);
constexpr int kNoAlert = -1;

// A fault of the peer found while parsing: the alert goes out, the context closes.
struct ProtocolFailure {
  std::string description;
  int alert = kNoAlert;
};

// A fault raised inside a helper, `source` being its name: the context closes without an alert.
struct RaisedError {
  std::string description;
  std::string source;
  std::int32_t number = kEngineError;
};

}  // namespace quenmark::tls
