// How long a storage that says nothing is waited for, in real time: the clocks are the transport's
// own.
#include <gtest/gtest.h>

#include <chrono>

#include "extension/test/ChangeTesting.h"
#include "platform/net/URLError.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;

using SlowUploadTest = ChangeTesting;

TEST_F(SlowUploadTest, AMinuteOfSilenceEndsAPutOfAWholeFile) {
  acceptSmallFiles();
  acceptNewContents();
  on("PUT", "/bucket/object", support::Answer::never());
  const auto file = fileWith("hello");
  const auto begin = std::chrono::steady_clock::now();
  const ChangeCall creation = create({.name = "x"}, file);
  const ChangeCall change =
      modify({.identifier = "/y", .name = "y"}, platform::NSFileProviderItemFields::contents, file);
  for (const ChangeCall* call : {&creation, &change}) {
    ASSERT_TRUE(call->tasks().waitUntilEnded(90s));
    expectFailure(call->finish(), platform::kNSURLErrorDomain, platform::URLError::timedOut);
  }
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 60s);
  EXPECT_EQ(service_.http().requestCount("PUT", "/bucket/object"), 2U) << "nothing is tried twice";
}

}  // namespace
}  // namespace kestrune
