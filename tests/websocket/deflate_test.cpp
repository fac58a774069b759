#include "websocket/deflate.h"

#include "tests/websocket/websocket_fixture.h"
#include "websocket/limits.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>

namespace quenmark::websocket {
namespace {

using test::View;

std::string RandomText(std::size_t size, unsigned range) {
  std::mt19937 random(static_cast<unsigned>(size));
  std::string text(size, '\0');
  for (char& c : text) c = static_cast<char>('a' + random() % range);
  return text;
}

// A raw stream made by the library alone, its messages ended by `flush` and without the tail of a sync flush.
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
    out.resize(out.size() - m_stream.avail_out - (flush == Z_SYNC_FLUSH ? 4 : 0));
    if (flush == Z_FINISH) deflateReset(&m_stream);
    return out;
  }

 private:
  z_stream m_stream{};
};

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
  const Bytes whole = PeerDeflate().Run(text, Z_SYNC_FLUSH);
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
      const Bytes payload = peer.Run(text, flush);
      EXPECT_EQ(payload.size() < 50, flush == Z_SYNC_FLUSH && message > 0);  // refers back
      std::string out;
      ASSERT_TRUE(DecompressMessage(archive, payload, out));
      EXPECT_EQ(out, text);
      cZipArchive alone;
      EXPECT_EQ(DecompressMessage(alone, payload, out), flush == Z_FINISH || message == 0);
    }
  }
}

// Within its window a repeated half is no more than references to the first one.
TEST(Deflate, KeepsToTheWindowTheServerAllows) {
  const struct {
    int bits;
    std::size_t half;
    bool refersBack;
  } rows[] = {{8, 300, false}, {9, 300, false}, {10, 300, true}, {10, 2000, false}, {15, 2000, true}};
  for (const auto& row : rows) {
    cZipArchive archive;
    archive.Begin(row.bits, false);
    const std::string half = RandomText(row.half, 26);
    Bytes compressed;
    ASSERT_TRUE(CompressMessage(archive, View(half + half), compressed));
    EXPECT_EQ(compressed.size() < half.size(), row.refersBack) << row.bits;
    std::string text;
    ASSERT_TRUE(DecompressMessage(archive, compressed, text));
    EXPECT_EQ(text, half + half);
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
