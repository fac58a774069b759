#include "websocket/deflate.h"

#include "websocket/limits.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>

namespace quenmark::websocket {
namespace {

BytesView View(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string RandomText(std::size_t size, unsigned range) {
  std::mt19937 random(static_cast<unsigned>(size));
  std::string text(size, '\0');
  for (char& c : text) c = static_cast<char>('a' + random() % range);
  return text;
}

// A raw stream made by the library alone, its messages ended by `flush`.
class PeerDeflate {
 public:
  PeerDeflate() { deflateInit2(&m_stream, 9, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY); }
  ~PeerDeflate() { deflateEnd(&m_stream); }
  Bytes Run(std::string_view text, int flush) {
    Bytes out(text.size() + 1000);
    m_stream.next_in = const_cast<Bytef*>(View(text).data());
    m_stream.avail_in = static_cast<uInt>(text.size());
    m_stream.next_out = out.data();
    m_stream.avail_out = static_cast<uInt>(out.size());
    deflate(&m_stream, flush);
    out.resize(out.size() - m_stream.avail_out);
    if (flush == Z_FINISH) deflateReset(&m_stream);
    return out;
  }

 private:
  z_stream m_stream{};
};

Bytes WithoutTail(Bytes bytes) {
  bytes.resize(bytes.size() - 4);
  return bytes;
}

TEST(Deflate, ThereAndBackWithOneArchive) {
  cZipArchive archive;
  for (const std::size_t size : {0u, 1u, 2u, 100u, 16384u, 16385u, 300000u}) {
    for (const unsigned range : {1u, 26u}) {
      const std::string text = RandomText(size, range);
      Bytes compressed;
      std::string back = "left over";
      ASSERT_TRUE(CompressMessage(archive, View(text), compressed));
      ASSERT_FALSE(compressed.empty());
      ASSERT_TRUE(DecompressMessage(archive, compressed, back));
      EXPECT_EQ(back, text);
    }
  }
}

TEST(Deflate, VectorsOfRfc7692Section723) {
  cZipArchive archive;
  Bytes compressed;
  ASSERT_TRUE(CompressMessage(archive, View("Hello"), compressed));
  EXPECT_EQ(compressed, (Bytes{0xf2, 0x48, 0xcd, 0xc9, 0xc9, 0x07, 0x00}));
  ASSERT_TRUE(CompressMessage(archive, {}, compressed));
  EXPECT_EQ(compressed, Bytes{0x00});
  const Bytes payloads[] = {
      {0xf2, 0x48, 0xcd, 0xc9, 0xc9, 0x07, 0x00},                                      // one block
      {0x00, 0x05, 0x00, 0xfa, 0xff, 0x48, 0x65, 0x6c, 0x6c, 0x6f, 0x00},              // a stored block
      {0xf3, 0x48, 0xcd, 0xc9, 0xc9, 0x07, 0x00, 0x00},                                // a final block
      {0xf2, 0x48, 0x05, 0x00, 0x00, 0x00, 0xff, 0xff, 0xca, 0xc9, 0xc9, 0x07, 0x00},  // two blocks
      {0xf2, 0x48, 0xcd, 0xc9, 0xc9, 0x07, 0x00, 0x00, 0x00, 0xff, 0xff},              // its tail left on
  };
  for (const Bytes& payload : payloads) {
    std::string text;
    ASSERT_TRUE(DecompressMessage(archive, payload, text));
    EXPECT_EQ(text, "Hello");
  }
  std::string text = "left over";
  ASSERT_TRUE(DecompressMessage(archive, {}, text));
  EXPECT_EQ(text, "");
}

TEST(Deflate, TrimTail) {
  const struct {
    Bytes before, after;
  } rows[] = {
      {{0xf2, 0x00, 0x00, 0x00, 0xff, 0xff}, {0xf2, 0x00}},
      {{0x00, 0x00, 0xff, 0xff}, {}},
      {{0xf3, 0x07}, {0xf3, 0x07, 0x00}},
      {{0xf3, 0x00}, {0xf3, 0x00}},
      {{0xf3, 0xff}, {0xf3, 0xff}},
      {{}, {0x00}},
  };
  for (const auto& row : rows) {
    Bytes bytes = row.before;
    TrimTail(bytes);
    EXPECT_EQ(bytes, row.after);
  }
}

TEST(Deflate, CutAtEveryOffsetOrDamagedItFails) {
  const std::string text = RandomText(300, 5);
  const Bytes whole = WithoutTail(PeerDeflate().Run(text, Z_SYNC_FLUSH));
  cZipArchive archive;
  for (std::size_t length = 1; length < whole.size(); ++length) {
    std::string out;
    EXPECT_FALSE(DecompressMessage(archive, BytesView(whole).first(length), out)) << length;
    EXPECT_EQ(out, "");
  }
  std::string out;
  for (const Bytes& damaged : {Bytes{0xFF, 0xFF, 0xFF}, Bytes{0x06}, Bytes{0x01, 0x02, 0x03, 0x04, 0x05}}) {
    EXPECT_FALSE(DecompressMessage(archive, damaged, out));
  }
  EXPECT_TRUE(DecompressMessage(archive, whole, out));
  EXPECT_EQ(out, text);
}

TEST(Deflate, ServerThatKeepsItsContext) {
  const std::string text = RandomText(400, 26);
  for (const int flush : {Z_SYNC_FLUSH, Z_FINISH}) {
    PeerDeflate peer;
    cZipArchive archive;
    archive.Begin(15, true);
    for (int message = 0; message < 5; ++message) {
      Bytes payload = peer.Run(text, flush);
      if (flush == Z_SYNC_FLUSH) {
        payload = WithoutTail(payload);
        EXPECT_EQ(payload.size() < 50, message > 0);  // refers back
      }
      std::string out;
      ASSERT_TRUE(DecompressMessage(archive, payload, out));
      EXPECT_EQ(out, text);
      cZipArchive alone;
      EXPECT_EQ(DecompressMessage(alone, payload, out), flush == Z_FINISH || message == 0);
    }
  }
}

TEST(Deflate, KeepsToTheWindowTheServerAllows) {
  const std::string half = RandomText(2000, 26);
  for (const int bits : {8, 9, 15}) {
    cZipArchive archive;
    archive.Begin(bits, false);
    Bytes compressed;
    ASSERT_TRUE(CompressMessage(archive, View(half + half), compressed));
    EXPECT_EQ(compressed.size() < half.size(), bits == 15) << bits;
    // Read back with the small window alone: a reference beyond it fails.
    z_stream stream{};
    ASSERT_EQ(inflateInit2(&stream, -bits), Z_OK);
    std::string text(2 * half.size() + 10, '\0');
    stream.next_in = compressed.data();
    stream.avail_in = static_cast<uInt>(compressed.size());
    std::size_t done = 0;
    int result = Z_OK;
    while (result == Z_OK && stream.avail_in > 0) {  // a piece at a time, so that the window is what is used
      stream.next_out = reinterpret_cast<Bytef*>(text.data()) + done;
      stream.avail_out = 64;
      result = inflate(&stream, Z_SYNC_FLUSH);
      done += 64 - stream.avail_out;
    }
    EXPECT_NE(result, Z_DATA_ERROR);
    EXPECT_EQ(text.substr(0, done), (half + half).substr(0, done));
    inflateEnd(&stream);
  }
}

TEST(Deflate, BombsStopAtTheLimit) {
  cZipArchive archive;
  const std::string zeros(kMaxInflatedMessage, '\0');
  Bytes compressed;
  ASSERT_TRUE(CompressMessage(archive, View(zeros), compressed));
  std::string out;
  ASSERT_TRUE(DecompressMessage(archive, compressed, out));
  EXPECT_EQ(out.size(), kMaxInflatedMessage);
  ASSERT_TRUE(CompressMessage(archive, View(zeros + "x"), compressed));
  EXPECT_LT(compressed.size(), 100000u);
  EXPECT_FALSE(DecompressMessage(archive, compressed, out));
  EXPECT_EQ(out.capacity(), std::string().capacity());
  ASSERT_TRUE(CompressMessage(archive, View("fine"), compressed));
  ASSERT_TRUE(DecompressMessage(archive, compressed, out));
  EXPECT_EQ(out, "fine");
}

}  // namespace
}  // namespace quenmark::websocket
