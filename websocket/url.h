// ws and wss addresses.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace quenmark::websocket {

// The parts of the address last parsed. All text is UTF-8.
struct UrlFields {
  std::string url;  // as given
  bool secure = false;
  std::string host;
  std::int32_t port = 0;  // 0: none known yet
  std::string portText;   // as written in the address, empty when it had none
  std::string resourcePath;
  std::string query;         // behind "?", as written
  std::string encodedQuery;  // percent-encoded
};

// Parses `text` into `fields`. A port already there stays when the address has none. On failure the fields are left
// partly changed. Control characters in host or path, and an empty host, are refused: they would end up in a request.
bool ParseUrl(std::string_view text, UrlFields& fields);

// ASCII letters and digits stay, and so do "=" and "&" when asked; every other byte becomes %XX. Characters beyond
// U+FFFF are encoded as their two UTF-16 code units, three bytes each.
std::string PercentEncode(std::string_view text, bool keepSeparators);

}  // namespace quenmark::websocket
