#include "websocket/frame.h"

#include "websocket/limits.h"

#include <cmath>
#include <cstring>

namespace quenmark::websocket {

namespace {

constexpr std::size_t kLongestHeader = 2 + 8 + 4;  // two bytes, extended length, mask key
constexpr double kLargestMediumChunk = 65535;
constexpr double kMediumHeader = 2 + 2 + 4;

void MaskInto(std::uint8_t* out, BytesView payload, std::array<std::uint8_t, 4> key) {
  std::uint64_t wideKey = 0;
  std::memcpy(&wideKey, key.data(), key.size());
  std::memcpy(reinterpret_cast<std::uint8_t*>(&wideKey) + key.size(), key.data(), key.size());
  std::size_t done = 0;
  for (std::uint64_t word = 0; done + sizeof word <= payload.size(); done += sizeof word) {
    std::memcpy(&word, payload.data() + done, sizeof word);
    word ^= wideKey;
    std::memcpy(out + done, &word, sizeof word);
  }
  for (; done < payload.size(); ++done) out[done] = payload[done] ^ key[done % key.size()];
}

}  // namespace

void AppendFrame(Bytes& out, std::uint8_t firstByte, BytesView payload, std::array<std::uint8_t, 4> maskKey) {
  const std::size_t length = payload.size();
  if (length > kMaxFramePayload) return;
  if (length == 0) maskKey = {};
  const std::size_t start = out.size();
  out.resize(start + kLongestHeader + length);
  std::uint8_t* at = out.data() + start;
  *at++ = firstByte;
  std::size_t lengthBytes = 0;
  if (length < 126) {
    *at++ = static_cast<std::uint8_t>(0x80 | length);
  } else {
    lengthBytes = length <= 0xFFFF ? 2 : 8;
    *at++ = lengthBytes == 2 ? 0xFE : 0xFF;
  }
  for (std::size_t i = lengthBytes; i-- > 0;) *at++ = static_cast<std::uint8_t>(std::uint64_t{length} >> (8 * i));
  for (const std::uint8_t byte : maskKey) *at++ = byte;
  MaskInto(at, payload, maskKey);
  out.resize(static_cast<std::size_t>(at - out.data()) + length);
}

std::size_t FragmentPayload(double chunkSize) {
  const double header = chunkSize <= kLargestMediumChunk ? kMediumHeader : double{kLongestHeader};
  return static_cast<std::size_t>(std::nearbyint(chunkSize - header));
}

}  // namespace quenmark::websocket
