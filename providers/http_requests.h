// Blocking requests to the providers' web services. Each runs on the loop's thread and keeps the loop alive.
#pragma once

#include "providers/context.h"

#include <string>
#include <string_view>

namespace quenmark::providers {

// Whether the result of an ApiRequest is a failure. What the server said stands in it, so it must not be read as an
// answer.
inline bool RequestFailed(std::string_view result) {
  return result.starts_with("not_auth");
}

// The name this program gives itself: executable name "/" version " (N; en-GB; DAEMON)".
std::string BuildUserAgent();

// A request to the broker's REST service. `path` is relative to the base address unless it begins with "http", and
// comes back with the cache-buster appended. An empty body means GET, but for the two session paths.
//
// Never raises. The result is the answer text (status 200), "not_auth" + status + "|" + answer, "not_auth0|" + error
// description, or "not_auth000|not available in sandbox" for a POST to a sandbox address, which is not sent. Minute-bar
// requests are answered from the day's local file of the symbol or, for 15 seconds, from section "TIntra".
std::string ApiRequest(Context& context, std::string& path, std::string_view body = {});
// The same for callers that do not look at the path afterwards.
std::string ApiRequest(Context& context, std::string&& path, std::string_view body = {});

// A request to TradeStation's REST service. A status other than 200 stores "ask_new_session" and ends the program;
// platform faults are RunTimeErrors.
std::string StationRequest(Context& context, std::string_view path, std::string_view body = {});

// A JSON POST to the vendor's own service ("http:" in the address becomes "https:"). Never raises: the answer text
// whatever its status, or "err-" + number + "." + description.
std::string VendorPost(Context& context, std::string_view address, std::string_view credential);

}  // namespace quenmark::providers
