// A certificate authority of the moment and the server certificates that it signs (EC P-256, RFC 5280).
#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace quenmark::simulator {

struct CertificateOptions {
  std::string dnsName = "localhost";
  std::string address = "127.0.0.1";
  std::chrono::hours notBefore{-24};  // from now
  std::chrono::hours notAfter{24 * 30};
};

struct ServerCertificate {
  std::string certificate;  // PEM
  std::string key;          // PEM
};

// Its members throw std::runtime_error when libcrypto fails.
class Authority {
 public:
  Authority();
  ~Authority();
  Authority(const Authority&) = delete;
  Authority& operator=(const Authority&) = delete;

  // Its own certificate, what clients are to trust.
  std::string Pem() const;
  // A certificate for a new key.
  ServerCertificate Sign(const CertificateOptions& options) const;

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace quenmark::simulator
