#include "service/Housekeeper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>

#include "service/ServiceError.h"
#include "service/Time.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Waiting.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kHour = 3600;

class HousekeeperTest : public ::testing::Test {
 protected:
  HousekeeperTest() {
    fs::create_directory(files.path() / "root");
    tree.emplace(files.path() / "root", platform::Durability::atomic);
    staging.emplace(files.path() / "staging", files.path() / "root", *tree);
    uploads.emplace(*staging);
  }

  fs::path objectAt(const std::string& key) const { return files.path() / "staging/objects" / key; }
  /// A complete upload that was written so long ago.
  std::string objectOfAge(std::int64_t seconds) const {
    const auto draft = staging->newDraft();
    draft->write(0, "x", 1);
    std::string key = Staging::newName();
    staging->keep(*draft, key);
    const timespec then{secondsNow() - seconds, 0};
    const timespec times[2] = {then, then};
    EXPECT_EQ(::utimensat(AT_FDCWD, objectAt(key).c_str(), times, 0), 0);
    return key;
  }
  bool isOpen(const MultipartUploads::Opened& upload) const {
    try {
      uploads->check(upload.key, upload.id, 1);
      return true;
    } catch (const ServiceError&) {
      return false;
    }
  }

  support::TemporaryDirectory files;
  std::optional<Tree> tree;
  std::optional<Staging> staging;
  std::optional<MultipartUploads> uploads;
};

TEST_F(HousekeeperTest, BeginsWithAllThatWasAbandonedADayAgo) {
  const std::string old = objectOfAge(24 * kHour);
  const std::string fresh = objectOfAge(23 * kHour);
  const auto oldUpload = uploads->open(secondsNow() - 24 * kHour);
  const auto freshUpload = uploads->open(secondsNow() - 23 * kHour);
  const Housekeeper housekeeper(*staging, *uploads);
  EXPECT_TRUE(support::waitUntil([&] { return !isOpen(oldUpload); }));
  EXPECT_FALSE(fs::exists(objectAt(old)));
  EXPECT_TRUE(fs::exists(objectAt(fresh)));
  EXPECT_TRUE(isOpen(freshUpload));
}

TEST_F(HousekeeperTest, EmptiesTheTrashAtTheBeginningAndWhenWoken) {
  const auto isEmpty = [&] { return fs::is_empty(files.path() / "staging/trash"); };
  files.write("staging/trash/left/by/an/earlier/run", "x");
  Housekeeper housekeeper(*staging, *uploads);
  EXPECT_TRUE(support::waitUntil(isEmpty));
  for (const char* name : {"/a", "/b"}) {
    tree->makeFolder(RemotePath::parse(name));
    staging->remove(RemotePath::parse(name));
    housekeeper.wake();
    EXPECT_TRUE(support::waitUntil(isEmpty));
  }
}

}  // namespace
}  // namespace kestrune::service
