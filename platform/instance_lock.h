// One running instance per executable file and settings file.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace quenmark::platform {

// Holds an advisory lock on a file of its own beside the store; the kernel drops it with the process. A launched
// program does not inherit it.
class InstanceLock {
 public:
  // The lock for this executable on that store, or nothing when another process holds it. Faults are RunTimeErrors.
  static std::optional<InstanceLock> TryAcquire(const std::string& executable, const std::string& storePath);

  InstanceLock(InstanceLock&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
  InstanceLock& operator=(InstanceLock&& other) noexcept {
    std::swap(m_descriptor, other.m_descriptor);
    return *this;
  }
  ~InstanceLock();

 private:
  explicit InstanceLock(int descriptor) : m_descriptor(descriptor) {}
  int m_descriptor;
};

}  // namespace quenmark::platform
