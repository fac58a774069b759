// Blocking HTTP requests that keep the message loop alive while they wait.
//
// Only http and https. Answers with content codings are decoded. Redirects are followed (at most 10, http and https only,
// never from https to http); Authorization is not sent on to another host. Loopback addresses never go through a proxy.
// Trust: the system's anchors and those of the file that SSL_CERT_FILE names.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace quenmark::platform {

class MessageLoop;

struct HttpLimits {
  std::chrono::milliseconds connectTimeout{10'000};
  std::chrono::milliseconds totalTimeout{30'000};
  std::size_t answerLimit = 32u << 20;  // bytes of the decoded answer
};

// One request, in the order Open, setRequestHeader..., Send, then Status and responseText. Every fault is a RunTimeError
// with 0x80070000 or 0x800C0000 numbers whose description names the address without its query.
class HttpRequest {
 public:
  virtual ~HttpRequest() = default;

  // Blank, control and non-ASCII characters of the address go out as %XX of their UTF-8 form; the rest stays.
  virtual void Open(std::string_view method, std::string_view address) = 0;
  // CR, LF or NUL in name or value is a fault.
  virtual void setRequestHeader(std::string_view name, std::string_view value) = 0;
  // Sends and returns when the whole answer is there. An empty body sends none (a POST then has Content-Length: 0).
  virtual void Send(std::string_view body = {}) = 0;
  virtual int Status() const = 0;
  // The answer as UTF-8 text, converted when its charset says otherwise.
  virtual const std::string& responseText() const = 0;
};

class HttpClient {
 public:
  virtual ~HttpClient() = default;
  virtual std::unique_ptr<HttpRequest> CreateRequest() = 0;
  // Applies to requests opened from now on.
  virtual void SetLimits(const HttpLimits& limits) = 0;
};

// The client on libcurl's multi interface. `userAgent` goes out with every request. The loop must outlive the client.
std::unique_ptr<HttpClient> MakeHttpClient(MessageLoop& loop, std::string userAgent);

}  // namespace quenmark::platform
