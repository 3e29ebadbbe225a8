// How long a silent storage is waited for, in real time: the clocks are the transport's own.
#include "extension/test/PartialFetchTesting.h"
#include "platform/net/URLError.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;
using support::Answer;

using SlowStorageTest = PartialFetchTesting;

TEST_F(SlowStorageTest, AMinuteOfSilenceEndsAnAttemptOfAPartialFetch) {
  setFile(
      2 * kMiB,
      {[](const std::string& bytes) { return Answer(206, bytes).stallingAt(kMiB + 1); }, wanted()});
  const auto begin = std::chrono::steady_clock::now();
  const Fetch running = start({0, 10});
  ASSERT_TRUE(support::waitUntil([&] { return ranges().size() == 2; }, 80s));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 60s);
  expectDelivered(ended(running), {0, 2 * kMiB}, 2 * kMiB);
  EXPECT_EQ(lines().at(2),
            "partial fetch attempt 1 failed at 1048576/2097152 \xE2\x80\x94 retrying in 1.0s (" +
                platform::URLError(platform::URLError::timedOut).localizedDescription() + ")");
}

}  // namespace
}  // namespace kestrune
