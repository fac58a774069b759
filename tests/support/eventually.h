#pragma once

#include <poll.h>

#include <chrono>

namespace quenmark::test {

// Waits until `condition` answers true, looking every few milliseconds. Returns what it answers at the end.
template <typename Condition>
bool Eventually(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds{20}) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    poll(nullptr, 0, 5);
  }
  return true;
}

}  // namespace quenmark::test
