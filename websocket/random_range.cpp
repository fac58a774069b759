#include "websocket/random_range.h"

#include <cmath>
#include <cstring>
#include <utility>

namespace quenmark::websocket {

RandomRange::RandomRange(RandomSource source) : m_source(std::move(source)) {}

std::uint32_t RandomRange::Draw() {
  std::uint32_t value = 0;
  if (m_used + sizeof value > m_pool.size()) {
    m_source(m_pool);
    m_used = 0;
  }
  std::memcpy(&value, m_pool.data() + m_used, sizeof value);
  std::memset(m_pool.data() + m_used, 0, sizeof value);
  m_used += sizeof value;
  return value;
}

std::int32_t RandomRange::InRange(std::int32_t lowest, std::int32_t highest) {
  for (;;) {
    const double fraction = Draw() / 4294967296.0;
    const double number = std::nearbyint(fraction * (double{1} * highest - lowest) + lowest);
    if (number >= lowest && number <= highest) return static_cast<std::int32_t>(number);
  }
}

std::string RandomRange::Bytes(std::size_t count) {
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(InRange(33, 255));
  return bytes;
}

std::array<std::uint8_t, 4> RandomRange::MaskKey() {
  std::array<std::uint8_t, 4> key{};
  for (std::uint8_t& byte : key) byte = static_cast<std::uint8_t>(InRange(1, 255));
  return key;
}

}  // namespace quenmark::websocket
