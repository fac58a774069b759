#include "platform/thread_ids.h"

#include <unistd.h>

namespace quenmark::platform {

std::int64_t ProcessId() {
  return getpid();
}

std::int64_t ThreadId() {
  return gettid();
}

}  // namespace quenmark::platform
