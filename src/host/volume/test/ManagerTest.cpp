// Contents that go and come when they are asked to, that are kept here, and that make room.
#include "host/volume/Manager.h"

#include <gtest/gtest.h>

#include "host/volume/SpaceMaker.h"
#include "host/volume/test/HostHarness.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {

namespace {

using platform::NSErrorPtr;
using platform::NSFileProviderContentPolicy;
using platform::NSFileProviderError;

class ManagerTest : public testing::Test {
 protected:
  ManagerTest() : manager_(std::make_shared<Manager>()) { attach(); }

  void attach() {
    FileSystem& fileSystem = host_.fileSystem();
    manager_->attach(fileSystem.volume(), fileSystem.contents(), fileSystem.refresher());
  }
  FakeRemote& remote() { return host_.remote(); }
  /// What the request was answered with: 0, or the error's code; its text in `text_`.
  std::int64_t evict(const std::string& identifier) {
    const Awaited<Done> answer;
    manager_->evictItem(identifier, handlerOf(answer));
    return codeOf(answer.get());
  }
  std::int64_t download(const std::string& identifier,
                        std::optional<platform::NSRange> range = std::nullopt) {
    const Awaited<Done> answer;
    manager_->requestDownloadForItem(identifier, range, handlerOf(answer));
    return codeOf(answer.get());
  }
  static platform::NSFileProviderManager::Handler handlerOf(const Awaited<Done>& answer) {
    return [reply = answer.reply()](const NSErrorPtr& error) {
      if (error) return reply(error);
      reply(Done());
    };
  }
  std::int64_t codeOf(const Answer<Done>& answer) {
    text_ = answer.ok() ? "" : answer.error()->localizedDescription();
    return answer.ok() ? 0 : answer.error()->code();
  }
  /// How many bytes of the file are here.
  std::int64_t bytesHere(const std::string& identifier) {
    return host_.fileSystem().volume()->look([&](Tree& tree, Nodes&) -> std::int64_t {
      const Item* item = tree.byIdentifier(identifier);
      return item == nullptr || !item->content() ? 0 : item->content()->state.present.byteCount();
    });
  }
  bool comes(const std::string& identifier, std::int64_t bytes) {
    return support::waitUntil([&] { return bytesHere(identifier) == bytes; });
  }

  HostHarness host_;
  const std::shared_ptr<Manager> manager_;
  std::string text_;
};

TEST_F(ManagerTest, DropsContentsAndTheKernelsPages) {
  const std::string id = remote().putFile("/a.txt", "hello");
  EXPECT_EQ(host_.readPath("/a.txt"), "hello");
  ASSERT_TRUE(comes(id, 5));
  const NodeId before = host_.find("/a.txt").node;
  EXPECT_EQ(evict(id), 0);
  EXPECT_EQ(bytesHere(id), 0);
  EXPECT_NE(host_.find("/a.txt").node, before);
  EXPECT_EQ(host_.readPath("/a.txt"), "hello");
  EXPECT_EQ(remote().asked(Ask::contents, "/a.txt"), 2);
}

TEST_F(ManagerTest, RefusesWhatIsUnknownOrOpen) {
  const std::string id = remote().putFile("/a.txt", "hello");
  EXPECT_EQ(evict("no-such"), NSFileProviderError::noSuchItem);
  EXPECT_NE(text_.find("no-such"), std::string::npos);
  const OpenFilePtr file = host_.open(host_.find("/a.txt").node);
  EXPECT_EQ(host_.readAll(file), "hello");
  EXPECT_EQ(evict(id), NSFileProviderError::nonEvictable);
  EXPECT_NE(text_.find("/a.txt"), std::string::npos);
  EXPECT_EQ(bytesHere(id), 5);
  host_.close(file);
  EXPECT_EQ(evict(id), 0);
}

TEST_F(ManagerTest, KeepsWhatTheStoreDoesNotHave) {
  const std::string folder = remote().putFolder("/docs");
  const std::string same = remote().putFile("/docs/same.txt", "same");
  const std::string edited = remote().putFile("/docs/edited.txt", "old");
  EXPECT_EQ(host_.readPath("/docs/same.txt"), "same");
  host_.save("/docs/edited.txt", "newer");
  EXPECT_EQ(evict(edited), NSFileProviderError::unsyncedEdits);
  EXPECT_NE(text_.find("/docs/edited.txt"), std::string::npos);
  EXPECT_EQ(evict(folder), NSFileProviderError::nonEvictableChildren);
  EXPECT_EQ(bytesHere(same), 0) << "what can go goes";
  EXPECT_EQ(bytesHere(edited), 5);
  ASSERT_TRUE(host_.waitUntilSent());
  EXPECT_EQ(evict(folder), 0);
  EXPECT_EQ(bytesHere(edited), 0);
  EXPECT_EQ(host_.readPath("/docs/edited.txt"), "newer");
}

TEST_F(ManagerTest, DownloadsFilesAndFolders) {
  const std::string folder = remote().putFolder("/docs");
  const std::string one = remote().putFile("/docs/one.txt", "1");
  const std::string two = remote().putFile("/docs/two.txt", "22");
  host_.find("/docs/one.txt");
  EXPECT_EQ(download(one), 0);
  EXPECT_EQ(bytesHere(one), 1);
  EXPECT_EQ(bytesHere(two), 0);
  EXPECT_EQ(download(folder), 0);
  EXPECT_EQ(bytesHere(two), 2);
  EXPECT_EQ(download("no-such"), NSFileProviderError::noSuchItem);
}

TEST_F(ManagerTest, TellsTheKernelWhatADownloadTakesUp) {
  const std::string id = remote().putFile("/a.txt", "hello");
  const NodeId node = host_.find("/a.txt").node;
  host_.kernel().takeUpdates();
  EXPECT_EQ(download(id), 0);
  const auto told = host_.kernel().takeUpdates();
  EXPECT_TRUE(std::ranges::any_of(told, [node](const CacheUpdate& update) {
    return update.kind == CacheUpdate::Kind::attributes && update.node == node;
  }));
}

TEST_F(ManagerTest, AnswersWhenItIsDetached) {
  const std::string id = remote().putFile("/a.txt", "hello");
  manager_->detach();
  EXPECT_EQ(evict(id), NSFileProviderError::providerDomainTemporarilyUnavailable);
  EXPECT_EQ(download(id), NSFileProviderError::providerDomainTemporarilyUnavailable);
}

TEST_F(ManagerTest, KeepsHereWhatIsToBeKept) {
  const std::string id = remote().putFile("/kept.txt", "first");
  const std::string other = remote().putFile("/other.txt", "other");
  remote().setPolicy("/kept.txt", NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded);
  remote().announce();
  host_.names();
  EXPECT_TRUE(comes(id, 5));
  remote().overwrite("/kept.txt", "second");
  host_.announce();
  EXPECT_TRUE(comes(id, 6));
  EXPECT_EQ(bytesHere(other), 0);
}

TEST_F(ManagerTest, FetchesAgainAfterAFailure) {
  const std::string id = remote().putFile("/kept.txt", "first");
  remote().setPolicy("/kept.txt", NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded);
  remote().failWith(Ask::contents, "/kept.txt",
                    NSFileProviderError(NSFileProviderError::serverUnreachable).share());
  host_.names();
  ASSERT_TRUE(remote().waitUntilAsked(Ask::contents, "/kept.txt", 1));
  ASSERT_TRUE(host_.timers().waitForTimer(Keeper::kFirstPause));
  remote().failWith(Ask::contents, "/kept.txt", nullptr);
  host_.timers().advance(Keeper::kFirstPause);
  EXPECT_TRUE(comes(id, 5));
}

TEST_F(ManagerTest, FetchesAtOnceWhenTheStoreAnswersAgain) {
  const std::string id = remote().putFile("/kept.txt", "first");
  remote().setPolicy("/kept.txt", NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded);
  remote().failWith(Ask::contents, "/kept.txt",
                    NSFileProviderError(NSFileProviderError::serverUnreachable).share());
  host_.names();
  ASSERT_TRUE(host_.timers().waitForTimer(Keeper::kFirstPause));
  remote().failWith(Ask::contents, "/kept.txt", nullptr);
  host_.timers().advance(std::chrono::seconds(2));  // a failed read is not repeated for a second
  remote().putFile("/other.txt", "other");
  host_.announce();
  EXPECT_TRUE(comes(id, 5));
}

TEST_F(ManagerTest, ButNotWhatFailedForAnotherReason) {
  remote().putFile("/kept.txt", "first");
  remote().setPolicy("/kept.txt", NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded);
  remote().failWith(Ask::contents, "/kept.txt",
                    NSFileProviderError(NSFileProviderError::cannotSynchronize).share());
  host_.names();
  ASSERT_TRUE(host_.timers().waitForTimer(Keeper::kFirstPause));
  host_.timers().advance(std::chrono::seconds(2));
  remote().putFile("/other.txt", "other");
  host_.announce();
  ASSERT_TRUE(host_.waitForNames({"kept.txt", "other.txt"}));
  EXPECT_TRUE(support::staysTrue([&] { return remote().asked(Ask::contents, "/kept.txt") == 1; },
                                 std::chrono::milliseconds(50)));
}

TEST_F(ManagerTest, MakesRoomWithoutWhatIsKeptOrChanged) {
  const std::string plain = remote().putFile("/plain.txt", "12345");
  const std::string kept = remote().putFile("/kept.txt", "12345");
  const std::string edited = remote().putFile("/edited.txt", "old");
  remote().setPolicy("/kept.txt", NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded);
  EXPECT_EQ(host_.readPath("/plain.txt"), "12345");
  ASSERT_TRUE(comes(kept, 5));
  host_.save("/edited.txt", "1234");
  FileSystem& fileSystem = host_.fileSystem();
  std::make_shared<SpaceMaker>(fileSystem.volume(), fileSystem.contents(), SpaceLimits{14, 0})
      ->makeRoom();
  EXPECT_EQ(bytesHere(plain), 5) << "there is room for 14";
  std::make_shared<SpaceMaker>(fileSystem.volume(), fileSystem.contents(), SpaceLimits{0, 0})
      ->makeRoom();
  EXPECT_EQ(bytesHere(plain), 0);
  EXPECT_EQ(bytesHere(kept), 5);
  EXPECT_EQ(bytesHere(edited), 4);
}

}  // namespace

}  // namespace kestrune::host::test
