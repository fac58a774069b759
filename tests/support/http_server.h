// A web server of another make for tests of the HTTP client: each path answers what the test has put there.
#pragma once

#include "tests/support/temporary_folder.h"

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace quenmark::test {

struct HttpAnswer {
  int status = 200;
  std::vector<std::pair<std::string, std::string>> headers = {};
  std::string body = {};
  bool chunked = false;
  bool endless = false;                      // chunked, and the body is sent again and again
  std::chrono::milliseconds delay{0};        // before the answer
  std::string after = {};                    // a path: the answer comes when that one has been asked for
  std::optional<std::size_t> cutAfter = {};  // bytes of the answer, head included, after which the connection is closed
  std::string raw = {};                      // sent in place of all that, then the connection is closed
};

struct HttpSeen {
  std::string method;
  std::string target;
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;
  int connection = 0;  // counts up with each connection
};

// Serves on 127.0.0.1 at a free port, in threads of its own, until destroyed. With TLS its certificate, made at start
// for the name localhost, stands in CertificateFile().
class HttpServer {
 public:
  enum class Security { kPlain, kTls };

  explicit HttpServer(Security security = Security::kPlain);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  int Port() const;
  // http://127.0.0.1:PORT or https://localhost:PORT, then the path.
  std::string Address(const std::string& path = "/") const;
  // What the path answers from now on, whatever the query. Other paths answer 404.
  void Put(const std::string& path, HttpAnswer answer);
  // The requests so far.
  std::vector<HttpSeen> Seen() const;
  std::string CertificateFile() const;

 private:
  struct State;
  TemporaryFolder m_folder;
  std::unique_ptr<State> m_state;
};

}  // namespace quenmark::test
