#include "platform/store_turn.h"

#include "platform/run_time_error.h"
#include "platform/sqlite_store.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace quenmark::platform {

namespace {

struct flock WholeFile(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

}  // namespace

StoreTurn::StoreTurn(const std::string& path)
    : m_descriptor(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
  if (m_descriptor < 0) {
    throw RunTimeError(kErrorStoreFault, fmt::format("The file {} cannot be opened: {}.", path, std::strerror(errno)));
  }
}

StoreTurn::~StoreTurn() {
  close(m_descriptor);
}

bool StoreTurn::RivalWaits() const {
  struct flock lock = WholeFile(F_WRLCK);
  return fcntl(m_descriptor, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool StoreTurn::TryTake() {
  struct flock lock = WholeFile(F_WRLCK);
  m_holds = fcntl(m_descriptor, F_OFD_SETLK, &lock) == 0;
  return m_holds;
}

void StoreTurn::Release() {
  if (!m_holds) return;
  struct flock lock = WholeFile(F_UNLCK);
  fcntl(m_descriptor, F_OFD_SETLK, &lock);
  m_holds = false;
}

}  // namespace quenmark::platform
