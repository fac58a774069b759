// The one way this system reads and writes wire formats: big-endian integers and length-prefixed blocks over a bounded
// range. Serves TLS messages, WebSocket frames and DER.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace quenmark::platform {

// Reads from bytes it does not own. The first read past the end fails the reader for good: from then on every read
// gives zero or nothing, so that a parser may read a whole structure and look at Done() once.
class ByteReader {
 public:
  explicit ByteReader(std::span<const std::uint8_t> bytes) : m_bytes(bytes), m_end(bytes.size()) {}

  bool Ok() const { return !m_failed; }
  // Nothing failed and everything was read.
  bool Done() const { return !m_failed && m_position == m_end; }
  // Bytes left before the end of the innermost open block.
  std::size_t Remaining() const { return m_failed ? 0 : m_end - m_position; }
  // Bytes read so far, counted from the start of the range.
  std::size_t Position() const { return m_position; }
  void Fail() { m_failed = true; }

  std::uint8_t U8() { return static_cast<std::uint8_t>(Integer(1)); }
  std::uint16_t U16() { return static_cast<std::uint16_t>(Integer(2)); }
  std::uint32_t U24() { return static_cast<std::uint32_t>(Integer(3)); }
  std::uint32_t U32() { return static_cast<std::uint32_t>(Integer(4)); }
  std::uint64_t U64() { return Integer(8); }
  // An unsigned integer of `width` bytes, 1 to 8.
  std::uint64_t Integer(std::size_t width);

  // The next `count` bytes, a view into the range.
  std::span<const std::uint8_t> Take(std::size_t count);
  std::span<const std::uint8_t> Rest() { return Take(Remaining()); }
  // The contents of a block whose length stands before it in `width` bytes.
  std::span<const std::uint8_t> TakeBlock(std::size_t width) { return Take(static_cast<std::size_t>(Integer(width))); }

  // Runs `body` with the end narrowed to the block whose length stands before it in `width` bytes. What `body` leaves
  // unread fails the reader.
  template <typename Body>
  void Block(std::size_t width, Body body) {
    const std::size_t outerEnd = OpenBlock(width);
    if (m_failed) return;
    body();
    if (m_position != m_end) m_failed = true;
    m_end = outerEnd;
  }

 private:
  std::size_t OpenBlock(std::size_t width);

  std::span<const std::uint8_t> m_bytes;
  std::size_t m_position = 0;
  std::size_t m_end;
  bool m_failed = false;
};

// Appends to a vector it does not own. A block or number that does not fit its length field fails the writer for good.
class ByteWriter {
 public:
  explicit ByteWriter(std::vector<std::uint8_t>& bytes) : m_bytes(bytes) {}

  bool Ok() const { return !m_failed; }

  void U8(std::uint8_t value) { m_bytes.push_back(value); }
  void U16(std::uint16_t value) { Integer(value, 2); }
  void U24(std::uint32_t value) { Integer(value, 3); }
  void U32(std::uint32_t value) { Integer(value, 4); }
  void U64(std::uint64_t value) { Integer(value, 8); }
  // The low `width` bytes of `value`; fails when it needs more.
  void Integer(std::uint64_t value, std::size_t width);
  void Append(std::span<const std::uint8_t> bytes) { m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end()); }

  // Runs `body` and fills the length of what it wrote into `width` bytes before it.
  template <typename Body>
  void Block(std::size_t width, Body body) {
    const std::size_t start = m_bytes.size();
    m_bytes.resize(start + width);
    body();
    CloseBlock(start, width);
  }
  // A block with these contents.
  void AppendBlock(std::size_t width, std::span<const std::uint8_t> bytes) {
    Integer(bytes.size(), width);
    Append(bytes);
  }

 private:
  void CloseBlock(std::size_t start, std::size_t width);

  std::vector<std::uint8_t>& m_bytes;
  bool m_failed = false;
};

}  // namespace quenmark::platform
