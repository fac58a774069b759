// Blocking HTTP requests that keep the message loop alive while they wait.
//
// Only http and https. Answers with content codings are decoded. Redirects are followed (at most 10, http and https
// only, never from https to http): a POST answered with 301, 302 or 303 goes on as a GET without a body, 307 and 308
// repeat it. Once a redirect has led to another scheme, host or port, Authorization and cookies are no longer sent.
// Loopback addresses never go through a proxy. Trust: the system's anchors and those of the file that SSL_CERT_FILE
// names.
#pragma once

#include "platform/http_stream.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
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

// Numbers of the faults, as the platform's own HTTP components give them.
inline constexpr std::int32_t kHttpInvalidArgument = static_cast<std::int32_t>(0x80070057u);
inline constexpr std::int32_t kHttpAnswerTooLarge = static_cast<std::int32_t>(0x800700DFu);
inline constexpr std::int32_t kHttpWrongState = static_cast<std::int32_t>(0x8007139Fu);
inline constexpr std::int32_t kHttpInvalidAddress = static_cast<std::int32_t>(0x800C0002u);
inline constexpr std::int32_t kHttpCannotConnect = static_cast<std::int32_t>(0x800C0004u);
inline constexpr std::int32_t kHttpHostNotFound = static_cast<std::int32_t>(0x800C0005u);
inline constexpr std::int32_t kHttpDownloadFailed = static_cast<std::int32_t>(0x800C0008u);
inline constexpr std::int32_t kHttpTimeout = static_cast<std::int32_t>(0x800C000Bu);
inline constexpr std::int32_t kHttpUnknownProtocol = static_cast<std::int32_t>(0x800C000Du);
inline constexpr std::int32_t kHttpSecurityProblem = static_cast<std::int32_t>(0x800C000Eu);
inline constexpr std::int32_t kHttpRedirectFailed = static_cast<std::int32_t>(0x800C0014u);
inline constexpr std::int32_t kHttpInvalidCertificate = static_cast<std::int32_t>(0x800C0019u);

// One request, in the order Open, setRequestHeader..., Send, then Status and responseText; Open begins the next one.
// Every fault is a RunTimeError with one of the numbers above whose description names the address without its query.
// A handler that runs during Send may send other requests and may destroy this one; Open, setRequestHeader and Send of
// the request that is being sent are faults.
class HttpRequest {
 public:
  virtual ~HttpRequest() = default;

  // Blank, control and non-ASCII characters of the address go out as %XX of their UTF-8 form; the rest stays.
  virtual void Open(std::string_view method, std::string_view address) = 0;
  // CR, LF or NUL in the value is a fault, as is a name that is no token (RFC 9110 §5.6.2). A header set again is
  // replaced. Host, Connection, Content-Length and Transfer-Encoding are the client's own and are passed over.
  virtual void setRequestHeader(std::string_view name, std::string_view value) = 0;
  // Sends and returns when the whole answer is there, whatever its status. An empty body sends none (a POST then has
  // Content-Length: 0); GET and HEAD never send one. A body without a Content-Type is text/plain;charset=UTF-8.
  virtual void Send(std::string_view body = {}) = 0;
  // Both are faults before a whole answer has come.
  virtual int Status() const = 0;
  // The answer as UTF-8 text, converted when its charset says otherwise.
  virtual const std::string& responseText() const = 0;
};

class HttpClient {
 public:
  virtual ~HttpClient() = default;
  virtual std::unique_ptr<HttpRequest> CreateRequest() = 0;
  virtual std::unique_ptr<HttpStream> CreateStream() = 0;
  // Applies to requests opened from now on.
  virtual void SetLimits(const HttpLimits& limits) = 0;
};

// The client on libcurl's multi interface. `userAgent` goes out with every request. The loop must outlive the client.
std::unique_ptr<HttpClient> MakeHttpClient(MessageLoop& loop, std::string userAgent);

}  // namespace quenmark::platform
