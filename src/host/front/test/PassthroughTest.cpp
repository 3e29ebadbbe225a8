#include "host/front/Passthrough.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

namespace kestrune::host {
namespace {

using Way = Passthrough::Way;

constexpr NodeId kNode = 7;

class KernelsFiles final : public BackingFiles {
 public:
  std::optional<std::int32_t> open(int) override {
    ++asked;
    if (refuses) return std::nullopt;
    taken.insert(++last);
    return last;
  }
  void close(std::int32_t number) override { EXPECT_EQ(taken.erase(number), 1U); }

  bool refuses = false;
  int asked = 0;
  std::int32_t last = 0;
  std::set<std::int32_t> taken;
};

class PassthroughTest : public testing::Test {
 protected:
  PassthroughTest() { table_.allow(); }
  Passthrough::Opened read(const LocalFilePtr& file) {
    return table_.endOpening(kNode, table_.beginOpening(kNode), file);
  }

  std::chrono::steady_clock::time_point now_{std::chrono::hours(1)};
  KernelsFiles files_;
  Passthrough table_{files_, [this] { return now_; }};
  const LocalFilePtr whole_ = std::make_shared<LocalFile>(-1, 5);
};

TEST_F(PassthroughTest, ReadersOfAWholeFileShareOneBackingFile) {
  EXPECT_FALSE(table_.inUse());
  const auto one = read(whole_);
  const auto other = read(whole_);
  EXPECT_EQ(one.way, Way::kernel);
  EXPECT_EQ(other.way, Way::kernel);
  EXPECT_EQ(one.backing, other.backing);
  EXPECT_TRUE(table_.inUse());
  table_.end(kNode, Way::kernel);
  EXPECT_EQ(files_.taken.size(), 1U);
  table_.end(kNode, Way::kernel);
  EXPECT_TRUE(files_.taken.empty());
}

TEST_F(PassthroughTest, WhoFindsItOpenThroughRequestsDoesTheSame) {
  EXPECT_EQ(read(nullptr).way, Way::requests);
  EXPECT_EQ(read(whole_).way, Way::requests);
  table_.end(kNode, Way::requests);
  EXPECT_EQ(read(whole_).way, Way::requests);
  table_.end(kNode, Way::requests);
  table_.end(kNode, Way::requests);
  EXPECT_EQ(read(whole_).way, Way::kernel);
}

TEST_F(PassthroughTest, WhatTheKernelReadsIsNeitherChangedNorOpenedOtherwise) {
  EXPECT_EQ(read(whole_).way, Way::kernel);
  EXPECT_FALSE(table_.beginChange(kNode));
  EXPECT_EQ(read(whole_).way, Way::kernel);
  EXPECT_EQ(read(nullptr).way, Way::conflict);
  EXPECT_TRUE(table_.beginChange(kNode + 1));
  table_.end(kNode, Way::kernel);
  table_.end(kNode, Way::kernel);
  EXPECT_TRUE(table_.beginChange(kNode));
  EXPECT_EQ(read(whole_).way, Way::requests);
}

TEST_F(PassthroughTest, AfterAConflictTheSuccessorIsFreeForAMoment) {
  EXPECT_EQ(read(whole_).way, Way::kernel);
  EXPECT_FALSE(table_.beginChange(kNode));
  constexpr NodeId kSuccessor = kNode + 1;
  const auto readSuccessor = [&] {
    return table_.endOpening(kSuccessor, table_.beginOpening(kSuccessor), whole_).way;
  };
  EXPECT_EQ(readSuccessor(), Way::requests);
  EXPECT_TRUE(table_.beginChange(kSuccessor));
  table_.end(kSuccessor, Way::requests);
  table_.end(kSuccessor, Way::requests);
  now_ += Passthrough::kPauseAfterConflict;
  EXPECT_EQ(readSuccessor(), Way::kernel);
}

TEST_F(PassthroughTest, AFileThatWasChangedWhileItWasBeingOpenedIsNotLeftToTheKernel) {
  const auto ticket = table_.beginOpening(kNode);
  EXPECT_TRUE(table_.beginChange(kNode));
  table_.end(kNode, Way::requests);
  EXPECT_EQ(table_.endOpening(kNode, ticket, whole_).way, Way::requests);
  table_.end(kNode, Way::requests);
  EXPECT_EQ(read(whole_).way, Way::kernel);
}

TEST_F(PassthroughTest, AnOpenThatCameToNothingLeavesNothing) {
  static_cast<void>(table_.beginOpening(kNode));
  table_.abandonOpening(kNode);
  EXPECT_TRUE(table_.beginChange(kNode));
}

TEST_F(PassthroughTest, ARefusalIsFinal) {
  files_.refuses = true;
  EXPECT_EQ(read(whole_).way, Way::requests);
  table_.end(kNode, Way::requests);
  files_.refuses = false;
  EXPECT_EQ(read(whole_).way, Way::requests);
  EXPECT_EQ(files_.asked, 1);
  EXPECT_FALSE(table_.inUse());
}

TEST_F(PassthroughTest, FilesThatTheKernelHasStayWithItAfterARefusal) {
  EXPECT_EQ(read(whole_).way, Way::kernel);
  files_.refuses = true;
  EXPECT_EQ(table_.endOpening(kNode + 1, table_.beginOpening(kNode + 1), whole_).way,
            Way::requests);
  EXPECT_FALSE(table_.inUse());
  EXPECT_EQ(read(whole_).way, Way::kernel);
}

TEST(PassthroughWithoutTheKernelTest, NothingIsLeftToIt) {
  KernelsFiles files;
  Passthrough table(files);
  const auto opened =
      table.endOpening(kNode, table.beginOpening(kNode), std::make_shared<LocalFile>(-1, 5));
  EXPECT_EQ(opened.way, Way::requests);
  EXPECT_EQ(files.asked, 0);
}

TEST_F(PassthroughTest, WhatAnotherOpenedEndsHere) {
  const auto opened = read(whole_);
  EXPECT_EQ(read(whole_).backing, opened.backing);
  EXPECT_EQ(table_.backingOf(kNode), opened.backing);
  EXPECT_EQ(table_.backingOf(kNode + 1), 0);
  Passthrough next(files_, [this] { return now_; });
  next.restore(table_.standing());
  EXPECT_TRUE(next.inUse());
  next.restoreOpen(kNode, opened.backing);
  next.restoreOpen(kNode, opened.backing);
  next.restoreOpen(kNode + 1, 0);
  EXPECT_FALSE(next.beginChange(kNode));
  EXPECT_TRUE(next.beginChange(kNode + 1));
  next.end(kNode, Way::kernel);
  EXPECT_EQ(files_.taken.size(), 1U);
  next.end(kNode, Way::kernel);
  EXPECT_TRUE(files_.taken.empty());
}

TEST_F(PassthroughTest, ARefusalHoldsForTheNextToo) {
  files_.refuses = true;
  EXPECT_EQ(read(whole_).way, Way::requests);
  Passthrough next(files_, [this] { return now_; });
  next.allow();  // as the agreement has it
  next.restore(table_.standing());
  EXPECT_FALSE(next.isOffered());
}

}  // namespace
}  // namespace kestrune::host
