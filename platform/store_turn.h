// Whose turn it is to write: a queue of one place among the processes that share a store.
//
// SQLite's write lock has no queue: who asks again soonest gets it, so a process in a burst starves its rivals. A
// writer that found the store busy takes the place in this queue and keeps it until it has the write lock; a writer in
// a burst looks whether somebody stands there and, when its time slice is over, queues behind. The place is an advisory
// lock on a file beside the store, which the kernel drops with its process. It is only about fairness: a writer whose
// rival does not move on (a stopped process) goes ahead without it.
#pragma once

#include <string>

namespace quenmark::platform {

class StoreTurn {
 public:
  // Creates the file when it is missing. A failure is a RunTimeError.
  explicit StoreTurn(const std::string& path);
  ~StoreTurn();
  StoreTurn(const StoreTurn&) = delete;
  StoreTurn& operator=(const StoreTurn&) = delete;

  // True when somebody else stands in the queue.
  bool RivalWaits() const;
  // Takes the place unless it is taken by somebody else.
  bool TryTake();
  void Release();

 private:
  int m_descriptor = -1;
  bool m_holds = false;
};

}  // namespace quenmark::platform
