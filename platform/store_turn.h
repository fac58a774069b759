// Whose turn it is to write: a queue of the processes that share a store, in the order of their coming.
//
// SQLite's write lock has no queue: who asks again soonest gets it, so a process in a burst starves its rivals. A
// writer that found the store busy stands in this queue until it has the write lock; a writer in a burst looks whether
// somebody stands there and, when its time slice is over, queues behind. A place is an advisory lock on one byte of a
// file beside the store, at the offset of the moment of coming in microseconds; the kernel drops it with its process.
// The queue is only about fairness: a writer whose predecessors do not move on (stopped processes) goes ahead of them.
#pragma once

#include "platform/clock.h"

#include <string>

namespace quenmark::platform {

class StoreTurn {
 public:
  // Creates the file when it is missing. A failure is a RunTimeError. The clock must outlive the queue.
  StoreTurn(const std::string& path, Clock& clock);
  ~StoreTurn();
  StoreTurn(const StoreTurn&) = delete;
  StoreTurn& operator=(const StoreTurn&) = delete;

  // True when somebody else stands in the queue, overlooked places left out.
  bool RivalWaits() const;
  // Takes a place at the end, unless it has one.
  void Enter();
  // True when nobody stands before the own place, overlooked places left out.
  bool IsFirst() const;
  // Overlooks everybody before the own place for a while: they do not move on.
  void Overlook();
  void Leave();

 private:
  bool SomebodyBefore(long long end) const;

  Clock& m_clock;
  int m_descriptor = -1;
  long long m_place = -1;      // -1: none
  long long m_overlooked = 0;  // places below this one do not count
  MonotonicTime m_overlookedUntil{};
};

}  // namespace quenmark::platform
