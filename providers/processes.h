// Finding, ending and starting other programs, as the feeder does it.
#pragma once

#include "platform/process_list.h"
#include "providers/context.h"

#include <string>
#include <string_view>

namespace quenmark::providers {

// The first running process one of whose names contains `name` (ASCII case ignored), 0 when none.
platform::ProcessId FindProcess(Context& context, std::string_view name);
// True when the process was ended.
bool EndProcess(Context& context, platform::ProcessId process);
// Starts the file in its own folder ("\" counts as "/"); the platform's ShellExecute value, above 32 on success.
int OpenDocument(Context& context, std::string_view file);

}  // namespace quenmark::providers
