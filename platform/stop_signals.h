// SIGTERM and SIGINT as an event of the message loop, and broken pipes as plain errors.
#pragma once

#include "platform/message_loop.h"

#include <functional>
#include <memory>

namespace quenmark::platform {

// From construction on, the two signals no longer end the process: `stop` runs as a message of the loop instead, once
// for what has come in by then. Construct it before any thread is started; threads then leave the signals to the loop.
// Programs launched by SystemProcessList start with the default treatment. A RunTimeError when no descriptor is left.
class StopSignals {
 public:
  StopSignals(MessageLoop& loop, std::function<void()> stop);
  // The old treatment is back afterwards.
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

 private:
  struct Saved;

  MessageLoop& m_loop;
  std::unique_ptr<Saved> m_saved;
  WindowId m_window = 0;
  WatchId m_watch = 0;
  int m_descriptor = -1;
};

// A write to a closed pipe or socket fails with an error instead of ending the process. For the whole process.
void IgnoreBrokenPipes();

}  // namespace quenmark::platform
