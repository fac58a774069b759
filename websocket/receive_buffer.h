// Received bytes that are not consumed yet. Consuming moves an offset; bytes move only when room is needed and at least
// as many were consumed before.
#pragma once

#include "websocket/frame.h"

#include <cstddef>
#include <span>

namespace quenmark::websocket {

class ReceiveBuffer {
 public:
  BytesView Unread() const { return BytesView(m_bytes).subspan(m_begin, m_end - m_begin); }
  std::size_t Size() const { return m_end - m_begin; }

  // Room for at least `count` more bytes behind the unread ones. Invalidates every view into the buffer.
  std::span<std::uint8_t> Prepare(std::size_t count);
  // The first `count` bytes of the room have been filled.
  void Commit(std::size_t count);
  // Appends `bytes`: takes the vector over when nothing is unread, copies otherwise. `bytes` is left empty and may have
  // got another vector's memory, to be filled the next time.
  void Take(Bytes& bytes);

  // While one lives, consumed bytes stay where they are, whatever else is done with the buffer. Only the first of
  // several at a time holds; a user of another copies instead.
  class Hold {
   public:
    explicit Hold(ReceiveBuffer& buffer) : m_buffer(buffer), m_holds(!buffer.m_held) { buffer.m_held = true; }
    ~Hold() {
      if (m_holds) m_buffer.Release();
    }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

    bool Holds() const { return m_holds; }

   private:
    ReceiveBuffer& m_buffer;
    const bool m_holds;
  };

  // Drops the first `count` unread bytes; there are at least so many.
  void Consume(std::size_t count) {
    m_begin += count;
    if (m_begin == m_end && !m_held) Rewind();
  }
  // Drops everything and gives large memory back.
  void Clear();

 private:
  void MakeRoom(std::size_t count);
  void Rewind();
  void Park();
  void Release() {
    m_held = false;
    if (!m_parked.empty()) m_parked = Bytes();
    if (m_begin == m_end) Rewind();
  }

  Bytes m_bytes;   // unread: m_begin to m_end; room: m_end to its size
  Bytes m_parked;  // what was m_bytes when the hold began, if that had to give way
  bool m_held = false;
  std::size_t m_begin = 0;
  std::size_t m_end = 0;
};

}  // namespace quenmark::websocket
