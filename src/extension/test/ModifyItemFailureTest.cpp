// Local changes that fail: the error that the system is given, and what stays done.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "api/APIError.h"
#include "extension/test/ChangeTesting.h"
#include "namespace/PinStore.h"
#include "platform/net/URLError.h"
#include "tests/support/DeadEnds.h"

namespace kestrune {
namespace {

using platform::kNSFileProviderErrorDomain;
using platform::kNSURLErrorDomain;
using platform::URLError;
using support::Answer;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Fields = platform::NSFileProviderItemFields;

constexpr const char* kMoved = R"(POST /files/move {"dst":"/new/b.txt","src":"/dir/a.txt"})";

class ModifyItemFailureTest : public ChangeTesting {
 protected:
  ModifyItemFailureTest() {
    acceptMoves();
    acceptNewContents();
    PinStore::setPinned(true, "/dir/a.txt");
  }
  ~ModifyItemFailureTest() override { EXPECT_THAT(lines(), IsEmpty()) << "a change logs nothing"; }

  void expectFailed(const ChangeCall& call, const std::string& domain, std::int64_t code) {
    const Changed changed = call.finish();
    expectFailure(changed, domain, code);
    EXPECT_FALSE(changed.onCallersThread);
    EXPECT_EQ(changed.progressThen, 0);
    EXPECT_EQ(call.completed(), 0);
  }
  /// A rename with new contents of which only the rename succeeds.
  void expectOnlyMoved(const Contents& contents, const std::string& domain, std::int64_t code) {
    expectFailed(modify(place_, Fields::contents | Fields::filename, contents), domain, code);
    ASSERT_FALSE(requests().empty());
    EXPECT_EQ(requests().front(), kMoved);
    EXPECT_EQ(service_.http().requestCount("POST", "/files/move"), 1U) << "and it is not undone";
    EXPECT_EQ(service_.http().requestCount("POST", "/files/presign-notify"), 0U);
    EXPECT_TRUE(PinStore::isPinned("/new/b.txt"));
    EXPECT_FALSE(PinStore::isPinned("/dir/a.txt"));
  }
  bool wasRegistered() const {
    SyncStatusStore::shared().drain();
    return std::filesystem::exists(statusFile());
  }
  void presign(const std::string& url) {
    const platform::Json reply = {{"url", url}, {"method", "PUT"}, {"path", "/p"}};
    on("POST", "/files/presign-upload", Answer(200, reply.dump()));
  }

  const LocalItem place_{.identifier = "/dir/a.txt", .parent = "/new", .name = "b.txt"};
};

TEST_F(ModifyItemFailureTest, AMoveThatTheServiceRefuses) {
  on("POST", "/files/move", Answer(409, "there is one"));
  expectFailed(modify(place_, Fields::contents | Fields::filename, fileWith("hello")),
               APIError::kDomain, 0);
  EXPECT_THAT(requests(), ElementsAre(kMoved)) << "nothing is uploaded, nothing tried twice";
  EXPECT_FALSE(wasRegistered());
  EXPECT_TRUE(PinStore::isPinned("/dir/a.txt"));
  EXPECT_FALSE(PinStore::isPinned("/new/b.txt"));
}

TEST_F(ModifyItemFailureTest, AMoveWhoseAnswerIsNoRecord) {
  on("POST", "/files/move", Answer(200, R"({"ok":true})"));
  expectFailed(modify(place_, Fields::filename), APIError::kDomain, 1);
  EXPECT_TRUE(PinStore::isPinned("/dir/a.txt"));
}

TEST_F(ModifyItemFailureTest, NoConfiguration) {
  service_.writeConfiguration("{}");
  expectFailed(modify(place_, Fields::filename), APIError::kDomain, 2);
  expectFailed(modify(place_, Fields::contents, fileWith("hello")), APIError::kDomain, 2);
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(ModifyItemFailureTest, ContentsThatAreNotThere) {
  expectOnlyMoved(directory_.path() / "missing", platform::kNSPOSIXErrorDomain, ENOENT);
  EXPECT_EQ(requests().size(), 1U);
  EXPECT_FALSE(wasRegistered());
}

TEST_F(ModifyItemFailureTest, ARefusedPresign) {
  on("POST", "/files/presign-upload", Answer(500, "out of order"));
  expectOnlyMoved(fileWith("hello"), APIError::kDomain, 0);
  EXPECT_EQ(requests().size(), 2U);
  EXPECT_TRUE(wasRegistered());
}

TEST_F(ModifyItemFailureTest, APresignThatIsNoRecord) {
  on("POST", "/files/presign-upload", Answer(200, R"({"url":"http://h/"})"));
  expectOnlyMoved(fileWith("hello"), APIError::kDomain, 1);
}

TEST_F(ModifyItemFailureTest, AnAddressThatIsNone) {
  presign("http://h/a b");
  expectOnlyMoved(fileWith("hello"), kNSFileProviderErrorDomain, -1004);
  presign("");
  expectFailed(modify(place_, Fields::contents, fileWith("hello")), kNSFileProviderErrorDomain,
               -1004);
  EXPECT_TRUE(wasRegistered());
}

TEST_F(ModifyItemFailureTest, AStorageThatCannotBeReached) {
  const support::RefusingPort nowhere;
  presign(nowhere.origin() + "/object");
  expectOnlyMoved(fileWith("hello"), kNSURLErrorDomain, URLError::cannotConnectToHost);
}

TEST_F(ModifyItemFailureTest, APutFrom400On) {
  on("PUT", "/bucket/object", Answer(400));
  expectOnlyMoved(fileWith("hello"), kNSFileProviderErrorDomain, -1004);
  for (const int status : {403, 404, 500, 599}) {
    on("PUT", "/bucket/object", Answer(status));
    expectFailed(modify(place_, Fields::contents, fileWith("hello")), kNSFileProviderErrorDomain,
                 -1004);
  }
  EXPECT_EQ(service_.http().requestCount("PUT", "/bucket/object"), 5U) << "nothing is tried twice";
  EXPECT_EQ(service_.http().requestCount("POST", "/files/presign-notify"), 0U);
}

TEST_F(ModifyItemFailureTest, AnInvalidatedSession) {
  extension_->invalidate();
  expectOnlyMoved(fileWith("hello"), kNSURLErrorDomain, URLError::cancelled);
}

}  // namespace
}  // namespace kestrune
