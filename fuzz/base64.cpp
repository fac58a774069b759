// Base64: white space changes nothing, the result is valid text, three characters at most per group.
#include "platform/code_page.h"
#include "providers/text_utilities.h"

#include <cstdint>
#include <cstdlib>
#include <string>

using namespace quenmark;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string decoded = providers::Base64DecodeText(text);
  if (platform::SanitizeUtf8(decoded) != decoded) std::abort();
  if (platform::Utf16Length(decoded) > (size + 3) / 4 * 3) std::abort();
  std::string spaced;
  for (const char c : text) spaced.append(1, c).append(" \r\n\t");
  if (providers::Base64DecodeText(spaced) != decoded) std::abort();
  return 0;
}
