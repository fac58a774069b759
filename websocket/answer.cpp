#include "platform/code_page.h"
#include "websocket/handshake.h"
#include "websocket/header_text.h"
#include "websocket/status_texts.h"

#include <algorithm>

namespace quenmark::websocket {

namespace {

using Kind = AnswerVerdict::Kind;

constexpr std::size_t kShortestAnswer = 12;
constexpr std::size_t kLongestBadLocation = 8;

// Length of the head with its empty line, 0 when that line is missing.
std::size_t HeadLength(std::string_view text) {
  if (const std::size_t end = text.find("\r\n\r\n"); end != std::string_view::npos) return end + 4;
  if (const std::size_t end = text.find("\n\n"); end != std::string_view::npos) return end + 2;
  return 0;
}

// "HTTP/1.# ### *", # a digit, any case.
bool IsStatusLine(std::string_view line) {
  constexpr std::string_view kPattern = "HTTP/1.# ### ";
  if (line.size() < kPattern.size()) return false;
  const std::string head = platform::AsciiUpper(line.substr(0, kPattern.size()));
  return std::equal(head.begin(), head.end(), kPattern.begin(),
                    [](char c, char wanted) { return wanted == '#' ? c >= '0' && c <= '9' : c == wanted; });
}

std::string HeaderText(std::string_view block, std::string_view name) {
  return platform::FromWindows1252(GetHeader(block, name));
}

AnswerVerdict Failure(Kind kind, std::int32_t code, std::string_view description) {
  AnswerVerdict verdict;
  verdict.kind = kind;
  verdict.code = code;
  verdict.description = description;
  return verdict;
}

AnswerVerdict ValidateUpgrade(std::string_view block, std::string_view acceptValue) {
  if (!platform::EqualsIgnoreAsciiCase(GetHeader(block, "upgrade"), "websocket")) {
    return Failure(Kind::kFailedCheck, kProtocolError, "Invalid handshake recieved. Upgrade header not present.");
  }
  if (!platform::EqualsIgnoreAsciiCase(GetHeader(block, "connection"), "upgrade")) {
    return Failure(Kind::kFailedCheck, kProtocolError, "Invalid handshake recieved. Connection header not present.");
  }
  // An empty value means that hashing failed; it must not meet a missing header.
  if (acceptValue.empty() || GetHeader(block, "Sec-Websocket-Accept:") != acceptValue) {
    return Failure(Kind::kFailedCheck, kProtocolError, "The client-server secret key challenge failed.");
  }
  AnswerVerdict verdict;
  verdict.kind = Kind::kAccepted;
  verdict.protocols = NormaliseList(HeaderText(block, "Sec-WebSocket-Protocol:"));
  verdict.extensions = NormaliseList(HeaderText(block, "Sec-WebSocket-Extensions:"));
  return verdict;
}

AnswerVerdict ValidateRedirect(std::string_view block) {
  const std::string_view location = GetHeader(block, "Location:");
  if (location.size() <= kLongestBadLocation) return Failure(Kind::kBadRedirect, kBadGateway, kRedirectFailed);
  AnswerVerdict verdict;
  verdict.kind = Kind::kRedirect;
  verdict.location = platform::FromWindows1252(location);
  const bool isHttps = platform::EqualsIgnoreAsciiCase(location.substr(0, 5), "https");
  if (isHttps || platform::EqualsIgnoreAsciiCase(location.substr(0, 4), "http")) {
    if (const std::size_t colon = verdict.location.find(':'); colon != std::string::npos) {
      verdict.location.replace(0, colon, isHttps ? "wss" : "ws");
    }
  }
  return verdict;
}

}  // namespace

CollectedAnswer CollectAnswer(std::string_view received) {
  using State = CollectedAnswer::State;
  if (received.size() < 2) return {State::kWait, 0};
  if (received.size() < kShortestAnswer) return {State::kCorrupt, 0};
  if (received.ends_with("\r\n\r\n") || received.ends_with("\n\n")) return {State::kComplete, received.size()};
  const std::size_t head = HeadLength(received);
  if (head == 0) return {State::kCorrupt, 0};
  const std::int32_t body = std::max(ParseNumber(GetHeader(received, "Content-Length")).value_or(0), 0);
  return {State::kComplete, std::min(head + static_cast<std::size_t>(body), received.size())};
}

AnswerVerdict ValidateAnswer(std::string_view block, std::string_view acceptValue) {
  const std::size_t lineEnd = block.find("\r\n");
  if (lineEnd == std::string_view::npos) return Failure(Kind::kUnreadable, kInvalidData, "Invalid Data was Received.");
  const std::string_view statusLine = block.substr(0, lineEnd);
  if (!IsStatusLine(statusLine)) return {};
  const std::int32_t status = ParseNumber(statusLine.substr(statusLine.find(' ') + 1, 3)).value_or(0);
  switch (status) {
    case 101:
      return ValidateUpgrade(block, acceptValue);
    case 301:
    case 302:
    case 303:
    case 307:
    case 308:
      return ValidateRedirect(block);
    case 305:
    case 306:
      return Failure(Kind::kProxy, kBadGateway, "The server requires a proxy but the configuration is incorrect.");
    case 426:
      return Failure(Kind::kRefused, kProtocolError, "The requested sub-protocol(s) are not supported.");
    default: {
      const StatusError error = HttpStatusError(status);
      return Failure(Kind::kRefused, error.code, error.description);
    }
  }
}

}  // namespace quenmark::websocket
