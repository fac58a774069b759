#include "platform/byte_cursor.h"

#include "platform/secret_bytes.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

namespace quenmark::platform {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(ByteReader, ReadsBigEndianAndStaysFailed) {
  const Bytes bytes = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20};
  ByteReader reader(bytes);
  EXPECT_EQ(reader.U8(), 1);
  EXPECT_EQ(reader.U16(), 0x0203);
  EXPECT_EQ(reader.U24(), 0x040506U);
  EXPECT_EQ(reader.U32(), 0x0708090AU);
  EXPECT_EQ(reader.U64(), 0x0B0C0D0E0F101112U);
  EXPECT_EQ(reader.U24(), 0U);
  EXPECT_FALSE(reader.Ok());
  EXPECT_EQ(reader.U8(), 0);  // there is a byte, but the reader has failed
  EXPECT_EQ(reader.Remaining(), 0U);
  EXPECT_TRUE(reader.Take(0).empty());
  EXPECT_FALSE(reader.Done());
}

TEST(ByteReader, BlockMustBeConsumed) {
  const Bytes bytes = {0, 3, 1, 7, 8, 9};
  const auto read = [&](std::size_t count) {
    ByteReader reader(bytes);
    reader.Block(2, [&] {
      reader.Block(1, [&] { EXPECT_EQ(reader.U8(), 7); });
      for (std::size_t i = 0; i < count; ++i) reader.U8();
    });
    if (reader.Ok()) {
      EXPECT_EQ(reader.U8(), 9);
    }
    return reader.Done();
  };
  EXPECT_FALSE(read(0));  // left over
  EXPECT_TRUE(read(1));
  EXPECT_FALSE(read(2));  // beyond the block, though not beyond the bytes
  // An inner block may not reach beyond the outer one.
  const Bytes overlong = {2, 2, 7, 8};
  ByteReader reader(overlong);
  reader.Block(1, [&] { reader.Block(1, [] { ADD_FAILURE(); }); });
  EXPECT_FALSE(reader.Ok());
}

TEST(ByteWriter, FillsLengthsInAndFailsWhatDoesNotFit) {
  Bytes bytes;
  ByteWriter writer(bytes);
  writer.U8(1);
  writer.Block(2, [&] {
    writer.Block(3, [&] { writer.U16(0x0203); });
    writer.AppendBlock(1, Bytes{4, 5});
    writer.Block(1, [] {});
  });
  writer.U64(6);
  EXPECT_EQ(bytes, (Bytes{1, 0, 9, 0, 0, 2, 2, 3, 2, 4, 5, 0, 0, 0, 0, 0, 0, 0, 0, 6}));
  writer.Block(1, [&] { writer.Append(Bytes(255)); });
  EXPECT_TRUE(writer.Ok());
  writer.Block(1, [&] { writer.Append(Bytes(256)); });
  EXPECT_FALSE(writer.Ok());
  ByteWriter other(bytes);
  other.U24(0x1000000);
  EXPECT_FALSE(other.Ok());
  ByteWriter third(bytes);
  third.AppendBlock(2, Bytes(65536));
  EXPECT_FALSE(third.Ok());
}

TEST(SecretBytes, HoldsWipesAndLimits) {
  SecretBytes secret(Bytes{1, 2, 3});
  SecretBytes copy = secret;
  secret.Clear();
  EXPECT_TRUE(secret.Empty());
  EXPECT_EQ(Bytes(copy.View().begin(), copy.View().end()), (Bytes{1, 2, 3}));
  const std::uint8_t* memory = copy.View().data();
  copy.Resize(3);
  EXPECT_EQ(memory[0] | memory[1] | memory[2], 0);
  EXPECT_THROW(SecretBytes(SecretBytes::kCapacity + 1), std::length_error);
  const Bytes left = {1, 2, 3};
  EXPECT_TRUE(ConstantTimeEqual(left, Bytes{1, 2, 3}) && ConstantTimeEqual({}, {}));
  for (const Bytes& other : {Bytes{1, 2, 2}, Bytes{0x81, 2, 3}, Bytes{1, 2}}) {
    EXPECT_FALSE(ConstantTimeEqual(left, other));
  }
}

}  // namespace
}  // namespace quenmark::platform
