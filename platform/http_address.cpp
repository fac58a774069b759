#include "platform/http_address.h"

#include "platform/code_page.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fmt/format.h>
#include <netinet/in.h>

#include <iterator>
#include <memory>

namespace quenmark::platform {
namespace {

struct UrlCloser {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using Url = std::unique_ptr<CURLU, UrlCloser>;

struct TextCloser {
  void operator()(char* text) const { curl_free(text); }
};

// nullptr when it is no absolute address.
Url Parse(const std::string& address) {
  Url url(curl_url());
  constexpr unsigned kFlags = CURLU_NON_SUPPORT_SCHEME | CURLU_PATH_AS_IS;
  if (!url || curl_url_set(url.get(), CURLUPART_URL, address.c_str(), kFlags) != CURLUE_OK) return nullptr;
  return url;
}

// "" when the address has no such part.
std::string Part(const Url& url, CURLUPart part, unsigned flags = 0) {
  char* text = nullptr;
  if (curl_url_get(url.get(), part, &text, flags) != CURLUE_OK) return {};
  const std::unique_ptr<char, TextCloser> owned(text);
  return owned.get();
}

}  // namespace

std::string HttpAddress::Printable() const {
  const bool usual = port.empty() || (scheme == "http" && port == "80") || (scheme == "https" && port == "443");
  return fmt::format("{}://{}{}{}{}", scheme, host, usual ? "" : ":", usual ? "" : port, path);
}

std::string EscapeAddress(std::string_view address) {
  std::string escaped;
  escaped.reserve(address.size());
  for (const char c : address) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= 0x20 || byte >= 0x7F) {
      fmt::format_to(std::back_inserter(escaped), "%{:02X}", byte);
    } else {
      escaped.push_back(c);
    }
  }
  return escaped;
}

std::optional<HttpAddress> ParseAddress(const std::string& address) {
  const Url url = Parse(address);
  if (!url) return std::nullopt;
  HttpAddress parsed{AsciiLower(Part(url, CURLUPART_SCHEME)), AsciiLower(Part(url, CURLUPART_HOST)),
                     Part(url, CURLUPART_PORT), Part(url, CURLUPART_PATH)};
  if (parsed.port.empty() && parsed.IsHttp()) parsed.port = parsed.scheme == "http" ? "80" : "443";
  return parsed;
}

std::string WithoutUser(const std::string& address) {
  const Url url = Parse(address);
  if (!url) return address;
  curl_url_set(url.get(), CURLUPART_USER, nullptr, 0);
  curl_url_set(url.get(), CURLUPART_PASSWORD, nullptr, 0);
  return Part(url, CURLUPART_URL);
}

bool IsRedirect(int status) {
  return (status >= 301 && status <= 303) || status == 307 || status == 308;
}

std::optional<std::string> RedirectTarget(const HttpAddress& from, std::string_view location) {
  std::string target = WithoutUser(EscapeAddress(location));
  const std::optional<HttpAddress> to = ParseAddress(target);
  if (!to || !to->IsHttp() || (from.scheme == "https" && to->scheme != "https")) return std::nullopt;
  return target;
}

bool IsLoopbackAddress(const std::string& address) {
  const std::optional<HttpAddress> parsed = ParseAddress(address);
  if (!parsed) return false;
  std::string host = parsed->host;
  if (host == "localhost" || host.ends_with(".localhost")) return true;
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  in6_addr six{};
  if (inet_pton(AF_INET6, host.c_str(), &six) == 1) {
    return IN6_IS_ADDR_LOOPBACK(&six) || (IN6_IS_ADDR_V4MAPPED(&six) && six.s6_addr[12] == 127);
  }
  in_addr four{};
  return inet_pton(AF_INET, host.c_str(), &four) == 1 && ntohl(four.s_addr) >> 24 == 127;
}

}  // namespace quenmark::platform
