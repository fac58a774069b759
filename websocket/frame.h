// Frames (RFC 6455 §5.2): reading the header of a server's frame, writing a masked one. Pure.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace quenmark::websocket {

using Bytes = std::vector<std::uint8_t>;
using BytesView = std::span<const std::uint8_t>;

inline constexpr std::uint8_t kContinuation = 0;
inline constexpr std::uint8_t kText = 1;
inline constexpr std::uint8_t kBinary = 2;
inline constexpr std::uint8_t kClose = 8;
inline constexpr std::uint8_t kPing = 9;
inline constexpr std::uint8_t kPong = 10;

// Bits of a frame's first byte above the opcode.
inline constexpr std::uint8_t kFin = 0x80;
inline constexpr std::uint8_t kRsv1 = 0x40;  // compressed message
inline constexpr std::uint8_t kRsv2 = 0x20;
inline constexpr std::uint8_t kRsv3 = 0x10;

struct FrameHeader {
  bool fin = false;
  bool rsv1 = false;
  std::uint8_t opcode = 0;
  bool masked = false;
  std::uint64_t payloadLength = 0;  // as declared
  std::size_t dataOffset = 0;       // of the first payload byte of a frame that is not masked
};

// Whether the buffer, which begins with a frame, holds enough of it to know its length.
inline bool HeaderAvailable(BytesView buffer) {
  if (buffer.size() < 2) return false;
  const unsigned length = buffer[1] & 0x7Fu;
  return length < 126 || buffer.size() >= (length == 126 ? 4u : 10u);
}

// Reads the header at the front of the buffer; HeaderAvailable must hold.
inline FrameHeader ParseHeader(BytesView buffer) {
  FrameHeader header;
  header.fin = (buffer[0] & kFin) != 0;
  header.rsv1 = (buffer[0] & kRsv1) != 0;
  header.opcode = buffer[0] & 0x0F;
  header.masked = (buffer[1] & 0x80) != 0;
  header.payloadLength = buffer[1] & 0x7F;
  header.dataOffset = 2;
  if (header.payloadLength == 126) {
    header.payloadLength = static_cast<std::uint64_t>(buffer[2]) << 8 | buffer[3];
    header.dataOffset = 4;
  } else if (header.payloadLength == 127) {
    header.payloadLength = 0;
    for (std::size_t i = 2; i < 10; ++i) header.payloadLength = header.payloadLength << 8 | buffer[i];
    header.dataOffset = 10;
  }
  return header;
}

// Appends a masked frame with that first byte. A payload above kMaxFramePayload appends nothing. An empty payload is
// written with a key of zeros.
void AppendFrame(Bytes& out, std::uint8_t firstByte, BytesView payload, std::array<std::uint8_t, 4> maskKey);

// Payload bytes of a fragment frame that fits `chunkSize` bytes, header included. `chunkSize` is 126 to 0x7FFFFFFF.
std::size_t FragmentPayload(double chunkSize);

}  // namespace quenmark::websocket
