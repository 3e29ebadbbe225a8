// What the host is told of an operation's progress, and what comes with its answer.
#include "boundary/ServedCall.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "boundary/test/ProtocolHarness.h"

namespace kestrune::boundary::test {
namespace {

using Snapshot = NSProgress::Snapshot;

class ServedCallTest : public testing::Test {
 protected:
  ServedCallTest() {
    loop->run([this] {
      host = loop->held(wire::Host::Client(kj::heap<Recorder>(told)));
      auto coming = kj::newPromiseAndFulfiller<ServedCall::Message>();
      call = std::make_shared<ServedCall>(loop, host, 7, kj::mv(coming.fulfiller));
      coming.promise
          .then([this](ServedCall::Message message) {
            auto answer = message->getRoot<wire::Answer>();
            answered = Snapshot{answer.getTotal(), answer.getCompleted()};
            isDropped = answer.getDropped();
          })
          .detach([](kj::Exception&& exception) {
            ADD_FAILURE() << exception.getDescription().cStr();
          });
    });
  }

  class Recorder final : public wire::Host::Server {
   public:
    explicit Recorder(std::vector<Snapshot>& told) : told_(told) {}

   protected:
    kj::Promise<void> progressed(ProgressedContext context) override {
      const auto params = context.getParams();
      EXPECT_EQ(params.getOperation(), 7U);
      told_.push_back({params.getTotal(), params.getCompleted()});
      return kj::READY_NOW;
    }

   private:
    std::vector<Snapshot>& told_;
  };

  const std::shared_ptr<Loop> loop = Loop::make("test");
  std::vector<Snapshot> told;
  std::optional<Snapshot> answered;
  bool isDropped = false;
  std::shared_ptr<wire::Host::Client> host;
  std::shared_ptr<ServedCall> call;
};

TEST_F(ServedCallTest, OfAShortOperationNothingIsToldButItsAnswer) {
  const auto progress = std::make_shared<NSProgress>(1);
  call->started(progress);
  progress->setCompletedUnitCount(1);
  EXPECT_FALSE(answered);
  call->complete({});
  loop->run([] {});
  EXPECT_EQ(answered, (Snapshot{1, 1}));
  EXPECT_TRUE(told.empty());
}

TEST_F(ServedCallTest, TheEndOfALongOneComesWithItsAnswer) {
  const auto progress = std::make_shared<NSProgress>(100);
  call->started(progress);
  progress->setCompletedUnitCount(40);
  progress->setTotalUnitCount(50);
  progress->setCompletedUnitCount(50);
  loop->run([] {});
  EXPECT_EQ(told, (std::vector<Snapshot>{{100, 0}, {100, 40}, {50, 40}}));
  EXPECT_FALSE(answered);
  call->complete({});
  loop->run([] {});
  EXPECT_EQ(answered, (Snapshot{50, 50}));
  progress->setTotalUnitCount(60);
  loop->run([] {});
  EXPECT_EQ(told.size(), 3U) << "after the answer";
}

TEST_F(ServedCallTest, OneWithoutATotalIsTold) {
  const auto progress = std::make_shared<NSProgress>(0);
  call->started(progress);
  progress->setCompletedUnitCount(5);
  loop->run([] {});
  EXPECT_EQ(told, (std::vector<Snapshot>{{0, 0}, {0, 5}}));
}

TEST_F(ServedCallTest, WhoAnswersBeforeItHasAProgressTellsOfNone) {
  call->complete({});
  call->started(std::make_shared<NSProgress>(100));
  loop->run([] {});
  EXPECT_EQ(answered, (Snapshot{0, 0}));
  EXPECT_TRUE(told.empty());
}

TEST_F(ServedCallTest, TheProgressIsLetGoWithTheAnswer) {
  auto progress = std::make_shared<NSProgress>(100);
  const std::weak_ptr<NSProgress> seen = progress;
  call->started(std::exchange(progress, nullptr));
  EXPECT_FALSE(seen.expired()) << "it can be cancelled";
  call->complete({});
  EXPECT_TRUE(seen.expired());
}

TEST_F(ServedCallTest, WhoIsLetGoSaysSo) {
  call = nullptr;
  loop->run([] {});
  EXPECT_TRUE(isDropped);
}

}  // namespace
}  // namespace kestrune::boundary::test
