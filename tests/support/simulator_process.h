// A running feeder-sim and the means to steer it.
#pragma once

#include "tests/support/child_process.h"

#include <string>
#include <string_view>
#include <vector>

namespace quenmark::test {

class SimulatorProcess {
 public:
  // Starts the program with these arguments more and waits until it serves.
  explicit SimulatorProcess(std::vector<std::string> arguments = {});

  int HttpsPort() const { return m_httpsPort; }
  int HttpPort() const { return m_httpPort; }
  // Serves the same with the certificate that --wss-certificate names.
  int WssPort() const { return m_wssPort; }
  const std::string& CaFile() const { return m_caFile; }
  ChildProcess& Program() { return m_process; }
  // "http://127.0.0.1:PORT", and the same over TLS under the name localhost.
  std::string PlainBase() const;
  std::string SecureBase() const;

  // Control requests over plain HTTP. The answer's body; throws std::runtime_error on any status but 200.
  std::string Get(std::string_view path) const;
  std::string Post(std::string_view path, std::string_view body) const;

 private:
  ChildProcess m_process;
  int m_httpsPort = 0;
  int m_httpPort = 0;
  int m_wssPort = 0;
  std::string m_caFile;
};

}  // namespace quenmark::test
