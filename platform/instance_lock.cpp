#include "platform/instance_lock.h"

#include "platform/files.h"
#include "platform/run_time_error.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string_view>
#include <system_error>

namespace quenmark::platform {
namespace {

// The path without symbolic links where it exists, else as it stands.
std::string Canonical(const std::string& path) {
  const std::unique_ptr<char, decltype(&free)> resolved(realpath(path.c_str(), nullptr), &free);
  return resolved ? std::string(resolved.get()) : path;
}

// FNV-1a, 64 bits: the same on every build, which std::hash does not promise.
std::uint64_t Fingerprint(std::string_view text) {
  std::uint64_t hash = 0xCBF29CE484222325u;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3u;
  return hash;
}

}  // namespace

std::optional<InstanceLock> InstanceLock::TryAcquire(const std::string& executable, const std::string& storePath) {
  const std::size_t slash = storePath.find_last_of('/');
  if (slash != std::string::npos && slash > 0) CreatePrivateFolders(storePath.substr(0, slash));
  // By path, not by inode: a program file that is replaced while the old program runs is still the same executable.
  const std::string path = fmt::format("{}.{:016x}.lock", Canonical(storePath), Fingerprint(Canonical(executable)));
  const int descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) {
    throw RunTimeError(75, fmt::format("{}: {}", path, std::generic_category().message(errno)));
  }
  InstanceLock lock(descriptor);
  // The file stays for ever: removing it would let two holders lock two files of the same name.
  if (flock(descriptor, LOCK_EX | LOCK_NB) == 0) return lock;
  if (errno == EWOULDBLOCK) return std::nullopt;
  throw RunTimeError(75, fmt::format("{}: {}", path, std::generic_category().message(errno)));
}

InstanceLock::~InstanceLock() {
  if (m_descriptor >= 0) close(m_descriptor);
}

}  // namespace quenmark::platform
