// Copies the store's write-ahead log to its file away from the writing thread, so that no commit pays for it.
#pragma once

#include "platform/clock.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace quenmark::platform {

class StoreCheckpointer {
 public:
  StoreCheckpointer(std::string path, Clock& clock);
  // Waits for a checkpoint under way.
  ~StoreCheckpointer();
  StoreCheckpointer(const StoreCheckpointer&) = delete;
  StoreCheckpointer& operator=(const StoreCheckpointer&) = delete;

  // Told of the log's length after every commit; cheap unless there is something to do. A writer that is far ahead of
  // the disk waits here for a while, so that the log's length stays bounded.
  void OnCommit(std::uint32_t logPages);

 private:
  void Start();
  void Run();

  std::string m_path;
  Clock& m_clock;
  std::uint32_t m_nextAt;  // log length of the next checkpoint
  std::uint32_t m_lastLength = 0;
  std::atomic<bool> m_busy = false;

  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_wanted = false;  // guarded by m_mutex, as is the next
  bool m_stopping = false;
  std::thread m_thread;  // started by the first checkpoint
};

}  // namespace quenmark::platform
