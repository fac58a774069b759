// Web addresses of requests: their escaping, their parts, and where they lead.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quenmark::platform {

struct HttpAddress {
  std::string scheme;  // lower case
  std::string host;    // lower case, IPv6 in brackets
  std::string port;    // 80 or 443 when none is written for http or https
  std::string path;    // without the query

  // Two addresses of one origin go to the same server in the same way.
  bool SameOrigin(const HttpAddress& other) const {
    return scheme == other.scheme && host == other.host && port == other.port;
  }
  bool IsHttp() const { return scheme == "http" || scheme == "https"; }
  // For logs and error texts: without user, password, query and fragment, and without a port that goes without saying.
  std::string Printable() const;
};

// Blank, control and non-ASCII bytes as %XX; the rest stays.
std::string EscapeAddress(std::string_view address);
// Nothing when it is no absolute address.
std::optional<HttpAddress> ParseAddress(const std::string& address);
// The address without a user and password in it.
std::string WithoutUser(const std::string& address);
// Statuses of redirects that are followed.
bool IsRedirect(int status);
// Where a redirect from there leads, escaped and without a user and password, as a server must not choose credentials
// that go to another one. Nothing when it must not be followed: only to http and https, and never from https to http.
std::optional<std::string> RedirectTarget(const HttpAddress& from, std::string_view location);
// Whether its host is localhost or a loopback number.
bool IsLoopbackAddress(const std::string& address);

}  // namespace quenmark::platform
