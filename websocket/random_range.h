// Random numbers of the handshake key and the mask keys.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace quenmark::websocket {

// Fills the range with bytes of the system's cryptographic generator.
using RandomSource = std::function<void(std::span<std::uint8_t>)>;

class RandomRange {
 public:
  explicit RandomRange(RandomSource source);

  // A number drawn evenly from [lowest, highest) as a fraction and rounded, halves to even: both ends come up half as
  // often as the numbers between them.
  std::int32_t InRange(std::int32_t lowest, std::int32_t highest);
  // `count` bytes of 33 to 255.
  std::string Bytes(std::size_t count);
  // Four bytes, none of them zero.
  std::array<std::uint8_t, 4> MaskKey();

 private:
  std::uint32_t Draw();

  RandomSource m_source;
  std::array<std::uint8_t, 512> m_pool{};  // one call of the source serves many draws
  std::size_t m_used = sizeof m_pool;
};

}  // namespace quenmark::websocket
