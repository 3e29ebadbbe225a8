// How long a storage that says nothing is waited for, in real time: the clocks are the transport's
// own.
#include <gtest/gtest.h>

#include <chrono>

#include "extension/test/ChangeTesting.h"
#include "platform/net/URLError.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;

class SlowUploadTest : public ChangeTesting {
 protected:
  SlowUploadTest() {
    acceptSmallFiles();
    acceptNewContents();
    on("PUT", "/bucket/object", support::Answer::never());
  }

  /// One call at a time: a call's failure is told when nothing is registered any more.
  void expectTimeOut(const ChangeCall& call, std::chrono::steady_clock::time_point begin) {
    ASSERT_TRUE(call.tasks().waitUntilEnded(90s));
    expectFailure(call.finish(), platform::kNSURLErrorDomain, platform::URLError::timedOut);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 60s);
    EXPECT_EQ(service_.http().requestCount("PUT", "/bucket/object"), 1U)
        << "nothing is tried twice";
  }
};

TEST_F(SlowUploadTest, AMinuteOfSilenceEndsTheUploadOfANewFile) {
  const auto begin = std::chrono::steady_clock::now();
  expectTimeOut(create({.name = "x"}, fileWith("hello")), begin);
}

TEST_F(SlowUploadTest, AMinuteOfSilenceEndsTheUploadOfNewContents) {
  const auto begin = std::chrono::steady_clock::now();
  expectTimeOut(modify({.identifier = "/y", .name = "y"},
                       platform::NSFileProviderItemFields::contents, fileWith("hello")),
                begin);
}

}  // namespace
}  // namespace kestrune
