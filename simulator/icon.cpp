#include "simulator/icon.h"

#include <zlib.h>

#include <cstdint>
#include <stdexcept>

namespace quenmark::simulator {
namespace {

constexpr std::uint32_t kSide = 16;

std::string BigEndian(std::uint32_t value) {
  std::string bytes;
  for (unsigned shift = 32; shift > 0; shift -= 8) bytes += static_cast<char>(value >> (shift - 8) & 0xFFU);
  return bytes;
}

// Portable Network Graphics, second edition, §5.3
std::string Chunk(const std::string& typeAndData) {
  const auto* bytes = reinterpret_cast<const Bytef*>(typeAndData.data());
  const auto sum = static_cast<std::uint32_t>(crc32(0, bytes, static_cast<uInt>(typeAndData.size())));
  return BigEndian(static_cast<std::uint32_t>(typeAndData.size() - 4)) + typeAndData + BigEndian(sum);
}

std::string Deflated(const std::string& data) {
  std::string out(compressBound(data.size()), '\0');
  uLongf size = out.size();
  const int result =
      compress(reinterpret_cast<Bytef*>(out.data()), &size, reinterpret_cast<const Bytef*>(data.data()), data.size());
  if (result != Z_OK) throw std::runtime_error("cannot compress");
  out.resize(size);
  return out;
}

}  // namespace

std::string IconPng(std::string_view symbol) {
  std::uint32_t colour = 0x336699;
  for (const char letter : symbol) colour = colour * 31 + static_cast<unsigned char>(letter);
  const std::string pixel = BigEndian(colour).substr(1);
  std::string rows;
  for (std::uint32_t row = 0; row < kSide; ++row) {
    rows += '\0';  // no filter
    for (std::uint32_t column = 0; column < kSide; ++column) rows += pixel;
  }
  constexpr std::string_view kEightBitColour{"\x08\x02\x00\x00\x00", 5};
  return "\x89PNG\r\n\x1A\n" + Chunk("IHDR" + BigEndian(kSide) + BigEndian(kSide) + std::string{kEightBitColour}) +
         Chunk("IDAT" + Deflated(rows)) + Chunk("IEND");
}

}  // namespace quenmark::simulator
