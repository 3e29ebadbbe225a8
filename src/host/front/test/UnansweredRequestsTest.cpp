#include "host/front/UnansweredRequests.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/fuse.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>

namespace kestrune::host {
namespace {

using testing::UnorderedElementsAre;

std::string requestOf(std::uint64_t unique, std::uint32_t operation) {
  fuse_in_header header = {};
  header.unique = unique;
  header.opcode = operation;
  std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
  return bytes + "more";
}

class UnansweredRequestsTest : public testing::Test {
 protected:
  void answer(std::uint64_t unique) {
    EXPECT_TRUE(requests_.beginAnswer(unique));
    requests_.endAnswer(unique);
  }
  UnansweredRequests requests_;
};

TEST_F(UnansweredRequestsTest, WhatOnlyLooksIsHandedOverAsItCame) {
  for (const std::uint32_t operation :
       {FUSE_LOOKUP, FUSE_READ, FUSE_OPENDIR, FUSE_FSYNC, FUSE_FSYNCDIR})
    requests_.add(requestOf(operation, operation));
  answer(FUSE_READ);
  answer(1000);  // was answered at once, and is not known here
  const auto handedOver = requests_.handOver();
  ASSERT_TRUE(handedOver.has_value());
  EXPECT_THAT(*handedOver, UnorderedElementsAre(requestOf(FUSE_LOOKUP, FUSE_LOOKUP),
                                                requestOf(FUSE_OPENDIR, FUSE_OPENDIR),
                                                requestOf(FUSE_FSYNC, FUSE_FSYNC),
                                                requestOf(FUSE_FSYNCDIR, FUSE_FSYNCDIR)));
}

TEST_F(UnansweredRequestsTest, ThatItWasInterruptedFollowsIt) {
  requests_.add(requestOf(4, FUSE_READ));
  requests_.add(requestOf(6, FUSE_LOOKUP));
  requests_.interrupted(6);
  requests_.interrupted(8);  // was answered
  const auto handedOver = requests_.handOver();
  ASSERT_TRUE(handedOver && handedOver->size() == 3U);
  const auto request = std::find(handedOver->begin(), handedOver->end(), requestOf(6, FUSE_LOOKUP));
  ASSERT_TRUE(request != handedOver->end() && request + 1 != handedOver->end());
  const std::string& word = *(request + 1);
  fuse_in_header header = {};
  fuse_interrupt_in body = {};
  ASSERT_EQ(word.size(), sizeof(header) + sizeof(body));
  std::memcpy(&header, word.data(), sizeof(header));
  std::memcpy(&body, word.data() + sizeof(header), sizeof(body));
  EXPECT_EQ(header.opcode, FUSE_INTERRUPT);
  EXPECT_EQ(header.len, word.size());
  EXPECT_EQ(body.unique, 6U);
}

TEST_F(UnansweredRequestsTest, ThenItIsNotAnsweredAnyMore) {
  requests_.add(requestOf(5, FUSE_READ));
  ASSERT_TRUE(requests_.handOver().has_value());
  EXPECT_FALSE(requests_.beginAnswer(5));
  EXPECT_TRUE(requests_.beginAnswer(0));  // the kernel is told something
  requests_.takeBack();
  EXPECT_TRUE(requests_.beginAnswer(5));
}

TEST_F(UnansweredRequestsTest, AChangeIsWaitedFor) {
  for (const std::uint32_t operation :
       {FUSE_WRITE, FUSE_CREATE, FUSE_RENAME2, FUSE_RMDIR, FUSE_SETATTR, FUSE_OPEN, FUSE_FLUSH}) {
    requests_.add(requestOf(1, FUSE_READ));
    requests_.add(requestOf(2, operation));
    EXPECT_FALSE(requests_.handOver().has_value()) << operation;
    answer(1);  // nothing was done
    answer(2);
    EXPECT_TRUE(requests_.handOver().has_value()) << operation;
    requests_.takeBack();
  }
}

TEST_F(UnansweredRequestsTest, AnAnswerThatIsBeingGivenIsWaitedFor) {
  requests_.add(requestOf(1, FUSE_READ));
  ASSERT_TRUE(requests_.beginAnswer(1));
  std::atomic<bool> isOver = false;
  std::thread taker([&] {
    const auto handedOver = requests_.handOver();
    EXPECT_TRUE(isOver);
    EXPECT_TRUE(handedOver && handedOver->empty());
  });
  std::this_thread::yield();
  isOver = true;
  requests_.endAnswer(1);
  taker.join();
}

TEST_F(UnansweredRequestsTest, WhatIsTooShortIsNoRequest) {
  requests_.add(std::string_view("short"));
  EXPECT_EQ(requests_.handOver()->size(), 0U);
}

}  // namespace
}  // namespace kestrune::host
