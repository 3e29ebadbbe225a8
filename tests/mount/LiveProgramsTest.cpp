// Everyday programs in a real folder: what they did is in the store byte for byte, and another machine sees the same.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "tests/mount/LiveMount.h"
#include "tests/support/Waiting.h"

namespace kestrune::mounttest {
namespace {

namespace fs = std::filesystem;
using support::contentsOf;

bool has(const std::string& program) { return runIn("/", "command -v " + program).status == 0; }

class LiveProgramsTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const char* reason = whyNoMount()) GTEST_SKIP() << reason;
    service_ = std::make_unique<LiveService>();
    mount_ = std::make_unique<LiveMount>(*service_);
  }
  LiveService& service() { return *service_; }
  LiveMount& mount() { return *mount_; }

  void run(const std::string& script) {
    const auto result = runIn(mount().mountPoint(), script);
    ASSERT_EQ(result.status, 0) << script << "\n" << result.output;
  }
  /// A tree of many small files, some large ones, names of all kinds, in a folder beside the mount.
  fs::path sampleTree() {
    const fs::path tree = outside_.path() / "tree";
    const auto made = runIn(outside_.path(), R"(
      mkdir -p tree/src/deep/er/still tree/Größe "tree/with space & more" tree/empty
      for i in $(seq 60); do head -c $((i * 37)) /dev/urandom >tree/src/file$i; done
      head -c 3000000 /dev/urandom >tree/src/deep/large.bin
      printf 'Übung\n' >tree/Größe/Übung.txt
      printf x >"tree/with space & more/100% #1 +.txt"
      : >tree/src/deep/er/still/nothing
      chmod +x tree/src/file1)");
    EXPECT_EQ(made.status, 0) << made.output;
    return tree;
  }
  /// The store has what the folder has, and a machine that looks for the first time sees it.
  void expectTheStoreHasIt() {
    EXPECT_EQ(waitUntilSent(service(), mount()), "");
    const LiveMount other(service());
    EXPECT_EQ(differences(snapshotOf(mount().mountPoint()), snapshotOf(other.mountPoint())), "");
  }

 private:
  support::TemporaryDirectory outside_;
  std::unique_ptr<LiveService> service_;
  std::unique_ptr<LiveMount> mount_;
};

TEST_F(LiveProgramsTest, CopiesMovesAndRemovesTrees) {
  const fs::path tree = sampleTree();
  run("cp -r '" + tree.string() + "' copy");
  EXPECT_EQ(differences(snapshotOf(tree), snapshotOf(mount() / "copy")), "");
  expectTheStoreHasIt();
  EXPECT_EQ(differences(snapshotOf(tree), snapshotOf(service().root() / "copy")), "");
  run("mv copy moved && mv moved/src/deep . && mkdir into && mv moved into/ && rm -r "
      "into/moved/src");
  expectTheStoreHasIt();
  EXPECT_TRUE(fs::exists(service().root() / "into/moved/Größe/Übung.txt"));
  run("rm -r into deep");
  expectTheStoreHasIt();
  EXPECT_TRUE(fs::is_empty(service().root()));
}

TEST_F(LiveProgramsTest, ATreeMovedWhileItIsSentArrivesWhole) {
  const fs::path tree = sampleTree();
  run("cp -r '" + tree.string() +
      "' one && mv one two && cp -r two three && mv two/src three/other");
  expectTheStoreHasIt();
  EXPECT_EQ(differences(snapshotOf(tree / "src"), snapshotOf(service().root() / "three/other")),
            "");
}

TEST_F(LiveProgramsTest, ArchivesAndSynchronisers) {
  const fs::path tree = sampleTree();
  run("tar -C '" + tree.string() + "' -cf - . | (mkdir packed && tar -C packed -xf -)");
  EXPECT_EQ(differences(snapshotOf(tree), snapshotOf(mount() / "packed")), "");
  if (has("rsync")) {
    run("rsync -a '" + tree.string() + "/' synced/ && printf more >>'" + tree.string() +
        "/src/file7' && rm '" + tree.string() + "/src/file8' && rsync -a --delete '" +
        tree.string() + "/' synced/");
    EXPECT_EQ(differences(snapshotOf(tree), snapshotOf(mount() / "synced")), "");
  }
  expectTheStoreHasIt();
}

TEST_F(LiveProgramsTest, EditorsSave) {
  run("printf 'first\\nsecond\\n' >a.txt; cp a.txt b.txt; cp a.txt c.txt; cp a.txt d.txt");
  expectTheStoreHasIt();
  run("sed -i s/first/changed/ a.txt");
  if (has("ed")) run(R"(script -qec "printf '1s/first/by ed/\nw\nq\n' | ed -s b.txt" /dev/null)");
  if (has("vim"))
    run(R"(TERM=xterm script -qec "vim -es -u NONE '+set backup' '+1s/first/by vim/' +wq c.txt" /dev/null)");
  if (has("vim")) EXPECT_EQ(contentsOf(mount() / "c.txt"), "by vim\nsecond\n");
  if (has("nano")) {
    run("(sleep 1; printf 'by nano '; sleep 1; printf '\\017\\r'; sleep 1; printf '\\030'; sleep "
        "1) | "
        "TERM=xterm script -qec 'nano d.txt' /dev/null");
    EXPECT_EQ(contentsOf(mount() / "d.txt"), "by nano first\nsecond\n");
  }
  EXPECT_EQ(contentsOf(mount() / "a.txt"), "changed\nsecond\n");
  expectTheStoreHasIt();
  for (const auto& entry : fs::directory_iterator(service().root()))
    EXPECT_EQ(entry.path().string().find("conflict"), std::string::npos) << entry.path();
}

TEST_F(LiveProgramsTest, RepositoriesAreClonedAndWorkedIn) {
  if (!has("git")) GTEST_SKIP() << "git is not installed";
  const fs::path tree = sampleTree();
  const std::string git =
      "git -c user.name=t -c user.email=t@example.org -c init.defaultBranch=main ";
  const auto made = runIn(tree, git + "init -q && " + git + "add -A && " + git + "commit -qm one");
  ASSERT_EQ(made.status, 0) << made.output;
  run("git clone -q '" + tree.string() +
      "' clone && cd clone && git fsck --strict && test -z \"$(git status --porcelain)\"");
  run("cd clone && printf new >new && rm src/file3 && " + git + "add -A && " + git +
      "commit -qm two && " + git +
      "gc -q && git checkout -q HEAD~1 && git checkout -q main && git fsck --strict");
  expectTheStoreHasIt();
  // The store's own copy is a repository too.
  const auto checked = runIn(
      service().root() / "clone",
      "git -c safe.directory='*' fsck --strict && git -c safe.directory='*' log --oneline | wc -l");
  EXPECT_EQ(checked.status, 0) << checked.output;
}

}  // namespace
}  // namespace kestrune::mounttest
