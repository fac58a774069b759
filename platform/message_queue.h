// The posted messages of a loop, first in, first out, with removal from the middle.
#pragma once

#include "platform/message_loop.h"

#include <cstddef>
#include <vector>

namespace quenmark::platform {

// A ring; it allocates only while more messages are queued than ever before.
class MessageQueue {
 public:
  static constexpr std::size_t kLimit = std::size_t{1} << 20;  // messages

  // False when kLimit messages are queued.
  bool Push(const Message& message);
  bool Empty() const { return m_size == 0; }
  // The first message that `matches`. Costs the number of messages before it.
  template <typename Matches>
  bool Find(Message& message, const Matches& matches, bool remove) {
    for (std::size_t i = 0; i < m_size; ++i) {
      if (!matches(At(i))) continue;
      message = At(i);
      if (remove) Erase(i);
      return true;
    }
    return false;
  }
  template <typename Matches>
  void RemoveIf(const Matches& matches) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < m_size; ++i) {
      if (!matches(At(i))) At(kept++) = At(i);
    }
    m_size = kept;
  }

 private:
  Message& At(std::size_t index) { return m_ring[(m_head + index) & (m_ring.size() - 1)]; }
  void Erase(std::size_t index);

  std::vector<Message> m_ring = std::vector<Message>(64);  // the size is a power of two
  std::size_t m_head = 0;
  std::size_t m_size = 0;
};

}  // namespace quenmark::platform
