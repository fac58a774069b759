// The process's standard input, piece by piece, without holding up the message loop.
#pragma once

#include "platform/message_loop.h"

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace quenmark::platform {

// One per process. Works for pipes, terminals and files.
class StandardInput {
 public:
  // `take` is called as a message of the loop with what has come, once per Request; with nothing at the end.
  StandardInput(MessageLoop& loop, std::function<void(std::span<const std::uint8_t>)> take);
  ~StandardInput();
  StandardInput(const StandardInput&) = delete;
  StandardInput& operator=(const StandardInput&) = delete;

  // Asks for the next piece. Not needed again before it has come.
  void Request();

 private:
  void OnReady();
  void Read();

  MessageLoop& m_loop;
  std::function<void(std::span<const std::uint8_t>)> m_take;
  std::vector<std::uint8_t> m_buffer;
  WindowId m_window = 0;
  WatchId m_watch = 0;  // 0 for a file, which is always ready
  bool m_wanted = false;
};

}  // namespace quenmark::platform
