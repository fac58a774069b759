// URL decoding: valid text stays valid, and text without escapes stays as it is.
#include "platform/code_page.h"
#include "providers/text_utilities.h"

#include <cstdint>
#include <cstdlib>
#include <string>

using namespace quenmark;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string raw(reinterpret_cast<const char*>(data), size);
  providers::UrlDecode(raw);
  const std::string text = platform::SanitizeUtf8(raw);
  const std::string decoded = providers::UrlDecode(text);
  if (platform::SanitizeUtf8(decoded) != decoded) std::abort();
  if (decoded.size() > text.size()) std::abort();
  if (text.find_first_of("%+") == std::string::npos && decoded != text) std::abort();
  return 0;
}
