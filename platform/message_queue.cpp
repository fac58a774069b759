#include "platform/message_queue.h"

namespace quenmark::platform {

bool MessageQueue::Push(const Message& message) {
  if (m_size == kLimit) return false;
  if (m_size == m_ring.size()) {
    std::vector<Message> larger(m_ring.size() * 2);
    for (std::size_t i = 0; i < m_size; ++i) larger[i] = At(i);
    m_ring = std::move(larger);
    m_head = 0;
  }
  ++m_size;
  At(m_size - 1) = message;
  return true;
}

// Moves the messages before it, so the cost is that of having found it.
void MessageQueue::Erase(std::size_t index) {
  for (std::size_t i = index; i > 0; --i) At(i) = At(i - 1);
  m_head = (m_head + 1) & (m_ring.size() - 1);
  --m_size;
}

}  // namespace quenmark::platform
