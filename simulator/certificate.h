// A certificate authority of the moment and a server certificate that it signs (EC P-256, RFC 5280).
#pragma once

#include <chrono>
#include <string>

namespace quenmark::simulator {

struct CertificateOptions {
  std::string dnsName = "localhost";
  std::string address = "127.0.0.1";
  std::chrono::hours notBefore{-24};  // from now
  std::chrono::hours notAfter{24 * 30};
};

struct ServerCertificate {
  std::string authority;    // PEM, what clients are to trust
  std::string certificate;  // PEM, of the server
  std::string key;          // PEM, of the server
};

// Throws std::runtime_error when libcrypto fails.
ServerCertificate MakeServerCertificate(const CertificateOptions& options);

}  // namespace quenmark::simulator
