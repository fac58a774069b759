// The opening handshake (RFC 6455 §4.1): what is sent, and what the answer means. Pure: no socket, no clock, no random
// numbers of its own.
#pragma once

#include "websocket/url.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace quenmark::websocket {

// The 20 bytes of the SHA-1 digest, empty when hashing fails.
using Sha1 = std::function<std::string(std::string_view)>;

// What the caller asks the server for; `extensions` and `extraHeaders` are already completed by the two functions
// below.
struct HandshakeFields {
  std::string_view protocols;
  std::string_view extensions;
  std::string_view extraHeaders;  // whole lines, each ending in CR LF
  std::string_view key;           // base64
};

// The extensions with permessage-deflate added unless they mention it.
std::string OfferDeflate(std::string_view extensions);
// The header lines with an Origin line added unless they hold one.
std::string WithOrigin(std::string_view extraHeaders, const UrlFields& url);
std::string HandshakeRequest(const UrlFields& url, const HandshakeFields& fields);

// What Sec-WebSocket-Accept must be for that key; empty when hashing fails.
std::string AcceptValue(std::string_view key, const Sha1& sha1);

// ---- the answer ----

struct CollectedAnswer {
  enum class State { kWait, kCorrupt, kComplete };
  State state = State::kWait;
  std::size_t length = 0;  // bytes that belong to the answer; what follows are frames
};
// Finds the answer in everything received so far. An answer whose head is not complete is corrupt: it is not waited
// for.
CollectedAnswer CollectAnswer(std::string_view received);

struct AnswerVerdict {
  enum class Kind {
    kUnreadable,   // no line at all
    kIgnored,      // not an HTTP/1 status line
    kProxy,        // 305, 306
    kAccepted,     // 101 that passes every check
    kFailedCheck,  // 101 that does not
    kRefused,      // any other status
    kRedirect,
    kBadRedirect,
  };
  Kind kind = Kind::kIgnored;
  std::int32_t code = 0;    // close code to report, 0 when accepted, redirected or ignored
  std::string description;  // with the code
  std::string protocols;    // the server's, when accepted
  std::string extensions;   // the server's, when accepted
  std::string location;     // ws or wss address, when redirected
};
AnswerVerdict ValidateAnswer(std::string_view block, std::string_view acceptValue);

inline constexpr std::string_view kRedirectFailed = "A redirect by the server could not be processed.";

// ---- permessage-deflate as accepted (RFC 7692 §7.1) ----

bool DeflateNegotiated(std::string_view extensions);

struct DeflateTerms {
  bool serverKeepsContext = false;  // a message may refer to the ones before it
  int clientWindowBits = 15;        // 8 to 15
};
DeflateTerms ReadDeflateTerms(std::string_view extensions);

}  // namespace quenmark::websocket
