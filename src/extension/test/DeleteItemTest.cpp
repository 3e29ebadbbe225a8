// Deletions: one request, and which failures are none.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "api/APIError.h"
#include "extension/test/ChangeTesting.h"
#include "platform/net/URLError.h"
#include "tests/support/DeadEnds.h"

namespace kestrune {
namespace {

using platform::kNSURLErrorDomain;
using platform::URLError;
using support::Answer;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class DeleteItemTest : public ChangeTesting {
 protected:
  void expectDeleted(const ChangeCall& call) {
    const Changed changed = call.finish();
    EXPECT_EQ(changed.error, nullptr);
    EXPECT_FALSE(changed.onCallersThread);
    EXPECT_EQ(changed.progressThen, 1);
    EXPECT_EQ(call.progress()->totalUnitCount(), 1);
    EXPECT_EQ(call.completed(), 1);
    EXPECT_THAT(lines(), IsEmpty());
  }
  void expectFailed(const ChangeCall& call, const std::string& domain, std::int64_t code,
                    const std::string& description) {
    const Changed changed = call.finish();
    expectFailure(changed, domain, code);
    ASSERT_NE(changed.error, nullptr);
    EXPECT_EQ(changed.error->localizedDescription(), description);
    EXPECT_EQ(changed.progressThen, 0);
    EXPECT_EQ(call.completed(), 0);
    EXPECT_THAT(lines(), ElementsAre("error: deleteItem failed: " + description));
    EXPECT_THAT(formats(), ElementsAre("deleteItem failed: %{public}s"));
    EXPECT_EQ(changed.lastLineThen, lines().back()) << "logged before the answer";
  }
  void answer(const Answer& answer) { on("DELETE", "/files", answer); }
};

TEST_F(DeleteItemTest, ThePathIsEncodedAsListingsEncodeIt) {
  const struct {
    const char* identifier;
    const char* target;
  } cases[] = {
      {"/a b/c.txt", "/files?path=%2Fa%20b%2Fc.txt"},
      {"/a&b", "/files?path=%2Fa&b"},
      {"/a=b+c:d@e;f,g!h$i'j(k)l*m~n", "/files?path=%2Fa=b+c:d@e;f,g!h$i'j(k)l*m~n"},
      {"/a%2Fb", "/files?path=%2Fa%252Fb"},
      {"/a?b#c", "/files?path=%2Fa%3Fb%23c"},
      {"/資", "/files?path=%2F%E8%B3%87"},
      {"//a", "/files?path=%2F%2Fa"},
      {platform::NSFileProviderRootContainerItemIdentifier, "/files?path=%2F"},
      {"x", "/files?path=x"},
      {"", "/files?path="},
  };
  answer(Answer(200));
  for (const auto& [identifier, target] : cases) {
    expectDeleted(remove(identifier));
    EXPECT_EQ(requests().back(), std::string("DELETE ") + target);
  }
}

TEST_F(DeleteItemTest, TheRequestHasATokenAndNoBody) {
  answer(Answer(204));
  expectDeleted(remove("/a"));
  const auto request = service_.http().onlyRequest();
  EXPECT_EQ(request.method, "DELETE");
  EXPECT_EQ(request.header("Authorization"),
            std::string("Bearer ") + support::ServiceFixture::kToken);
  EXPECT_EQ(request.header("Content-Type"), "application/json");
  EXPECT_EQ(request.bodyBytes, 0U);
  EXPECT_EQ(request.headerCount("Transfer-Encoding"), 0U);
}

TEST_F(DeleteItemTest, EveryStatusBelow400IsASuccess) {
  for (const int status : {200, 202, 204, 304, 399}) {
    answer(Answer(status));
    expectDeleted(remove("/a"));
  }
}

TEST_F(DeleteItemTest, WhatIsGoneAlreadyIsDeleted) {
  for (const Answer& gone :
       {Answer(404), Answer(404, "Not Found"), Answer(500, "upstream said 404"),
        Answer(500, "1404x"), Answer(500, "file not found here"), Answer(403, "not found"),
        Answer(400, R"({"error":"not found"})")}) {
    answer(gone);
    expectDeleted(remove("/a"));
  }
  EXPECT_EQ(service_.http().requestCount(), 7U);
}

TEST_F(DeleteItemTest, CapitalLettersAreOtherWords) {
  answer(Answer(500, "Not Found"));
  expectFailed(remove("/a"), APIError::kDomain, 0, "HTTP 500: Not Found");
}

TEST_F(DeleteItemTest, NearlyTheWordsAreNotTheWords) {
  answer(Answer(410, "NOT FOUND not  found 40 4 notfound"));
  expectFailed(remove("/a"), APIError::kDomain, 0, "HTTP 410: NOT FOUND not  found 40 4 notfound");
}

TEST_F(DeleteItemTest, ARefusalIsReportedOnce) {
  answer(Answer(403, "not yours"));
  expectFailed(remove("/a"), APIError::kDomain, 0, "HTTP 403: not yours");
  EXPECT_EQ(service_.http().requestCount(), 1U);
}

TEST_F(DeleteItemTest, ARefusalWithoutText) {
  answer(Answer(500, "\xFF not found"));
  expectFailed(remove("/a"), APIError::kDomain, 0, "HTTP 500: ");
}

TEST_F(DeleteItemTest, AServiceThatCannotBeReached) {
  const support::RefusingPort nowhere;
  service_.configure(nowhere.origin());
  expectFailed(remove("/a"), kNSURLErrorDomain, URLError::cannotConnectToHost,
               URLError(URLError::cannotConnectToHost).localizedDescription());
}

TEST_F(DeleteItemTest, NoConfiguration) {
  service_.writeConfiguration("{}");
  expectFailed(remove("/a"), APIError::kDomain, 2,
               APIError::notConfigured().localizedDescription());
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(DeleteItemTest, APathThatIsNoTextCannotBeAsked) {
  expectFailed(remove("/\xFF"), APIError::kDomain, 2,
               APIError::notConfigured().localizedDescription());
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(DeleteItemTest, ItReturnsAtOnceWithItsProgress) {
  service_.http().hold("DELETE", "/files");
  const ChangeCall call = remove("/a");
  const auto request = service_.http().nextHeld();
  EXPECT_EQ(call.completed(), 0);
  EXPECT_EQ(call.answer().calls, 0);
  request.answer(Answer(204));
  expectDeleted(call);
}

TEST_F(DeleteItemTest, DeletionsGoOnAfterInvalidation) {
  extension_->invalidate();
  answer(Answer(204));
  expectDeleted(remove("/a"));
}

}  // namespace
}  // namespace kestrune
