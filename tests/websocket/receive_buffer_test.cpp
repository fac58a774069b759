#include "websocket/receive_buffer.h"

#include "websocket/limits.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

namespace quenmark::websocket {
namespace {

TEST(ReceiveBuffer, KeepsTheOrderOfBytesThroughEveryWayOfGrowing) {
  std::mt19937 random(3);
  ReceiveBuffer buffer;
  Bytes expected;
  std::uint8_t next = 0;
  for (int step = 0; step < 3000; ++step) {
    Bytes piece(random() % 300);
    for (std::uint8_t& byte : piece) byte = next++;
    expected.insert(expected.end(), piece.begin(), piece.end());
    if (step % 2 == 0) {
      const auto room = buffer.Prepare(piece.size());
      ASSERT_GE(room.size(), piece.size());
      std::copy(piece.begin(), piece.end(), room.begin());
      buffer.Commit(piece.size());
    } else {
      buffer.Take(piece);
      EXPECT_TRUE(piece.empty());
    }
    const std::size_t consumed = std::min<std::size_t>(random() % 320, buffer.Size());
    buffer.Consume(consumed);
    expected.erase(expected.begin(), expected.begin() + static_cast<std::ptrdiff_t>(consumed));
    ASSERT_EQ(Bytes(buffer.Unread().begin(), buffer.Unread().end()), expected);
  }
  buffer.Clear();
  EXPECT_EQ(buffer.Size(), 0u);
}

TEST(ReceiveBuffer, TakesAWholeVectorOverAndHandsItsOwnBack) {
  ReceiveBuffer buffer;
  Bytes first(1000, 1);
  const std::uint8_t* memory = first.data();
  buffer.Take(first);
  EXPECT_EQ(buffer.Unread().data(), memory);
  buffer.Consume(1000);
  Bytes second(500, 2);
  buffer.Take(second);
  EXPECT_EQ(second.data(), memory);
}

TEST(ReceiveBuffer, HeldBytesStayWhateverComesNext) {
  const auto fill = [](ReceiveBuffer& buffer, std::size_t count) {
    std::fill_n(buffer.Prepare(count).begin(), count, std::uint8_t{2});
    buffer.Commit(count);
  };
  const std::function<void(ReceiveBuffer&)> nexts[] = {
      [&](ReceiveBuffer& buffer) { fill(buffer, 100); },
      [&](ReceiveBuffer& buffer) { fill(buffer, 100'000); },
      [&](ReceiveBuffer& buffer) {
        buffer.Consume(buffer.Size());
        Bytes bytes(1000, 2);
        buffer.Take(bytes);
        std::fill(bytes.begin(), bytes.end(), std::uint8_t{3});
      },
      [&](ReceiveBuffer& buffer) {
        buffer.Clear();
        fill(buffer, 1000);
      },
  };
  for (const auto& next : nexts) {
    ReceiveBuffer buffer;
    Bytes first(1000, 1);
    buffer.Take(first);
    const BytesView held = buffer.Unread().first(900);
    {
      const ReceiveBuffer::Hold hold(buffer);
      EXPECT_TRUE(hold.Holds());
      buffer.Consume(900);
      for (int i = 0; i < 3; ++i) {
        next(buffer);
        EXPECT_FALSE(ReceiveBuffer::Hold(buffer).Holds());
        EXPECT_EQ(std::count(held.begin(), held.end(), 1), 900);
      }
    }
    EXPECT_EQ(std::count(buffer.Unread().begin(), buffer.Unread().end(), 3), 0);
    EXPECT_TRUE(ReceiveBuffer::Hold(buffer).Holds());
  }
}

TEST(ReceiveBuffer, GivesLargeMemoryBack) {
  ReceiveBuffer buffer;
  buffer.Prepare(4 * kKeptBuffer);
  buffer.Commit(4 * kKeptBuffer);
  buffer.Consume(4 * kKeptBuffer);
  EXPECT_LE(buffer.Prepare(1).size(), kKeptBuffer);
}

}  // namespace
}  // namespace quenmark::websocket
