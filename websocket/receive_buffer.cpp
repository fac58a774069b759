#include "websocket/receive_buffer.h"

#include "websocket/limits.h"

#include <algorithm>
#include <utility>

namespace quenmark::websocket {

std::span<std::uint8_t> ReceiveBuffer::Prepare(std::size_t count) {
  if (m_bytes.size() - m_end < count) MakeRoom(count);
  return std::span(m_bytes).subspan(m_end);
}

void ReceiveBuffer::MakeRoom(std::size_t count) {
  Park();
  const std::size_t unread = Size();
  if (m_begin >= unread && m_bytes.size() - unread >= count) {
    std::copy(m_bytes.begin() + static_cast<std::ptrdiff_t>(m_begin),
              m_bytes.begin() + static_cast<std::ptrdiff_t>(m_end), m_bytes.begin());
  } else {
    Bytes larger(std::max(unread + count, 2 * unread));
    std::copy_n(m_bytes.begin() + static_cast<std::ptrdiff_t>(m_begin), unread, larger.begin());
    m_bytes = std::move(larger);
  }
  m_begin = 0;
  m_end = unread;
}

void ReceiveBuffer::Commit(std::size_t count) {
  m_end += std::min(count, m_bytes.size() - m_end);
}

void ReceiveBuffer::Take(Bytes& bytes) {
  if (m_begin == m_end) {
    Park();
    std::swap(m_bytes, bytes);
    m_begin = 0;
    m_end = m_bytes.size();
  } else {
    const auto room = Prepare(bytes.size());
    std::copy(bytes.begin(), bytes.end(), room.begin());
    m_end += bytes.size();
  }
  bytes.clear();
}

void ReceiveBuffer::Rewind() {
  m_begin = 0;
  m_end = 0;
  if (m_bytes.size() > kKeptBuffer) m_bytes = Bytes();
}

// Moves what is unread away from the memory that is held.
void ReceiveBuffer::Park() {
  if (!m_held || !m_parked.empty()) return;
  const BytesView unread = Unread();
  m_parked = std::exchange(m_bytes, Bytes(unread.begin(), unread.end()));
  m_end -= m_begin;
  m_begin = 0;
}

void ReceiveBuffer::Clear() {
  m_begin = m_end;
  Park();
  Rewind();
}

}  // namespace quenmark::websocket
