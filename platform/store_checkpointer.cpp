#include "platform/store_checkpointer.h"

#include "platform/store_database.h"

#include <signal.h>

#include <chrono>
#include <exception>
#include <optional>
#include <utility>

namespace quenmark::platform {

namespace {

using namespace std::chrono_literals;

// Lengths of the log in pages of 1 KB.
constexpr std::uint32_t kCheckpointPages = 16'384;  // a checkpoint begins
constexpr std::uint32_t kRestartPages = 65'536;     // a checkpoint makes the log start over
constexpr std::uint32_t kLongestPages = 131'072;    // writers wait for the checkpoint under way
constexpr auto kLongestWait = 15ms;

}  // namespace

StoreCheckpointer::StoreCheckpointer(std::string path, Clock& clock)
    : m_path(std::move(path)), m_clock(clock), m_nextAt(kCheckpointPages) {}

StoreCheckpointer::~StoreCheckpointer() {
  {
    const std::lock_guard lock(m_mutex);
    m_stopping = true;
  }
  m_changed.notify_all();
  if (m_thread.joinable()) m_thread.join();
}

void StoreCheckpointer::OnCommit(std::uint32_t logPages) {
  if (logPages < m_lastLength) m_nextAt = kCheckpointPages;  // the log has started over
  m_lastLength = logPages;
  if (logPages < m_nextAt) return;
  if (m_busy.load(std::memory_order_acquire)) {
    if (logPages < kLongestPages) return;
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, kLongestWait, [this] { return !m_busy.load(); });
    m_nextAt = logPages + kCheckpointPages / 8;
    return;
  }
  m_nextAt = logPages + kCheckpointPages;
  m_busy.store(true);
  if (!m_thread.joinable()) Start();
  {
    const std::lock_guard lock(m_mutex);
    m_wanted = true;
  }
  m_changed.notify_all();
}

void StoreCheckpointer::Start() {
  // Signals are the program's own thread's.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  m_thread = std::thread(&StoreCheckpointer::Run, this);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void StoreCheckpointer::Run() {
  std::optional<StoreDatabase> database;
  std::unique_lock lock(m_mutex);
  while (true) {
    m_changed.wait(lock, [this] { return m_wanted || m_stopping; });
    if (m_stopping) return;
    m_wanted = false;
    lock.unlock();
    try {
      if (!database) database.emplace(m_path, m_clock, 1s);
      database->Checkpoint(kRestartPages);
    } catch (const std::exception&) {
      // The log stays as it is, and nothing is lost; the next commits ask again.
      database.reset();
    }
    lock.lock();
    m_busy.store(false);
    m_changed.notify_all();
  }
}

}  // namespace quenmark::platform
