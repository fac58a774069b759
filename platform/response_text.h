// The bytes of an HTTP answer as text.
#pragma once

#include <string>
#include <string_view>

namespace quenmark::platform {

// The charset parameter of a Content-Type value, lower case; "" when there is none.
std::string CharsetOf(std::string_view contentType);

// UTF-8 text of the bytes, which are UTF-8 unless the Content-Type names another charset that the system knows. A byte
// order mark is left out; what is malformed in the charset becomes U+FFFD.
std::string DecodeResponse(std::string bytes, std::string_view contentType);

}  // namespace quenmark::platform
