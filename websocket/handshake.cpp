#include "websocket/handshake.h"

#include "platform/store_text.h"
#include "websocket/header_text.h"

#include <fmt/format.h>

namespace quenmark::websocket {

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kDeflate = "permessage-deflate";
constexpr std::string_view kDeflateOffer = "permessage-deflate; server_no_context_takeover";
constexpr std::string_view kAcceptSalt = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";  // RFC 6455 §1.3

std::string Resource(const UrlFields& url) {
  return url.encodedQuery.empty() ? url.resourcePath : fmt::format("{}?{}", url.resourcePath, url.encodedQuery);
}

std::string OriginUrl(const UrlFields& url) {
  return fmt::format("{}{}{}", url.secure ? "https://" : "http://", url.host, Resource(url));
}

std::string HostHeader(const UrlFields& url) {
  if (url.portText.empty() || url.portText == "443" || url.portText == "80") return url.host;
  return fmt::format("{}:{}", url.host, url.portText);
}

}  // namespace

std::string OfferDeflate(std::string_view extensions) {
  if (extensions.empty()) return std::string(kDeflateOffer);
  if (ContainsIgnoreCase(extensions, kDeflate)) return std::string(extensions);
  return fmt::format("{}, {}", extensions, kDeflateOffer);
}

std::string WithOrigin(std::string_view extraHeaders, const UrlFields& url) {
  if (ContainsIgnoreCase(extraHeaders, "origin: ")) return std::string(extraHeaders);
  return fmt::format("{}Origin: {}{}", extraHeaders, OriginUrl(url), kLineEnd);
}

std::string HandshakeRequest(const UrlFields& url, const HandshakeFields& fields) {
  std::string request;
  const auto line = [&request](std::string_view name, std::string_view value) {
    request += name;
    request += value;
    request += kLineEnd;
  };
  line("GET ", Resource(url) + " HTTP/1.1");
  line("Host: ", HostHeader(url));
  line("Upgrade: ", "WebSocket");
  line("Connection: ", "Upgrade");
  request += fields.extraHeaders;
  line("Sec-WebSocket-Origin: ", OriginUrl(url));
  line("Sec-WebSocket-Key: ", fields.key);
  line("Sec-WebSocket-Version: ", "13");
  if (!fields.protocols.empty()) line("Sec-WebSocket-Protocol: ", fields.protocols);
  if (!fields.extensions.empty()) line("Sec-Websocket-Extensions: ", fields.extensions);
  request += kLineEnd;
  return request;
}

std::string AcceptValue(std::string_view key, const Sha1& sha1) {
  const std::string digest = sha1(fmt::format("{}{}", key, kAcceptSalt));
  return digest.empty() ? digest : platform::EncodeBase64(digest);
}

bool DeflateNegotiated(std::string_view extensions) {
  return ContainsIgnoreCase(extensions, kDeflate);
}

DeflateTerms ReadDeflateTerms(std::string_view extensions) {
  constexpr std::string_view kWindowBits = "client_max_window_bits";
  DeflateTerms terms;
  const std::size_t start = FindIgnoreCase(extensions, kDeflate);
  if (start == std::string_view::npos) return terms;
  std::string_view rest = extensions.substr(start);
  rest = rest.substr(0, rest.find(','));
  terms.serverKeepsContext = !ContainsIgnoreCase(rest, "server_no_context_takeover");
  const std::size_t bits = FindIgnoreCase(rest, kWindowBits);
  if (bits == std::string_view::npos) return terms;
  rest.remove_prefix(bits + kWindowBits.size());
  rest = Trim(rest.substr(0, rest.find(';')));
  if (!rest.starts_with('=')) return terms;
  rest = Trim(rest.substr(1));
  if (rest.size() >= 2 && rest.front() == '"' && rest.back() == '"') rest = rest.substr(1, rest.size() - 2);
  const auto value = ParseNumber(rest);
  if (value && *value >= 8 && *value <= 15) terms.clientWindowBits = *value;
  return terms;
}

}  // namespace quenmark::websocket
