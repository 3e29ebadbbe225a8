// How long a silent service is waited for, in real time: the clocks are the transport's own.
#include <gtest/gtest.h>

#include <chrono>

#include "api/KestruneAPI.h"
#include "tests/support/RunTask.h"
#include "tests/support/ServiceFixture.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;
using support::Answer;
using support::startTask;

TEST(SlowService, AMinuteOfSilenceEndsACallButNotAnImport) {
  support::ServiceFixture service;
  service.http().on("GET", "/files", Answer::never());
  service.http().on("POST", "/files/mkdir", Answer::never());
  service.http().on("POST", "/files/direct-import", Answer(200).headAfter(64s));
  const auto begin = std::chrono::steady_clock::now();
  auto list = startTask(KestruneAPI::list("/"));
  auto mkdir = startTask(KestruneAPI::mkdir("/d"));
  auto import = startTask(KestruneAPI::directImport("k", "/p"));
  for (const auto& error : {list.failure(70s), mkdir.failure(10s)}) {
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), platform::kNSURLErrorDomain);
    EXPECT_EQ(error->code(), platform::URLError::timedOut);
  }
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 60s);
  EXPECT_FALSE(import.isDone());
  import.value(70s);
}

}  // namespace
}  // namespace kestrune
