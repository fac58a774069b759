#include "websocket/deflate.h"

#include "websocket/limits.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <limits>

namespace quenmark::websocket {

namespace {

constexpr std::array<std::uint8_t, 4> kTail = {0x00, 0x00, 0xFF, 0xFF};
constexpr int kLevel = 6;
constexpr int kMemoryLevel = 8;
constexpr int kInflateWindowBits = 15;
constexpr int kSmallestWindowBits = 9;  // zlib makes no raw stream with a window of 8 bits
constexpr std::size_t kScratch = std::size_t{16} << 10;

bool EndsWithTail(BytesView bytes) {
  return bytes.size() >= kTail.size() && std::equal(kTail.begin(), kTail.end(), bytes.end() - kTail.size());
}

// Hands the stream the next piece of what is left of the input: zlib counts in 32 bits.
void Feed(z_stream& stream, BytesView& input) {
  const std::size_t count = std::min<std::size_t>(input.size(), std::numeric_limits<uInt>::max());
  stream.next_in = const_cast<Bytef*>(input.data());  // zlib does not write there
  stream.avail_in = static_cast<uInt>(count);
  input = input.subspan(count);
}

}  // namespace

class cZipArchive::Deflater {
 public:
  Deflater(int level, int windowBits) : m_level(level) {
    // Within a window of 8 bits nothing is matched at all, so that nothing can reach further back.
    const int strategy = windowBits < kSmallestWindowBits ? Z_HUFFMAN_ONLY : Z_DEFAULT_STRATEGY;
    const int bits = std::max(windowBits, kSmallestWindowBits);
    m_ok = deflateInit2(&m_stream, level, Z_DEFLATED, -bits, kMemoryLevel, strategy) == Z_OK;
  }
  ~Deflater() {
    if (m_ok) deflateEnd(&m_stream);
  }
  Deflater(const Deflater&) = delete;
  Deflater& operator=(const Deflater&) = delete;

  int Level() const { return m_level; }

  bool Run(BytesView input, Bytes& output) {
    if (!m_ok) return false;
    if (m_used && deflateReset(&m_stream) != Z_OK) return false;
    m_used = true;
    std::array<std::uint8_t, kScratch> scratch;
    do {
      Feed(m_stream, input);
      const int flush = input.empty() ? Z_SYNC_FLUSH : Z_NO_FLUSH;
      do {
        m_stream.next_out = scratch.data();
        m_stream.avail_out = static_cast<uInt>(scratch.size());
        const int result = deflate(&m_stream, flush);
        if (result != Z_OK && result != Z_BUF_ERROR) return false;
        output.insert(output.end(), scratch.begin(), scratch.end() - m_stream.avail_out);
      } while (m_stream.avail_out == 0);
    } while (!input.empty());
    return true;
  }

 private:
  z_stream m_stream{};
  int m_level;
  bool m_ok = false;
  bool m_used = false;
};

class cZipArchive::Inflater {
 public:
  Inflater() { m_ok = inflateInit2(&m_stream, -kInflateWindowBits) == Z_OK; }
  ~Inflater() {
    if (m_ok) inflateEnd(&m_stream);
  }
  Inflater(const Inflater&) = delete;
  Inflater& operator=(const Inflater&) = delete;

  bool Run(BytesView input, BytesView tail, std::string& output, bool keepsWindow) {
    if (!m_ok || !Restart(keepsWindow)) return false;
    m_finished = false;
    m_intact = Append(input, output) && Append(tail, output) && (m_finished || AtBlockStart());
    return m_intact;
  }

 private:
  // A stream that ended (RFC 7692 §7.2.3.4) is begun anew; the window survives that only by hand.
  bool Restart(bool keepsWindow) {
    if (!keepsWindow || !m_intact) {
      m_intact = true;
      return inflateReset(&m_stream) == Z_OK;
    }
    if (!m_finished) return true;
    std::array<std::uint8_t, std::size_t{1} << kInflateWindowBits> window;
    auto length = static_cast<uInt>(window.size());
    return inflateGetDictionary(&m_stream, window.data(), &length) == Z_OK && inflateReset(&m_stream) == Z_OK &&
           inflateSetDictionary(&m_stream, window.data(), length) == Z_OK;
  }

  bool Append(BytesView input, std::string& output) {
    while (!input.empty() && !m_finished) {
      Feed(m_stream, input);
      do {
        m_stream.next_out = m_scratch.data();
        m_stream.avail_out = static_cast<uInt>(m_scratch.size());
        const int result = inflate(&m_stream, Z_SYNC_FLUSH);
        if (result != Z_OK && result != Z_BUF_ERROR && result != Z_STREAM_END) return false;
        m_finished = result == Z_STREAM_END;
        const std::size_t produced = m_scratch.size() - m_stream.avail_out;
        if (produced > kMaxInflatedMessage - output.size()) return false;
        output.append(reinterpret_cast<const char*>(m_scratch.data()), produced);
      } while (m_stream.avail_out == 0 && !m_finished);
    }
    return true;
  }

  // Bit 128: right behind a block; the low bits: bits left of the byte read last.
  bool AtBlockStart() const { return (m_stream.data_type & 128) != 0 && (m_stream.data_type & 7) == 0; }

  z_stream m_stream{};
  std::array<std::uint8_t, kScratch> m_scratch{};
  bool m_ok = false;
  bool m_intact = true;  // false after a failure: the window is worth nothing
  bool m_finished = false;
};

cZipArchive::cZipArchive() = default;
cZipArchive::~cZipArchive() = default;

void cZipArchive::Begin(int deflateWindowBits, bool keepsInflateWindow) {
  if (deflateWindowBits != m_deflateWindowBits) m_deflater.reset();
  m_deflateWindowBits = deflateWindowBits;
  m_keepsInflateWindow = keepsInflateWindow;
  m_inflater.reset();
}

bool cZipArchive::Deflate(BytesView input, Bytes& output, int level) {
  output.clear();
  if (!m_deflater || m_deflater->Level() != level) m_deflater = std::make_unique<Deflater>(level, m_deflateWindowBits);
  if (m_deflater->Run(input, output)) return true;
  output.clear();
  m_deflater.reset();
  return false;
}

bool cZipArchive::Inflate(BytesView input, BytesView tail, std::string& output) {
  output.clear();
  if (!m_inflater) m_inflater = std::make_unique<Inflater>();
  if (m_inflater->Run(input, tail, output, m_keepsInflateWindow)) return true;
  std::string().swap(output);
  return false;
}

void TrimTail(Bytes& compressed) {
  if (compressed.empty() || (compressed.back() != 0x00 && compressed.back() != 0xFF)) compressed.push_back(0x00);
  if (EndsWithTail(compressed)) {
    compressed.erase(compressed.end() - static_cast<std::ptrdiff_t>(kTail.size()), compressed.end());
  }
}

bool CompressMessage(cZipArchive& archive, BytesView payload, Bytes& output) {
  if (!archive.Deflate(payload, output, kLevel)) return false;
  TrimTail(output);
  return true;
}

bool DecompressMessage(cZipArchive& archive, BytesView payload, std::string& output) {
  output.clear();
  if (payload.empty()) return true;  // some servers mark an empty message as compressed
  return archive.Inflate(payload, EndsWithTail(payload) ? BytesView() : BytesView(kTail), output);
}

}  // namespace quenmark::websocket
