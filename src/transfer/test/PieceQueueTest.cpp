#include "transfer/PieceQueue.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>

namespace kestrune {
namespace {

platform::ByteBuffer holding(std::string_view bytes) {
  platform::ByteBuffer buffer;
  buffer.append(bytes);
  return buffer;
}

std::string joined(const std::vector<std::string_view>& views) {
  std::string all;
  for (const auto view : views) all += view;
  return all;
}

TEST(PieceQueueTest, WhatGoesInInPiecesComesOutInOthers) {
  std::mt19937 random(std::random_device{}());
  const auto seed = random();
  SCOPED_TRACE("seed " + std::to_string(seed));
  random.seed(seed);
  PieceQueue queue;
  std::string expected;
  char next = 0;
  for (int step = 0; step < 2000; ++step) {
    if (random() % 2 == 0) {
      std::string piece(random() % 10 == 0 ? random() % 200'000 : random() % 100, '\0');
      for (char& byte : piece) byte = next++;
      expected += piece;
      queue.push(holding(piece));
    } else {
      const std::size_t count = expected.empty() ? 0 : random() % (expected.size() + 1);
      ASSERT_EQ(joined(queue.front(count)), expected.substr(0, count));
      queue.drop(count);
      expected.erase(0, count);
    }
    ASSERT_EQ(queue.size(), expected.size());
  }
  ASSERT_EQ(joined(queue.front(queue.size())), expected);
}

TEST(PieceQueueTest, LargePiecesStayWhereTheyAre) {
  PieceQueue queue;
  auto first = holding(std::string(100'000, 'a'));
  auto second = holding(std::string(100'000, 'b'));
  const char* const firstBytes = first.bytes().data();
  const char* const secondBytes = second.bytes().data();
  queue.push(std::move(first));
  queue.push(std::move(second));
  const auto views = queue.front(150'000);
  ASSERT_EQ(views.size(), 2U);
  EXPECT_EQ(views[0].data(), firstBytes);
  EXPECT_EQ(views[1].data(), secondBytes);
  EXPECT_EQ(views[1].size(), 50'000U);
  queue.drop(150'000);
  EXPECT_EQ(queue.front(10)[0].data(), secondBytes + 50'000);
}

TEST(PieceQueueTest, ManySmallPiecesBecomeFewLargeOnes) {
  PieceQueue queue;
  for (int i = 0; i < 1'000'000; ++i) queue.push(holding("x"));
  EXPECT_EQ(queue.size(), 1'000'000U);
  EXPECT_LE(queue.front(1'000'000).size(), 16U);
}

TEST(PieceQueueTest, TheMemoryOfWhatHasGoneComesBackOnce) {
  PieceQueue queue;
  auto piece = holding(std::string(100'000, 'a'));
  const char* const bytes = piece.bytes().data();
  queue.push(std::move(piece));
  EXPECT_EQ(queue.takeUsed().capacity(), 0U) << "it is still in use";
  queue.drop(100'000);
  const platform::ByteBuffer used = queue.takeUsed();
  EXPECT_EQ(used.bytes().data(), bytes);
  EXPECT_TRUE(used.empty());
  EXPECT_EQ(queue.takeUsed().capacity(), 0U);
}

TEST(PieceQueueTest, ClearedItBeginsAnew) {
  PieceQueue queue;
  queue.push(holding(std::string(100'000, 'a')));
  queue.drop(70'000);
  queue.clear();
  EXPECT_EQ(queue.size(), 0U);
  EXPECT_TRUE(queue.front(0).empty());
  queue.push(holding("new"));
  EXPECT_EQ(joined(queue.front(3)), "new");
}

}  // namespace
}  // namespace kestrune
