// Entity decoding: the text never grows, text without entities stays, and no entity of the last numbered row survives.
#include "providers/html_entities.h"

#include "platform/code_page.h"

#include <cstdint>
#include <cstdlib>
#include <string>

using namespace quenmark;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string raw(reinterpret_cast<const char*>(data), size);
  providers::HtmlEntityDecode(raw);
  const std::string text = platform::SanitizeUtf8(raw);
  const std::string decoded = providers::HtmlEntityDecode(text);
  if (platform::SanitizeUtf8(decoded) != decoded) std::abort();
  if (decoded.size() > text.size()) std::abort();
  if (text.find('&') == std::string::npos && decoded != text) std::abort();
  if (decoded.find("&#8482;") != std::string::npos) std::abort();
  return 0;
}
