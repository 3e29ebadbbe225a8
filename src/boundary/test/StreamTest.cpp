// Bytes of a stream that are gathered where the host wants them.
#include <algorithm>
#include <chrono>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "boundary/test/ProtocolHarness.h"

namespace kestrune::boundary::test {
namespace {

using testing::Invoke;

class StreamTest : public testing::Test {
 protected:
  using Bytes = ContentStreaming::BytesHandler;
  using Streaming = std::function<void(const Bytes& bytes)>;

  ~StreamTest() override {
    boundary.remote = nullptr;
    boundary.killProgram();
    waitUntilAlone(extension);
  }

  /// The extension hands over bytes as `streaming` does, on a thread of its own, and then the end.
  void willStream(Streaming streaming) const {
    EXPECT_CALL(*extension, streamContents)
        .WillOnce(Invoke([streaming = std::move(streaming)](auto&&, auto&&, auto&&, auto&&,
                                                            const auto& bytes, const auto& end) {
          std::thread([streaming, bytes = bytes, end = end]() mutable {
            streaming(bytes);
            bytes = {};
            std::exchange(end, nullptr)(nullptr, nullptr);
          }).detach();
          return std::make_shared<NSProgress>(1);
        }));
  }
  void stream(Bytes bytes) {
    boundary.remote->streamContents("x", {}, {}, {0, INT64_MAX}, std::move(bytes), ended.handler());
  }

  const std::shared_ptr<MockExtension> extension = std::make_shared<MockExtension>();
  Boundary boundary{extension};
  Told<NSFileProviderItemPtr, NSErrorPtr> ended;
};

std::string patternOf(std::size_t begin, std::size_t length) {
  std::string bytes(length, '\0');
  for (std::size_t i = 0; i < length; ++i)
    bytes[i] = static_cast<char>((begin + i) * 2654435761U >> 13U);
  return bytes;
}

TEST_F(StreamTest, WhatIsGatheredInLentMemoryArrivesInOrder) {
  constexpr std::size_t kLength = 40'000'001;
  willStream([](const Bytes& bytes) {
    ASSERT_TRUE(bytes.lends());
    int lent = 0;
    std::vector<ByteBuffer> kept;  // as a network that fills one piece while another is handed on
    std::size_t at = 0;
    for (std::size_t length = 1; at < kLength; length = length * 7 % 1'000'003) {
      ByteBuffer memory = bytes.lend();
      if (memory.capacity() > 0) ++lent;
      const auto piece = patternOf(at, std::min(length, kLength - at));
      memory.append("skipped");
      memory.append(piece);
      EXPECT_TRUE(bytes(static_cast<std::int64_t>(at), memory.bytes().substr(7)));
      at += piece.size();
      kept.push_back(std::move(memory));
      if (kept.size() == 2) kept.erase(kept.begin());
    }
    EXPECT_GT(lent, 10);
  });
  std::string got;
  stream([&got](std::int64_t offset, std::string_view bytes) {
    EXPECT_EQ(offset, static_cast<std::int64_t>(got.size()));
    got += bytes;
    return true;
  });
  EXPECT_EQ(std::get<1>(ended.wait()), nullptr);
  EXPECT_TRUE(got == patternOf(0, kLength));
}

TEST_F(StreamTest, WhatTheHostIsStillReadingIsNotWrittenOver) {
  std::promise<void> goOn;
  const auto may = goOn.get_future().share();
  std::promise<int> lendings;
  willStream([&lendings](const Bytes& bytes) {
    int lent = 0;
    for (;; ++lent) {
      ByteBuffer memory = bytes.lend();
      if (memory.capacity() == 0) break;  // all of it is on its way
      memory.append(std::string(100'000, static_cast<char>('a' + lent)));
      EXPECT_TRUE(bytes(lent * 100'000, memory));
    }
    lendings.set_value(lent);
    // In memory of its own, which has to wait for room.
    EXPECT_TRUE(bytes(lent * 100'000, std::string(100'000, 'z')));
    const auto deadline = std::chrono::steady_clock::now() + kSoon;
    while (bytes.lend().capacity() == 0 && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_LT(std::chrono::steady_clock::now(), deadline) << "what was read is not lent again";
  });
  std::string got;
  stream([&](std::int64_t, std::string_view bytes) {
    may.wait();  // a slow disk
    got += bytes;
    return true;
  });
  auto told = lendings.get_future();
  ASSERT_EQ(told.wait_for(kSoon), std::future_status::ready);
  const int lent = told.get();
  EXPECT_GE(lent, 3);
  goOn.set_value();
  EXPECT_EQ(std::get<1>(ended.wait()), nullptr);
  std::string expected;
  for (int i = 0; i < lent; ++i) expected += std::string(100'000, static_cast<char>('a' + i));
  EXPECT_TRUE(got == expected + std::string(100'000, 'z'));
}

TEST_F(StreamTest, WhoKeepsAllThatIsLentCanStillWriteFromElsewhere) {
  willStream([](const Bytes& bytes) {
    std::vector<ByteBuffer> kept;
    do kept.push_back(bytes.lend());
    while (kept.back().capacity() > 0);
    EXPECT_GE(kept.size(), 3U);
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(bytes(i * 1'000'000, std::string(1'000'000, 'x')));
  });
  std::size_t got = 0;
  stream([&got](std::int64_t, std::string_view bytes) {
    got += bytes.size();
    return true;
  });
  ended.wait();
  EXPECT_EQ(got, 20'000'000U);
}

TEST_F(StreamTest, LentMemoryMayBeLetGoAfterTheEnd) {
  std::promise<ByteBuffer> kept;
  willStream([&kept](const Bytes& bytes) {
    ByteBuffer memory = bytes.lend();
    memory.append("abc");
    EXPECT_FALSE(bytes(0, memory) && bytes(3, memory) && bytes(6, std::string(20'000'000, 'x')));
    kept.set_value(std::move(memory));
  });
  stream([](auto&&...) { return false; });
  ended.wait();
  ByteBuffer memory = kept.get_future().get();
  boundary.remote = nullptr;
  boundary.killProgram();
  EXPECT_EQ(memory, "abc");
}

}  // namespace
}  // namespace kestrune::boundary::test
