#include "websocket/frame.h"

#include "tests/websocket/websocket_fixture.h"
#include "websocket/limits.h"
#include "websocket/random_range.h"

#include <gtest/gtest.h>

#include <set>

namespace quenmark::websocket {
namespace {

using test::View;

constexpr std::array<std::uint8_t, 4> kKey = {0x11, 0x22, 0x33, 0x44};

TEST(Frame, TwoLettersAreEightBytes) {
  Bytes out;
  AppendFrame(out, 0x81, View("hi"), kKey);
  EXPECT_EQ(out, (Bytes{0x81, 0x82, 0x11, 0x22, 0x33, 0x44, 0x68 ^ 0x11, 0x69 ^ 0x22}));
  out.clear();
  AppendFrame(out, 0x88, {}, kKey);
  EXPECT_EQ(out, (Bytes{0x88, 0x80, 0, 0, 0, 0}));
}

TEST(Frame, LengthForms) {
  const struct {
    std::size_t payload;
    std::size_t header;  // with the mask key
  } rows[] = {{125, 6}, {126, 8}, {65535, 8}, {65536, 14}};
  for (const auto& row : rows) {
    const std::string payload(row.payload, 'x');
    Bytes out;
    AppendFrame(out, 0x82, View(payload), kKey);
    EXPECT_EQ(out.size(), row.header + row.payload);
    EXPECT_THAT(test::DecodeClientFrames({reinterpret_cast<const char*>(out.data()), out.size()}),
                testing::ElementsAre(test::SentFrame{0x82, payload}));
  }
}

TEST(Frame, PayloadOfFragments) {
  const struct {
    double chunk;
    std::size_t payload;
  } rows[] = {{126, 118},    {4096, 4088},  {65535, 65527},    {65536, 65522},
              {1000.5, 992}, {1001.5, 994}, {65535.25, 65521}, {2147483647, kMaxFramePayload}};
  for (const auto& row : rows) EXPECT_EQ(FragmentPayload(row.chunk), row.payload) << row.chunk;
}

TEST(Frame, HeaderCutAtEveryOffset) {
  const struct {
    Bytes bytes;
    std::uint64_t length;
    std::size_t dataOffset;
  } rows[] = {
      {{0x81, 0x7D}, 125, 2},
      {{0x81, 0x7E, 0x01, 0x02}, 0x102, 4},
      {{0x81, 0x7F, 0, 0, 0, 0, 0x7F, 0xFF, 0xFF, 0xFF}, 0x7FFFFFFF, 10},
      {{0x81, 0x7F, 0x80, 0, 0, 1, 0, 0, 0, 2}, 0x8000000100000002, 10},
  };
  for (const auto& row : rows) {
    for (std::size_t length = 0; length < row.bytes.size(); ++length) {
      EXPECT_FALSE(HeaderAvailable(BytesView(row.bytes).first(length)));
    }
    ASSERT_TRUE(HeaderAvailable(row.bytes));
    EXPECT_EQ(ParseHeader(row.bytes).payloadLength, row.length);
    EXPECT_EQ(ParseHeader(row.bytes).dataOffset, row.dataOffset);
  }
}

TEST(RandomRange, BothEndsAndNoZeroInKeys) {
  for (const std::uint8_t fill : Bytes{0x00, 0xFF}) {
    RandomRange range([fill](std::span<std::uint8_t> out) { std::fill(out.begin(), out.end(), fill); });
    EXPECT_EQ(range.InRange(33, 255), fill == 0 ? 33 : 255);
    EXPECT_EQ(range.MaskKey()[3], fill == 0 ? 1 : 255);
  }
  std::uint32_t seed = 7;
  RandomRange range([&seed](std::span<std::uint8_t> out) {
    for (std::uint8_t& byte : out) byte = static_cast<std::uint8_t>((seed = seed * 1664525 + 1013904223) >> 24);
  });
  std::set<char> seen;
  for (const char byte : range.Bytes(20000)) {
    EXPECT_GE(static_cast<unsigned char>(byte), 33);
    seen.insert(byte);
  }
  EXPECT_EQ(seen.size(), 223u);
}

}  // namespace
}  // namespace quenmark::websocket
