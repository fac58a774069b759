// An HTTPS server that everything of this process trusts which is made while it lives. Comes before FeederFixture in a
// list of bases, whose HTTP client reads the anchors when it is made.
#pragma once

#include "tests/support/http_server.h"

#include <stdlib.h>

namespace quenmark::test {

struct TrustedServer {
  TrustedServer() { setenv("SSL_CERT_FILE", server.CertificateFile().c_str(), 1); }
  ~TrustedServer() { unsetenv("SSL_CERT_FILE"); }
  TrustedServer(const TrustedServer&) = delete;
  TrustedServer& operator=(const TrustedServer&) = delete;

  HttpServer server{HttpServer::Security::kTls};
};

}  // namespace quenmark::test
