#include "platform/values/ByteBuffer.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <utility>

namespace kestrune::platform {
namespace {

class ByteBufferTest : public ::testing::Test {
 protected:
  ByteBuffer lent() {
    return {std::span(memory_), [this] { ++timesLetGo_; }};
  }

  std::array<char, 8> memory_{};
  int timesLetGo_ = 0;
};

TEST_F(ByteBufferTest, GathersWhatIsAppended) {
  ByteBuffer buffer;
  EXPECT_TRUE(buffer.empty());
  EXPECT_EQ(buffer.capacity(), 0U);
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    const std::string piece(static_cast<std::size_t>(i % 7), static_cast<char>('a' + i % 26));
    buffer.append(piece);
    expected += piece;
  }
  EXPECT_EQ(buffer.bytes(), expected);
  buffer.clear();
  EXPECT_EQ(buffer, "");
  EXPECT_GE(buffer.capacity(), expected.size());
}

TEST_F(ByteBufferTest, PutsBytesWhereTheLenderWantsThem) {
  {
    ByteBuffer buffer = lent();
    EXPECT_EQ(buffer.capacity(), 8U);
    buffer.append("abc");
    buffer.append("defgh");
    EXPECT_EQ(buffer.bytes().data(), memory_.data());
    EXPECT_EQ(std::string_view(memory_.data(), 8), "abcdefgh");
    EXPECT_EQ(timesLetGo_, 0);
  }
  EXPECT_EQ(timesLetGo_, 1);
}

TEST_F(ByteBufferTest, LeavesLentMemoryThatIsTooSmall) {
  ByteBuffer buffer = lent();
  buffer.append("abcdefgh");
  buffer.append("i");
  EXPECT_EQ(timesLetGo_, 1);
  memory_.fill('x');  // somebody else's again
  EXPECT_EQ(buffer, "abcdefghi");
  buffer = ByteBuffer();
  EXPECT_EQ(timesLetGo_, 1);
}

TEST_F(ByteBufferTest, MovesWithoutCopying) {
  ByteBuffer buffer = lent();
  buffer.append("abc");
  ByteBuffer moved = std::move(buffer);
  EXPECT_EQ(buffer.capacity(), 0U);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(buffer, "");
  EXPECT_EQ(moved.bytes().data(), memory_.data());
  EXPECT_EQ(timesLetGo_, 0);
  moved = ByteBuffer();
  EXPECT_EQ(timesLetGo_, 1);
  ByteBuffer own;
  own.append("own");
  const char* const data = own.bytes().data();
  std::swap(own, moved);
  EXPECT_EQ(moved.bytes().data(), data);
  EXPECT_EQ(moved, "own");
}

TEST_F(ByteBufferTest, MovingOverLentMemoryLetsItGo) {
  ByteBuffer buffer = lent();
  ByteBuffer other;
  other.append("other");
  buffer = std::move(other);
  EXPECT_EQ(timesLetGo_, 1);
  EXPECT_EQ(buffer, "other");
}

TEST_F(ByteBufferTest, RoomThatIsThereIsNotMadeAgain) {
  ByteBuffer buffer = lent();
  buffer.append("abc");
  buffer.reserve(8);
  EXPECT_EQ(buffer.bytes().data(), memory_.data());
  buffer.reserve(9);
  EXPECT_EQ(buffer, "abc");
  EXPECT_EQ(buffer.capacity(), 9U);
  EXPECT_EQ(timesLetGo_, 1);
}

}  // namespace
}  // namespace kestrune::platform
