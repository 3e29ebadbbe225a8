#include "service/Staging.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <latch>
#include <optional>
#include <stdexcept>
#include <thread>

#include "service/Folders.h"
#include "service/ServiceError.h"
#include "service/Time.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;

RemotePath at(const std::string& text) { return RemotePath::parse(text); }
bool always() { return true; }

unsigned refusalOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const ServiceError& error) {
    return error.status();
  }
  return 0;
}

class StagingTest : public ::testing::Test {
 protected:
  StagingTest() : root(files.path() / "root") {
    fs::create_directory(root);
    tree.emplace(root, platform::Durability::durable);
  }

  fs::path directory() const { return files.path() / "staging"; }
  void open() {
    staging.reset();
    staging.emplace(directory(), root, *tree);
  }
  std::string reasonAgainst(const fs::path& candidate) const {
    try {
      const Staging refused(candidate, root, *tree);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  }
  std::string keep(const std::string& contents) const {
    const auto draft = staging->newDraft();
    draft->write(0, contents.data(), contents.size());
    std::string key = Staging::newName();
    staging->keep(*draft, key);
    return key;
  }

  support::TemporaryDirectory files;
  fs::path root;
  std::optional<Tree> tree;
  std::optional<Staging> staging;
};

TEST_F(StagingTest, TheDirectoryIsMadeAndPrivate) {
  open();
  struct stat status {};
  ASSERT_EQ(::stat(directory().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0700U);
}

TEST_F(StagingTest, ADirectoryThatIsOpenToOthersIsClosed) {
  fs::create_directory(directory());
  fs::permissions(directory(), fs::perms::all);
  open();
  EXPECT_EQ(fs::status(directory()).permissions(), fs::perms::owner_all);
}

TEST_F(StagingTest, TheDefaultIsAHiddenSiblingOfTheRoot) {
  EXPECT_EQ(Staging::defaultDirectory(root),
            fs::canonical(files.path()) / ".root.kestrune-staging");
  EXPECT_THROW(Staging::defaultDirectory("/"), std::runtime_error);
}

TEST_F(StagingTest, PlacesThatWouldDoHarmAreRefusedAndLeftAlone) {
  fs::create_directory(root / "Sub");
  EXPECT_NE(reasonAgainst(root).find("inside the root"), std::string::npos);
  EXPECT_NE(reasonAgainst(root / "Sub").find("inside the root"), std::string::npos);
  EXPECT_NE(reasonAgainst(files.path()).find("holds the root"), std::string::npos);
  files.write("photos/trash/precious.jpg", "x");
  EXPECT_NE(reasonAgainst(files.path() / "photos").find("other things"), std::string::npos);
  EXPECT_NE(reasonAgainst("/proc"), "");
  EXPECT_NE(reasonAgainst("/dev/shm/kestrune-staging-test").find("another file system"),
            std::string::npos);
  fs::remove_all("/dev/shm/kestrune-staging-test");
  EXPECT_TRUE(fs::exists(files.path() / "photos/trash/precious.jpg"));
  EXPECT_TRUE(fs::is_empty(root / "Sub"));
}

TEST_F(StagingTest, OneServiceAtATime) {
  open();
  EXPECT_NE(reasonAgainst(directory()).find("in use"), std::string::npos);
  staging.reset();
  EXPECT_EQ(reasonAgainst(directory()), "");
}

TEST_F(StagingTest, TheSigningKeySurvivesARestart) {
  open();
  const std::string before = staging->signingKey().reveal();
  open();
  EXPECT_EQ(staging->signingKey().reveal(), before);
}

TEST_F(StagingTest, ADraftThatIsNotHandedOverVanishes) {
  open();
  {
    const auto draft = staging->newDraft();
    draft->write(0, "x", 1);
    EXPECT_FALSE(fs::is_empty(directory() / "drafts"));
  }
  EXPECT_TRUE(fs::is_empty(directory() / "drafts"));
}

TEST_F(StagingTest, AHopelessReservationTakesNothingOfTheDisk) {
  open();
  const fs::space_info disk = fs::space(directory());
  const auto draft = staging->newDraft();
  EXPECT_EQ(refusalOf([&] { draft->reserve(0, disk.available + (1ULL << 40U)); }), 507U);
  struct stat status {};
  ASSERT_EQ(::fstat(draft->file().get(), &status), 0);
  EXPECT_EQ(status.st_blocks, 0);
}

TEST_F(StagingTest, WhatAnEarlierRunLeftIsClearedAtTheStartButObjectsStay) {
  open();
  const std::string key = keep("contents");
  staging.reset();
  files.write("staging/drafts/0123", "half");
  open();
  EXPECT_TRUE(fs::is_empty(directory() / "drafts"));
  staging->import(key, at("/a.txt"));
  EXPECT_EQ(support::contentsOf(root / "a.txt"), "contents");
}

TEST_F(StagingTest, AnImportReplacesAFileAndHappensOnce) {
  open();
  files.write("root/a.txt", "old");
  const std::string key = keep("new");
  staging->import(key, at("/a.txt"));
  EXPECT_EQ(support::contentsOf(root / "a.txt"), "new");
  EXPECT_EQ(refusalOf([&] { staging->import(key, at("/b.txt")); }), 404U);
}

TEST_F(StagingTest, AnImportThatFailsCanBeRepeated) {
  open();
  fs::create_directory(root / "Docs");
  const std::string key = keep("new");
  EXPECT_EQ(refusalOf([&] { staging->import(key, at("/missing/a.txt")); }), 404U);
  EXPECT_EQ(refusalOf([&] { staging->import(key, at("/Docs")); }), 409U);
  staging->import(key, at("/Docs/a.txt"));
  EXPECT_EQ(support::contentsOf(root / "Docs/a.txt"), "new");
}

TEST_F(StagingTest, KeysAreNoPaths) {
  open();
  for (const std::string& key :
       {std::string(""), std::string("../signing-key"), std::string("../objects/../signing-key"),
        std::string(32, '.'), std::string(32, '/'), Staging::newName()}) {
    EXPECT_EQ(refusalOf([&] { staging->import(key, at("/a.txt")); }), 404U) << key;
    staging->discard(key);
  }
  EXPECT_TRUE(fs::exists(directory() / "signing-key") ||
              staging->signingKey().reveal().size() == 32);
}

TEST_F(StagingTest, OnlyOldObjectsAreSwept) {
  open();
  const std::string key = keep("contents");
  staging->sweep(secondsNow() + 23 * 3600);
  EXPECT_FALSE(fs::is_empty(directory() / "objects"));
  staging->sweep(secondsNow() + 25 * 3600);
  EXPECT_TRUE(fs::is_empty(directory() / "objects"));
}

TEST_F(StagingTest, ARemovedFolderIsFreedToAnyDepthWithoutFollowingLinks) {
  open();
  const fs::path outside = files.write("outside/precious.txt", "x");
  std::string deep = "root/Docs";
  for (int i = 0; i < 300; ++i) deep += "/d";
  files.write(deep + "/leaf.txt", "x");
  files.write("root/Docs/a.txt", "x");
  fs::create_directory_symlink(outside.parent_path(), root / "Docs/link");
  EXPECT_TRUE(staging->remove(at("/Docs")));
  EXPECT_FALSE(fs::exists(root / "Docs"));
  staging->emptyTrash(always);
  EXPECT_TRUE(fs::is_empty(directory() / "trash"));
  EXPECT_TRUE(fs::exists(outside));
}

TEST_F(StagingTest, WhatComesIntoARemovedFolderIsFreedWithIt) {
  open();
  tree->makeFolder(at("/Docs"));
  const FileDescriptor docs = tree->openFolder(at("/Docs"));
  staging->remove(at("/Docs"));
  // As an upload does that found the folder just before it was removed.
  std::latch begun(1);
  std::thread uploader([&] {
    for (int i = 0;; ++i) {
      const FileDescriptor file(::openat(docs.get(), std::to_string(i).c_str(), O_CREAT, 0600));
      if (!file) break;
      if (i == 100) begun.count_down();
    }
  });
  begun.wait();
  staging->emptyTrash(always);
  const bool empty = fs::is_empty(directory() / "trash");
  EXPECT_TRUE(empty);
  // The uploader ends with the folder.
  fs::rename(directory() / "trash", files.path() / "elsewhere");
  fs::remove_all(files.path() / "elsewhere");
  uploader.join();
}

TEST_F(StagingTest, EmptyingTheTrashStopsWhenAsked) {
  open();
  for (const char* name : {"/A", "/B"}) {
    tree->makeFolder(at(name));
    staging->remove(at(name));
  }
  staging->emptyTrash([] { return false; });
  EXPECT_FALSE(fs::is_empty(directory() / "trash"));
  staging->emptyTrash(always);
  EXPECT_TRUE(fs::is_empty(directory() / "trash"));
}

}  // namespace
}  // namespace kestrune::service
