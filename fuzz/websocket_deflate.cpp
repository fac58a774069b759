// Deflate: whatever comes is inflated within the limit or refused, also by a decompressor that keeps its window; and
// the same bytes as text survive the way there and back.
#include "websocket/deflate.h"
#include "websocket/limits.h"

#include <cstdint>
#include <cstdlib>
#include <string>

using namespace quenmark::websocket;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const BytesView payload(data + 1, size - 1);
  const int windowBits = 8 + data[0] % 8;
  cZipArchive archive;
  archive.Begin(windowBits, (data[0] & 0x80) != 0);
  std::string text;
  for (std::size_t cut : {payload.size(), payload.size() / 2, payload.size()}) {
    if (!DecompressMessage(archive, payload.first(cut), text) && !text.empty()) std::abort();
    if (text.size() > kMaxInflatedMessage) std::abort();
  }
  archive.Begin(windowBits, false);
  Bytes compressed;
  if (!CompressMessage(archive, payload, compressed) || !DecompressMessage(archive, compressed, text)) std::abort();
  if (text != std::string(payload.begin(), payload.end())) std::abort();
  return 0;
}
