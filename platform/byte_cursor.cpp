#include "platform/byte_cursor.h"

namespace quenmark::platform {

namespace {

bool Fits(std::uint64_t value, std::size_t width) {
  return width >= 8 || value >> (8 * width) == 0;
}

}  // namespace

std::uint64_t ByteReader::Integer(std::size_t width) {
  std::uint64_t value = 0;
  for (const std::uint8_t byte : Take(width)) value = value << 8 | byte;
  return value;
}

std::span<const std::uint8_t> ByteReader::Take(std::size_t count) {
  if (m_failed || count > m_end - m_position) {
    m_failed = true;
    return {};
  }
  const auto taken = m_bytes.subspan(m_position, count);
  m_position += count;
  return taken;
}

std::size_t ByteReader::OpenBlock(std::size_t width) {
  const std::uint64_t length = Integer(width);
  if (length > Remaining()) m_failed = true;
  if (m_failed) return m_end;
  const std::size_t outerEnd = m_end;
  m_end = m_position + static_cast<std::size_t>(length);
  return outerEnd;
}

void ByteWriter::Integer(std::uint64_t value, std::size_t width) {
  if (!Fits(value, width)) m_failed = true;
  for (std::size_t i = width; i-- > 0;) m_bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

void ByteWriter::CloseBlock(std::size_t start, std::size_t width) {
  const std::uint64_t length = m_bytes.size() - start - width;
  if (!Fits(length, width)) m_failed = true;
  for (std::size_t i = 0; i < width; ++i) {
    m_bytes[start + i] = static_cast<std::uint8_t>(length >> (8 * (width - 1 - i)));
  }
}

}  // namespace quenmark::platform
