#include "service/Tree.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "service/ServiceError.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;

RemotePath at(const std::string& text) { return RemotePath::parse(text); }

unsigned refusalOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const ServiceError& error) {
    return error.status();
  }
  return 0;
}

class TreeTest : public ::testing::Test {
 protected:
  TreeTest() {
    fs::create_directories(files.path() / "root/Docs/Sub");
    fs::create_directory(files.path() / "trash");
    files.write("root/Docs/a.txt", "hello");
    files.write("outside/secret.txt", "secret");
    fs::create_symlink("../../outside", inRoot("Docs/out"));
    fs::create_symlink("../../outside/secret.txt", inRoot("Docs/out.txt"));
    fs::create_symlink("a.txt", inRoot("Docs/inside.txt"));
    fs::create_symlink("Docs", inRoot("Alias"));
    tree.emplace(files.path() / "root", platform::Durability::durable);
    trash = FileDescriptor(::open((files.path() / "trash").c_str(), O_RDONLY | O_DIRECTORY));
  }

  fs::path inRoot(const fs::path& relative) const { return files.path() / "root" / relative; }
  bool remove(const std::string& path) const { return tree->remove(at(path), trash.get(), "t"); }
  unsigned placing(const std::string& path) {
    files.write("trash/new", "new contents");
    return refusalOf([&] { tree->place(trash.get(), "new", at(path)); });
  }

  support::TemporaryDirectory files;
  std::optional<Tree> tree;
  FileDescriptor trash;
};

TEST_F(TreeTest, AFolderIsOpenedInAnotherWithoutLeadingElsewhere) {
  const FileDescriptor docs = tree->openFolder(at("/Docs"));
  EXPECT_EQ(attributesOf(Tree::openFolderIn(docs.get(), "Sub")).inode,
            tree->attributes(at("/Docs/Sub")).inode);
  const auto refusal = [&](const char* name) {
    return refusalOf([&] { Tree::openFolderIn(docs.get(), name); });
  };
  EXPECT_EQ(refusal("out"), 400U);
  EXPECT_EQ(refusal(".."), 400U);
  EXPECT_EQ(refusal("missing"), 404U);
  EXPECT_EQ(refusal("a.txt"), 404U);
}

TEST_F(TreeTest, OpensFilesAndFolders) {
  const FileDescriptor file = tree->openFile(at("/Docs/a.txt"));
  EXPECT_EQ(attributesOf(file).sizeBytes, 5U);
  EXPECT_EQ(tree->attributes(at("/Docs")).kind, ItemKind::folder);
  EXPECT_TRUE(tree->openFolder(at("/")));
  EXPECT_TRUE(tree->openFolder(at("/Docs/Sub")));
}

TEST_F(TreeTest, MissingItemsAreNotFound) {
  for (const char* path : {"/x", "/Docs/x", "/x/y", "/Docs/a.txt/y"}) {
    EXPECT_EQ(refusalOf([&] { tree->openFile(at(path)); }), 404U) << path;
    EXPECT_EQ(refusalOf([&] { tree->openFolder(at(path)); }), 404U) << path;
    EXPECT_EQ(refusalOf([&] { tree->attributes(at(path)); }), 404U) << path;
    EXPECT_EQ(refusalOf([&] { remove(path); }), 404U) << path;
    EXPECT_EQ(refusalOf([&] { tree->move(at(path), at("/new")); }), 404U) << path;
  }
  EXPECT_EQ(refusalOf([&] { tree->makeFolder(at("/x/y")); }), 404U);
  EXPECT_EQ(refusalOf([&] { tree->move(at("/Docs/a.txt"), at("/x/y")); }), 404U);
  EXPECT_EQ(placing("/x/y"), 404U);
}

TEST_F(TreeTest, FilesAreNoFoldersAndFoldersNoFiles) {
  EXPECT_EQ(refusalOf([&] { tree->openFile(at("/Docs")); }), 409U);
  EXPECT_EQ(refusalOf([&] { tree->openFolder(at("/Docs/a.txt")); }), 409U);
}

TEST_F(TreeTest, NoOperationFollowsASymbolicLink) {
  for (const char* path : {"/Docs/out", "/Docs/out/secret.txt", "/Docs/out.txt", "/Docs/inside.txt",
                           "/Alias", "/Alias/a.txt"}) {
    EXPECT_EQ(refusalOf([&] { tree->openFile(at(path)); }), 400U) << path;
    EXPECT_EQ(refusalOf([&] { tree->openFolder(at(path)); }), 400U) << path;
    EXPECT_EQ(refusalOf([&] { tree->attributes(at(path)); }), 400U) << path;
    EXPECT_EQ(refusalOf([&] { remove(path); }), 400U) << path;
    EXPECT_EQ(refusalOf([&] { tree->move(at(path), at("/new")); }), 400U) << path;
    EXPECT_EQ(placing(path), 400U) << path;
  }
  for (const char* path : {"/Docs/out/new", "/Alias/new"}) {
    EXPECT_EQ(refusalOf([&] { tree->makeFolder(at(path)); }), 400U) << path;
    EXPECT_EQ(refusalOf([&] { tree->move(at("/Docs/a.txt"), at(path)); }), 400U) << path;
    EXPECT_EQ(placing(path), 400U) << path;
  }
  EXPECT_EQ(support::contentsOf(files.path() / "outside/secret.txt"), "secret");
  EXPECT_FALSE(fs::exists(files.path() / "outside/new"));
  EXPECT_TRUE(fs::is_symlink(inRoot("Alias")));
}

TEST_F(TreeTest, AFolderThatBecomesALinkWhileItIsUsedLeadsNowhere) {
  const FileDescriptor before = tree->openFolder(at("/Docs/Sub"));
  fs::remove(inRoot("Docs/Sub"));
  fs::create_symlink("../../outside", inRoot("Docs/Sub"));
  EXPECT_EQ(refusalOf([&] { tree->openFile(at("/Docs/Sub/secret.txt")); }), 400U);
}

TEST_F(TreeTest, AMovedRootIsStillServed) {
  fs::rename(inRoot(""), files.path() / "elsewhere");
  EXPECT_EQ(tree->attributes(at("/Docs/a.txt")).sizeBytes, 5U);
}

TEST_F(TreeTest, DevicesAndPipesAreNotFoundAndHoldNobody) {
  ASSERT_EQ(::mkfifo(inRoot("pipe").c_str(), 0600), 0);
  EXPECT_EQ(refusalOf([&] { tree->openFile(at("/pipe")); }), 404U);
  EXPECT_EQ(refusalOf([&] { tree->openFolder(at("/pipe")); }), 404U);
  EXPECT_EQ(placing("/pipe"), 409U);
}

TEST_F(TreeTest, MakesFolders) {
  tree->makeFolder(at("/Docs/New"));
  EXPECT_TRUE(fs::is_directory(inRoot("Docs/New")));
  for (const char* path : {"/", "/Docs", "/Docs/a.txt", "/Docs/New", "/Alias"}) {
    EXPECT_EQ(refusalOf([&] { tree->makeFolder(at(path)); }), 409U) << path;
  }
}

TEST_F(TreeTest, MovesFilesAndFolders) {
  tree->move(at("/Docs/a.txt"), at("/b.txt"));
  EXPECT_EQ(support::contentsOf(inRoot("b.txt")), "hello");
  tree->move(at("/Docs"), at("/Papers"));
  EXPECT_TRUE(fs::is_directory(inRoot("Papers/Sub")));
  EXPECT_FALSE(fs::exists(inRoot("Docs")));
}

TEST_F(TreeTest, AMoveNeverReplaces) {
  files.write("root/b.txt", "other");
  EXPECT_EQ(refusalOf([&] { tree->move(at("/Docs/a.txt"), at("/b.txt")); }), 409U);
  EXPECT_EQ(refusalOf([&] { tree->move(at("/Docs/a.txt"), at("/Docs/a.txt")); }), 409U);
  EXPECT_EQ(refusalOf([&] { tree->move(at("/b.txt"), at("/Docs")); }), 409U);
  EXPECT_EQ(refusalOf([&] { tree->move(at("/b.txt"), at("/")); }), 409U);
  EXPECT_EQ(support::contentsOf(inRoot("b.txt")), "other");
  EXPECT_EQ(support::contentsOf(inRoot("Docs/a.txt")), "hello");
}

TEST_F(TreeTest, AFolderDoesNotMoveIntoItself) {
  EXPECT_EQ(refusalOf([&] { tree->move(at("/Docs"), at("/Docs/Sub/Docs")); }), 409U);
  EXPECT_EQ(refusalOf([&] { tree->move(at("/Docs"), at("/Docs/New")); }), 409U);
  EXPECT_EQ(refusalOf([&] { tree->move(at("/"), at("/Docs/New")); }), 400U);
  tree->move(at("/Docs"), at("/Docs2"));
}

TEST_F(TreeTest, RemovesFilesAtOnceAndFoldersAsAWhole) {
  EXPECT_FALSE(remove("/Docs/a.txt"));
  EXPECT_FALSE(fs::exists(inRoot("Docs/a.txt")));
  EXPECT_TRUE(remove("/Docs"));
  EXPECT_FALSE(fs::exists(inRoot("Docs")));
  EXPECT_TRUE(fs::is_directory(files.path() / "trash/t/Sub"));
  EXPECT_EQ(refusalOf([&] { remove("/"); }), 400U);
}

TEST_F(TreeTest, AnItemThatChangesItsKindIsRemovedAllTheSame) {
  files.write("root/other", "x");
  fs::create_directory(inRoot("one"));
  std::atomic<bool> ended = false;
  std::thread swapper([&] {
    while (!ended) {
      ::renameat2(AT_FDCWD, inRoot("one").c_str(), AT_FDCWD, inRoot("other").c_str(),
                  RENAME_EXCHANGE);
    }
  });
  for (int i = 0; i < 1500 && !HasFailure(); ++i) {
    EXPECT_EQ(refusalOf([&] { tree->remove(at("/one"), trash.get(), "t" + std::to_string(i)); }),
              0U);
    // What is left is made the one of two again.
    if (fs::is_directory(inRoot("other"))) {
      files.write("root/one", "x");
    } else {
      fs::create_directory(inRoot("one"));
    }
  }
  ended = true;
  swapper.join();
}

TEST_F(TreeTest, AFolderThatIsTakenOutWhileItIsLookedUpIsMissingAndNothingElse) {
  std::string deep = "/Docs/Sub";
  for (int depth = 0; depth < 30; ++depth) deep += "/Sub";
  fs::create_directories(inRoot(deep.substr(1)));
  std::atomic<bool> ended = false;
  std::thread taker([&] {
    while (!ended) {
      fs::rename(inRoot("Docs"), files.path() / "trash/Docs");
      fs::rename(files.path() / "trash/Docs", inRoot("Docs"));
    }
  });
  int found = 0;
  int missing = 0;
  // Longer where the two threads have to share a processor.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  const auto goesOn = [&](int i) {
    if (i < 20'000) return true;
    return (found == 0 || missing == 0) && std::chrono::steady_clock::now() < deadline;
  };
  for (int i = 0; goesOn(i); ++i) {
    const unsigned refusal = refusalOf([&] { tree->openFolder(at(deep)); });
    found += refusal == 0 ? 1 : 0;
    missing += refusal == 404 ? 1 : 0;
    if (refusal != 0 && refusal != 404) ADD_FAILURE() << refusal;
    if (HasFailure()) break;
  }
  ended = true;
  taker.join();
  EXPECT_GT(found, 0);
  EXPECT_GT(missing, 0);
}

TEST_F(TreeTest, KnowsWhetherAnOpenFolderIsStillInTheTree) {
  const FileDescriptor sub = tree->openFolder(at("/Docs/Sub"));
  EXPECT_TRUE(tree->holds(sub));
  EXPECT_TRUE(tree->holds(tree->openFolder(at("/"))));
  tree->move(at("/Docs/Sub"), at("/Sub"));
  EXPECT_TRUE(tree->holds(sub));
  tree->makeFolder(at("/Sub/Deep"));
  const FileDescriptor deep = tree->openFolder(at("/Sub/Deep"));
  remove("/Sub");
  EXPECT_FALSE(tree->holds(sub));
  EXPECT_FALSE(tree->holds(deep));
  const FileDescriptor docs = tree->openFolder(at("/Docs"));
  fs::remove_all(inRoot("Docs"));
  EXPECT_FALSE(tree->holds(docs));
}

TEST_F(TreeTest, PlacesNewFilesAndReplacesOldOnes) {
  EXPECT_EQ(placing("/Docs/new.txt"), 0U);
  EXPECT_EQ(placing("/Docs/a.txt"), 0U);
  EXPECT_EQ(support::contentsOf(inRoot("Docs/a.txt")), "new contents");
  EXPECT_FALSE(fs::exists(files.path() / "trash/new"));
  EXPECT_EQ(placing("/Docs"), 409U);
  EXPECT_EQ(placing("/"), 409U);
  EXPECT_TRUE(fs::exists(files.path() / "trash/new"));
}

TEST_F(TreeTest, WithoutARootThereIsNoTree) {
  EXPECT_THROW(Tree(files.path() / "missing", platform::Durability::atomic), std::runtime_error);
  EXPECT_THROW(Tree(inRoot("Docs/a.txt"), platform::Durability::atomic), std::runtime_error);
}

}  // namespace
}  // namespace kestrune::service
