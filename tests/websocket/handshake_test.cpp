#include "websocket/handshake.h"

#include "tests/websocket/websocket_fixture.h"

#include <gtest/gtest.h>

namespace quenmark::websocket {
namespace {

using Kind = AnswerVerdict::Kind;
using test::Sha1Digest;

UrlFields Parsed(std::string_view text) {
  UrlFields url;
  EXPECT_TRUE(ParseUrl(text, url));
  return url;
}

TEST(Handshake, RequestLineByLine) {
  const UrlFields url = Parsed("wss://h:8443/a?b=1&c=x y");
  const std::string headers = WithOrigin("Authorization: Bearer t\r\n", url);
  EXPECT_EQ(HandshakeRequest(url, {"chat, superchat", "x-foo", headers, "a2V5"}),
            "GET /a?b=1&c=x%20y HTTP/1.1\r\n"
            "Host: h:8443\r\n"
            "Upgrade: WebSocket\r\n"
            "Connection: Upgrade\r\n"
            "Authorization: Bearer t\r\n"
            "Origin: https://h/a?b=1&c=x%20y\r\n"
            "Sec-WebSocket-Origin: https://h/a?b=1&c=x%20y\r\n"
            "Sec-WebSocket-Key: a2V5\r\n"
            "Sec-WebSocket-Version: 13\r\n"
            "Sec-WebSocket-Protocol: chat, superchat\r\n"
            "Sec-Websocket-Extensions: x-foo\r\n"
            "\r\n");
  EXPECT_EQ(
      HandshakeRequest(Parsed("ws://h:443/"), {"", "", "", "k"}),
      "GET / HTTP/1.1\r\nHost: h\r\nUpgrade: WebSocket\r\nConnection: Upgrade\r\nSec-WebSocket-Origin: http://h/\r\n"
      "Sec-WebSocket-Key: k\r\nSec-WebSocket-Version: 13\r\n\r\n");
}

TEST(Handshake, WhatIsAdded) {
  const UrlFields url = Parsed("ws://host/p");
  EXPECT_EQ(WithOrigin("", url), "Origin: http://host/p\r\n");
  EXPECT_EQ(WithOrigin("ORIGIN: https://other\r\n", url), "ORIGIN: https://other\r\n");
  EXPECT_EQ(OfferDeflate(""), "permessage-deflate; server_no_context_takeover");
  EXPECT_EQ(OfferDeflate("Permessage-Deflate"), "Permessage-Deflate");
}

TEST(Handshake, DeflateTerms) {
  const struct {
    std::string extensions;
    bool serverKeepsContext;
    int clientWindowBits;
  } rows[] = {
      {"", false, 15},
      {"permessage-deflate; server_no_context_takeover", false, 15},
      {"permessage-deflate", true, 15},
      {"x-foo; server_no_context_takeover, permessage-deflate; client_max_window_bits=10", true, 10},
      {"permessage-deflate; client_max_window_bits = \"8\"; server_no_context_takeover", false, 8},
      {"permessage-deflate; client_max_window_bits, x; server_no_context_takeover", true, 15},
      {"permessage-deflate; client_max_window_bits=16", true, 15},
      {"permessage-deflate; client_max_window_bits=x", true, 15},
  };
  for (const auto& row : rows) {
    const DeflateTerms terms = ReadDeflateTerms(row.extensions);
    EXPECT_EQ(terms.serverKeepsContext, row.serverKeepsContext) << row.extensions;
    EXPECT_EQ(terms.clientWindowBits, row.clientWindowBits) << row.extensions;
  }
}

TEST(Handshake, AcceptValueOfRfc6455Section13) {
  EXPECT_EQ(AcceptValue("dGhlIHNhbXBsZSBub25jZQ==", Sha1Digest), "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
  EXPECT_EQ(AcceptValue("k", [](std::string_view) { return std::string(); }), "");
}

const std::string kAccept = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";
const std::string kGood =
    "HTTP/1.1 101 Switching Protocols\r\nUpgrade: WebSocket\r\nConnection: upgrade\r\n"
    "Sec-WebSocket-Accept: " +
    kAccept + "\r\nSec-WebSocket-Protocol: a ,b\r\n\r\n";

TEST(Answer, Collect) {
  using State = CollectedAnswer::State;
  const std::string head = "HTTP/1.1 404 No\r\nContent-Length: 5\r\n\r\n";
  const struct {
    std::string received;
    State state;
    std::size_t length;
  } rows[] = {
      {head, State::kComplete, head.size()},
      {head + "12345", State::kComplete, head.size() + 5},
      {head + "123", State::kComplete, head.size() + 3},
      {head + "12345\x81\x01", State::kComplete, head.size() + 5},
      {"HTTP/1.1 101 x\n\n", State::kComplete, 16},
      {"HTTP/1.1 101 x\n\n\x81", State::kComplete, 16},
      {"HTTP/1.1 200 x\r\nContent-Length: -9\r\n\r\nrest", State::kComplete, 38},
      {"HTTP/1.1 200 x\r\nContent-Length: 4294967295\r\n\r\nrest", State::kComplete, 46},
  };
  for (const auto& row : rows) {
    const CollectedAnswer answer = CollectAnswer(row.received);
    EXPECT_EQ(answer.state, row.state) << row.received;
    EXPECT_EQ(answer.length, row.length) << row.received;
  }
}

TEST(Answer, Upgrade) {
  const AnswerVerdict good = ValidateAnswer(kGood, kAccept);
  EXPECT_EQ(good.kind, Kind::kAccepted);
  EXPECT_EQ(good.protocols, "a, b");
  EXPECT_EQ(good.extensions, "");
  const struct {
    std::string part, other;  // in its place
    std::string accept;
    std::string text;
  } rows[] = {
      {"Upgrade: WebSocket\r\n", "", kAccept, "Invalid handshake recieved. Upgrade header not present."},
      {"Upgrade: WebSocket", "Upgrade: h2c", kAccept, "Invalid handshake recieved. Upgrade header not present."},
      {"Connection: upgrade\r\n", "", kAccept, "Invalid handshake recieved. Connection header not present."},
      {"xOo=", "XOO=", kAccept, "The client-server secret key challenge failed."},
      {"Sec-WebSocket-Accept", "X", "", "The client-server secret key challenge failed."},
  };
  for (const auto& row : rows) {
    std::string answer = kGood;
    const AnswerVerdict verdict =
        ValidateAnswer(answer.replace(answer.find(row.part), row.part.size(), row.other), row.accept);
    EXPECT_EQ(verdict.kind, Kind::kFailedCheck);
    EXPECT_EQ(verdict.code, 1002);
    EXPECT_EQ(verdict.description, row.text);
  }
}

TEST(Answer, OtherStatuses) {
  const auto head = [](std::string_view status, std::string_view headers = "") {
    return fmt::format("HTTP/1.1 {} Text\r\n{}\r\n", status, headers);
  };
  const struct {
    std::string answer;
    Kind kind;
    std::int32_t code;
    std::string text;  // description or location
  } rows[] = {
      {"no line at all\n\n", Kind::kUnreadable, 1007, "Invalid Data was Received."},
      {"\r\n\r\n", Kind::kIgnored, 0, ""},
      {"HTTP/2.0 101 x\r\n\r\n", Kind::kIgnored, 0, ""},
      {"HTTP/1.1 101\r\n\r\n", Kind::kIgnored, 0, ""},
      {"HTTP/1.1 1x1 a\r\n\r\n", Kind::kIgnored, 0, ""},
      {"http/1.0 404 a\r\n\r\n", Kind::kRefused, 1002, "404: Resource Not Found."},
      {head("402"), Kind::kRefused, 1008, "Payment Required."},
      {head("302"), Kind::kBadRedirect, 1014, "A redirect by the server could not be processed."},
      {head("302", "Location: http://hi\r\n"), Kind::kRedirect, 0, "ws://hi"},
      {head("302", "Location: ws://abcd\r\n"), Kind::kRedirect, 0, "ws://abcd"},
      {head("302", "Location: ws://abc\r\n"), Kind::kBadRedirect, 1014,
       "A redirect by the server could not be processed."},
      {head("301", "Location: https://h/n\r\n"), Kind::kRedirect, 0, "wss://h/n"},
      {head("303", "location: HTTP://h/n\r\n"), Kind::kRedirect, 0, "ws://h/n"},
      {head("307", "Location: ftp://host/n\r\n"), Kind::kRedirect, 0, "ftp://host/n"},
      {head("308", "Location: /somewhere\r\n"), Kind::kRedirect, 0, "/somewhere"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.answer);
    const AnswerVerdict verdict = ValidateAnswer(row.answer, kAccept);
    EXPECT_EQ(verdict.kind, row.kind);
    EXPECT_EQ(verdict.code, row.code);
    EXPECT_EQ(row.kind == Kind::kRedirect ? verdict.location : verdict.description, row.text);
  }
}

// An answer is taken whole or not at all: cut anywhere before its end it is waited for (one byte) or corrupt, and the
// frames behind it do not matter.
TEST(Answer, CutAtEveryOffset) {
  using State = CollectedAnswer::State;
  const std::string stream = kGood + "\x81\x02hi";
  for (std::size_t length = 0; length <= stream.size(); ++length) {
    const CollectedAnswer answer = CollectAnswer(std::string_view(stream).substr(0, length));
    const bool whole = length >= kGood.size();
    EXPECT_EQ(answer.state, length < 2 ? State::kWait : whole ? State::kComplete : State::kCorrupt) << length;
    EXPECT_EQ(answer.length, whole ? kGood.size() : 0) << length;
  }
}

}  // namespace
}  // namespace quenmark::websocket
