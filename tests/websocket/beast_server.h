// Boost.Beast as a WebSocket server on 127.0.0.1, plain and with TLS, that does what the address asks, like the
// programs in peers/.
#pragma once

#include <memory>
#include <string>

namespace quenmark::test {

class BeastServer {
 public:
  // `pemFile` holds key and certificate.
  explicit BeastServer(const std::string& pemFile);
  ~BeastServer();

  int Port(bool useTls) const;

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace quenmark::test
