// Parser and serializer: nothing crashes, and what is written reads back without a complaint as the same tree.
#include "providers/json.h"

#include "platform/code_page.h"
#include "providers/json_script.h"

#include <cstdint>
#include <cstdlib>
#include <string>

using namespace quenmark;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string raw(reinterpret_cast<const char*>(data), size);
  const providers::JsonDocument anyBytes = providers::ParseJson(raw);
  if (anyBytes.GetParserErrors().size() > providers::kJsonErrorLimit + 256) std::abort();
  providers::ScriptHost host;
  providers::cJSONScript(host).Eval(raw);

  const providers::JsonDocument document = providers::ParseJson(platform::SanitizeUtf8(raw));
  if (document.Root() == nullptr) {
    if (document.GetParserErrors() != "Invalid JSON") std::abort();
    return 0;
  }
  const std::string written = providers::ToJson(*document.Root());
  const providers::JsonDocument again = providers::ParseJson(written);
  if (again.Root() == nullptr || !again.GetParserErrors().empty()) std::abort();
  if (providers::ToJson(*again.Root()) != written) std::abort();
  return 0;
}
