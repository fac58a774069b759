#include "platform/store_turn.h"

#include "platform/run_time_error.h"
#include "platform/sqlite_store.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace quenmark::platform {

namespace {

// A process that was only held up by a slow disk is not overtaken for longer than this.
constexpr std::chrono::milliseconds kOverlookFor{250};

// Length 0: to the end of the file and beyond.
struct flock Bytes(short type, long long from, long long length) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = from;
  lock.l_len = length;
  return lock;
}

}  // namespace

StoreTurn::StoreTurn(const std::string& path, Clock& clock)
    : m_clock(clock), m_descriptor(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
  if (m_descriptor < 0) {
    throw RunTimeError(kErrorStoreFault, fmt::format("The file {} cannot be opened: {}.", path, std::strerror(errno)));
  }
}

StoreTurn::~StoreTurn() {
  close(m_descriptor);
}

// End 0: everybody.
bool StoreTurn::SomebodyBefore(long long end) const {
  const long long from = m_overlooked != 0 && m_clock.Monotonic() < m_overlookedUntil ? m_overlooked : 0;
  if (end != 0 && end <= from) return false;
  struct flock lock = Bytes(F_WRLCK, from, end == 0 ? 0 : end - from);
  return fcntl(m_descriptor, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool StoreTurn::RivalWaits() const {
  return SomebodyBefore(0);
}

void StoreTurn::Enter() {
  if (m_place >= 0) return;
  using std::chrono::duration_cast;
  using std::chrono::microseconds;
  const auto now = duration_cast<microseconds>(m_clock.Monotonic().time_since_epoch()).count();
  // Who comes in the same microsecond stands behind.
  constexpr int kPlacesToTry = 1000;
  for (int i = 0; i < kPlacesToTry; ++i) {
    struct flock lock = Bytes(F_WRLCK, now + i, 1);
    if (fcntl(m_descriptor, F_OFD_SETLK, &lock) == 0) {
      m_place = now + i;
      return;
    }
  }
}

bool StoreTurn::IsFirst() const {
  return m_place <= 0 || !SomebodyBefore(m_place);
}

void StoreTurn::Overlook() {
  m_overlooked = m_place;
  m_overlookedUntil = m_clock.Monotonic() + kOverlookFor;
}

void StoreTurn::Leave() {
  if (m_place < 0) return;
  struct flock lock = Bytes(F_UNLCK, 0, 0);
  fcntl(m_descriptor, F_OFD_SETLK, &lock);
  m_place = -1;
}

}  // namespace quenmark::platform
