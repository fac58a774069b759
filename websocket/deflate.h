// Raw DEFLATE (RFC 1951, no zlib or gzip wrapper) of whole messages, and the permessage-deflate rules on their tails
// (RFC 7692 §7.2). The only place of this system's WebSocket that knows zlib.
#pragma once

#include "websocket/frame.h"

#include <memory>
#include <string>

namespace quenmark::websocket {

// One compressor and one decompressor, set up at first use and reused from message to message.
class cZipArchive {
 public:
  cZipArchive();
  ~cZipArchive();
  cZipArchive(const cZipArchive&) = delete;
  cZipArchive& operator=(const cZipArchive&) = delete;

  // For a new connection: the window (8 to 15 bits) that Deflate may use, and whether what Inflate is given may refer
  // to what it gave before. Forgets what was inflated so far.
  void Begin(int deflateWindowBits, bool keepsInflateWindow);

  // Compresses `input` on its own into `output`, replacing it, and ends it with a sync flush. False on failure.
  [[nodiscard]] bool Deflate(BytesView input, Bytes& output, int level);
  // Inflates `input` followed by `tail` into `output`, replacing it. Fails on damaged data, on data that ends within a
  // block, and as soon as more than kMaxInflatedMessage bytes come out; `output` is empty then.
  [[nodiscard]] bool Inflate(BytesView input, BytesView tail, std::string& output);

 private:
  class Deflater;
  class Inflater;

  std::unique_ptr<Deflater> m_deflater;
  std::unique_ptr<Inflater> m_inflater;
  int m_deflateWindowBits = 15;
  bool m_keepsInflateWindow = false;
};

// Message payload to compressed payload, without the tail that the receiver appends. False on failure.
[[nodiscard]] bool CompressMessage(cZipArchive& archive, BytesView payload, Bytes& output);
// What remains of a compressed message when its tail is taken off: a finished stream gets a zero byte, a flushed one
// loses its empty block.
void TrimTail(Bytes& compressed);
// The reverse. Appends the tail unless the payload ends with it.
[[nodiscard]] bool DecompressMessage(cZipArchive& archive, BytesView payload, std::string& output);

}  // namespace quenmark::websocket
