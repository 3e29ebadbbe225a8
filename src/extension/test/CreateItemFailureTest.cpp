// Creations that fail: the error that the system is given, and what is left behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "api/APIError.h"
#include "extension/test/ChangeTesting.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/net/URLError.h"
#include "tests/support/DeadEnds.h"
#include "transfer/MPError.h"

namespace kestrune {
namespace {

using platform::kNSFileProviderErrorDomain;
using platform::kNSURLErrorDomain;
using platform::URLError;
using platform::UTType;
using support::Answer;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class CreateItemFailureTest : public ChangeTesting {
 protected:
  /// How every failure ends: unregistered, logged, then told.
  void expectFailed(const ChangeCall& call, const std::string& domain, std::int64_t code) {
    const Changed changed = call.finish();
    expectFailure(changed, domain, code);
    EXPECT_FALSE(changed.onCallersThread);
    EXPECT_LT(changed.progressThen, 100);
    if (!changed.error) return;
    const std::string line =
        "error: createItem failed name=x err=" + changed.error->localizedDescription();
    EXPECT_EQ(lines().back(), line);
    EXPECT_EQ(formats().back(), "createItem failed name=%{public}s err=%{public}s");
    EXPECT_EQ(changed.lastLineThen, line) << "logged before the answer";
  }
  void expectSmallFileFails(const std::string& domain, std::int64_t code,
                            std::size_t requestCount) {
    expectFailed(create({.name = "x"}, fileWith("hello")), domain, code);
    EXPECT_EQ(service_.http().requestCount(), requestCount);
    EXPECT_TRUE(std::filesystem::exists(statusFile())) << "the transfer was registered";
  }
  void presign(const std::string& url) {
    const platform::Json reply = {{"uploadId", "u"}, {"url", url}, {"key", "k"}};
    on("POST", "/files/direct-presign-upload", Answer(200, reply.dump()));
  }
  bool wasRegistered() const {
    SyncStatusStore::shared().drain();
    return std::filesystem::exists(statusFile());
  }
};

TEST_F(CreateItemFailureTest, AFolderThatTheServiceRefuses) {
  on("POST", "/files/mkdir", Answer(409, "there is one"));
  expectFailed(create({.name = "x", .type = UTType::folder()}), APIError::kDomain, 0);
  EXPECT_THAT(lines(), ElementsAre("default: createItem begin name=x isDir=true",
                                   "error: createItem failed name=x err=HTTP 409: there is one"));
  EXPECT_EQ(service_.http().requestCount(), 1U);
  EXPECT_FALSE(wasRegistered());
}

TEST_F(CreateItemFailureTest, AFolderWithoutAConfiguration) {
  service_.writeConfiguration("{}");
  expectFailed(create({.name = "x", .type = UTType::folder()}), APIError::kDomain, 2);
}

TEST_F(CreateItemFailureTest, AFileWithoutContents) {
  expectFailed(create({.name = "x"}), kNSFileProviderErrorDomain, -1005);
  EXPECT_EQ(lines().size(), 2U) << "no line about bytes";
  EXPECT_THAT(requests(), IsEmpty());
  EXPECT_FALSE(wasRegistered());
}

TEST_F(CreateItemFailureTest, ContentsThatAreNotThere) {
  const auto missing = directory_.path() / "missing";
  const ChangeCall call = create({.name = "x"}, missing);
  expectFailed(call, platform::kNSPOSIXErrorDomain, ENOENT);
  ASSERT_NE(call.answer().error, nullptr);
  EXPECT_THAT(call.answer().error->localizedDescription(), HasSubstr(missing.string()));
  EXPECT_EQ(lines().size(), 2U) << "no line about bytes";
  EXPECT_THAT(requests(), IsEmpty());
  EXPECT_FALSE(wasRegistered());
}

TEST_F(CreateItemFailureTest, ContentsWhoseFolderIsAFile) {
  const auto file = fileWith("x");
  expectFailed(create({.name = "x"}, file / "y"), platform::kNSPOSIXErrorDomain, ENOTDIR);
  EXPECT_FALSE(wasRegistered());
}

TEST_F(CreateItemFailureTest, ARefusedPresign) {
  on("POST", "/files/direct-presign-upload", Answer(500, "out of order"));
  expectSmallFileFails(APIError::kDomain, 0, 1);
  EXPECT_EQ(lines().back(), "error: createItem failed name=x err=HTTP 500: out of order");
}

TEST_F(CreateItemFailureTest, APresignThatIsNoRecord) {
  on("POST", "/files/direct-presign-upload", Answer(200, R"({"url":"http://h/","key":"k"})"));
  expectSmallFileFails(APIError::kDomain, 1, 1);
}

TEST_F(CreateItemFailureTest, AnAddressThatIsNone) {
  for (const char* url : {"", "http://h/a b", "http://h/%", "::"}) {
    presign(url);
    const Changed changed = create({.name = "x"}, fileWith("hello")).finish();
    expectFailure(changed, kNSFileProviderErrorDomain, -1004);
  }
  EXPECT_EQ(service_.http().requestCount(), 4U);
  EXPECT_TRUE(wasRegistered());
}

TEST_F(CreateItemFailureTest, AStorageThatCannotBeReached) {
  const support::RefusingPort nowhere;
  presign(nowhere.origin() + "/object");
  expectSmallFileFails(kNSURLErrorDomain, URLError::cannotConnectToHost, 1);
}

TEST_F(CreateItemFailureTest, AStorageThatHangsUp) {
  acceptSmallFiles();
  on("PUT", "/bucket/object", Answer(200).resettingInHead(3));
  expectFailed(create({.name = "x"}, fileWith("hello")), kNSURLErrorDomain,
               URLError::networkConnectionLost);
  EXPECT_EQ(service_.http().requestCount("POST", "/files/direct-import"), 0U);
}

TEST_F(CreateItemFailureTest, APutFrom400On) {
  acceptSmallFiles();
  for (const int status : {400, 403, 404, 500, 599}) {
    on("PUT", "/bucket/object", Answer(status, "no"));
    expectFailed(create({.name = "x"}, fileWith("hello")), kNSFileProviderErrorDomain, -1004);
  }
  EXPECT_EQ(service_.http().requestCount("PUT", "/bucket/object"), 5U) << "nothing is tried twice";
  EXPECT_EQ(service_.http().requestCount("POST", "/files/direct-import"), 0U);
}

TEST_F(CreateItemFailureTest, AFailedPutShowsNoBytes) {
  acceptSmallFiles();
  service_.http().hold("PUT", "/bucket/object");
  const ChangeCall call = create({.name = "x"}, fileWith("hello"));
  service_.http().nextHeld().answer(Answer(400));
  call.finish();
  EXPECT_EQ(call.completed(), 0);
}

TEST_F(CreateItemFailureTest, ARefusedImport) {
  acceptSmallFiles();
  on("POST", "/files/direct-import", Answer(507, "full"));
  const ChangeCall call = create({.name = "x"}, fileWith("hello"));
  expectFailed(call, APIError::kDomain, 0);
  ASSERT_NE(call.answer().error, nullptr);
  EXPECT_EQ(call.answer().error->localizedDescription(), "HTTP 507: full");
  EXPECT_EQ(service_.http().requestCount(), 3U) << "nothing is tried twice";
  EXPECT_EQ(call.completed(), 0);
}

TEST_F(CreateItemFailureTest, AnInvalidatedSession) {
  acceptSmallFiles();
  extension_->invalidate();
  expectFailed(create({.name = "x"}, fileWith("hello")), kNSURLErrorDomain, URLError::cancelled);
  EXPECT_EQ(service_.http().requestCount("PUT", "/bucket/object"), 0U);
}

TEST_F(CreateItemFailureTest, PartsThatCannotBeOpened) {
  acceptParts();
  on("POST", "/files/direct-multipart-init", Answer(500, "no"));
  const ChangeCall call = create({.name = "x"}, sparseFile(16'777'216));
  expectFailed(call, MPError::kDomain, static_cast<std::int64_t>(MPError::Case::initFailed));
  EXPECT_NE(dynamic_cast<const MPError*>(call.answer().error.get()), nullptr);
  EXPECT_EQ(lines().back(), "error: createItem failed name=x err=multipart init: HTTP 500: no");
}

TEST_F(CreateItemFailureTest, APartThatTheStorageRefuses) {
  acceptParts();
  on("PUT", "/bucket/part/2", Answer(503));
  expectFailed(create({.name = "x"}, sparseFile(16'777'216)), MPError::kDomain,
               static_cast<std::int64_t>(MPError::Case::partFailed));
  EXPECT_EQ(lines().back(), "error: createItem failed name=x err=part 2: HTTP 503");
  EXPECT_EQ(service_.http().requestCount("POST", "/files/direct-multipart-abort"), 1U);
  EXPECT_TRUE(wasRegistered());
}

TEST_F(CreateItemFailureTest, ALostTokenBetweenTheRequests) {
  acceptSmallFiles();
  service_.http().hold("PUT", "/bucket/object");
  const ChangeCall call = create({.name = "x"}, fileWith("hello"));
  const auto put = service_.http().nextHeld();
  service_.writeConfiguration("{}");
  put.answer(Answer(200));
  expectFailed(call, APIError::kDomain, 2);
}

}  // namespace
}  // namespace kestrune
