// WebSocket addresses: what parses makes a request without a stray line, and its parts stand in the text.
#include "websocket/handshake.h"
#include "websocket/url.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

using namespace quenmark::websocket;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  UrlFields url;
  if (!ParseUrl(text, url)) return 0;
  if (url.host.empty() || (url.port == 0 && url.portText.empty()) || url.resourcePath.empty()) std::abort();
  for (const std::string& part : {url.host, url.portText, url.query}) {
    if (text.find(part) == std::string::npos) std::abort();
  }
  const std::string request = HandshakeRequest(url, {{}, {}, WithOrigin({}, url), "key"});
  if (std::count(request.begin(), request.end(), '\n') != 9) std::abort();
  return 0;
}
