// Numbers that tell processes and threads apart.
#pragma once

#include <cstdint>

namespace quenmark::platform {

std::int64_t ProcessId();
std::int64_t ThreadId();  // of the calling thread, unique in the system

}  // namespace quenmark::platform
