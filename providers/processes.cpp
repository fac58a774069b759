#include "providers/processes.h"

#include "platform/run_time_error.h"

#include <algorithm>

namespace quenmark::providers {

platform::ProcessId FindProcess(Context& context, std::string_view name) {
  platform::ProcessId found = 0;
  platform::IgnoreErrors([&] { found = platform::FindProcess(context.processes.List(), name); });
  return found;
}

bool EndProcess(Context& context, platform::ProcessId process) {
  bool ended = false;
  platform::IgnoreErrors([&] { ended = process > 0 && context.processes.End(process); });
  return ended;
}

int OpenDocument(Context& context, std::string_view file) {
  std::string path(file);
  std::replace(path.begin(), path.end(), '\\', '/');
  int result = 0;
  platform::IgnoreErrors([&] { result = context.processes.Launch(path); });
  return result;
}

}  // namespace quenmark::providers
