// A streamed HTTP answer, read piece by piece while it arrives.
#pragma once

#include "platform/clock.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace quenmark::platform {

// One request in the order Open, Connect, OpenRequest, AddHeaders, Send, then the queries and Read. Each step answers
// whether it worked; after a failed one only Close and destruction are left. Redirects are not followed. Chunked
// transfer is undone below. Waiting keeps the loop alive.
class HttpStream {
 public:
  enum class ReadEnd {
    kData,
    kEnd,     // the answer is complete
    kTimeUp,  // nothing came until the deadline
    kFailed,  // the transfer broke off
  };

  virtual ~HttpStream() = default;

  virtual bool Open(std::string_view userAgent) = 0;
  virtual bool Connect(std::string_view host, int port) = 0;
  // `objectName` is the path with its query; `secure` asks for https.
  virtual bool OpenRequest(std::string_view method, std::string_view objectName, bool secure) = 0;
  // Header lines, each ended by CR LF; a line of a name that was added before replaces it. Lines that are no header are
  // left out.
  virtual void AddHeaders(std::string_view lines) = 0;
  // Sends and returns when the answer's head is there. A body is sent with methods other than GET.
  virtual bool Send(std::string_view body) = 0;

  // Of the answer's head; 0 and "" when unknown.
  virtual int StatusCode() const = 0;
  virtual const std::string& StatusText() const = 0;
  virtual std::int64_t ContentLength() const = 0;

  // Where the answer, when it is complete, redirects to; "" when it does not, or to an address that must not be
  // followed (RedirectTarget).
  virtual std::string RedirectAddress() const = 0;

  // The next piece, at most `most` bytes, into `piece`. Waits for it until the deadline.
  virtual ReadEnd Read(std::string& piece, std::size_t most, MonotonicTime deadline) = 0;
  virtual void Close() = 0;
};

}  // namespace quenmark::platform
