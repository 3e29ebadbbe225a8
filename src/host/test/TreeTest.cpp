#include "host/Tree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "host/FileContents.h"

namespace kestrune::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Kind = CacheUpdate::Kind;

constexpr platform::Date kNow = platform::Date(std::chrono::seconds(1'000'000));

ItemRecord file(std::string identifier, std::string name, std::string version = "1",
                std::int64_t sizeBytes = 5) {
  ItemRecord item;
  item.identifier = std::move(identifier);
  item.name = std::move(name);
  item.contentVersion = std::move(version);
  item.sizeBytes = sizeBytes;
  return item;
}

ItemRecord folder(std::string identifier, std::string name) {
  ItemRecord item = file(std::move(identifier), std::move(name));
  item.isFolder = true;
  item.sizeBytes = 0;
  return item;
}

class TreeTest : public testing::Test {
 protected:
  Effects list(Node& where, const std::vector<ItemRecord>& items) {
    Effects effects;
    tree_.setChildren(where, items, kNow, effects);
    return effects;
  }
  Effects change(Node& where, const std::vector<ReportedChange>& changes) {
    Effects effects;
    tree_.applyChanges(where, changes, kNow, effects);
    return effects;
  }
  static ReportedChange update(ItemRecord item) {
    return {ReportedChange::Kind::update, std::move(item)};
  }
  static ReportedChange deletion(std::string identifier) {
    return {ReportedChange::Kind::deletion, file(std::move(identifier), "")};
  }

  std::vector<std::string> names(const Node& where) {
    std::vector<std::string> result;
    for (const auto& [cookie, node] : where.childrenByCookie) result.push_back(node->item.name);
    return result;
  }
  Node& child(Node& where, const std::string& name) {
    Node* found = tree_.child(where, name);
    if (found == nullptr) throw std::runtime_error("no " + name);
    return *found;
  }
  // As opening a file does.
  void makeContents(Node& node) {
    node.contents = std::make_shared<FileContents>(nullptr, node.id, node.item.identifier);
  }

  Tree tree_{"root"};
  Node& root_ = tree_.root();
};

TEST_F(TreeTest, TheFirstListingIsShownInItsOrderAndTellsTheKernelNothing) {
  const Effects effects = list(root_, {file("1", "b"), folder("2", "a")});
  EXPECT_THAT(names(root_), ElementsAre("b", "a"));
  EXPECT_THAT(effects.cache, IsEmpty());
  EXPECT_EQ(root_.entriesChanged, platform::kDistantPast);
  EXPECT_TRUE(child(root_, "a").isFolder);
}

TEST_F(TreeTest, AnEqualListingChangesNothing) {
  list(root_, {file("1", "a"), folder("2", "b")});
  const InodeNumber before = child(root_, "a").inode;
  const Effects effects = list(root_, {file("1", "a"), folder("2", "b")});
  EXPECT_THAT(effects.cache, IsEmpty());
  EXPECT_EQ(child(root_, "a").inode, before);
}

TEST_F(TreeTest, ItemsThatCannotBeShownAreLeftOutAndCounted) {
  const Effects effects =
      list(root_, {file("1", "../x"), file("2", "good"), file("3", ""), file("4", "..")});
  EXPECT_THAT(names(root_), ElementsAre("good"));
  EXPECT_EQ(effects.leftOut, 3U);
  EXPECT_EQ(effects.firstLeftOut, "'../x': it contains a slash");
}

TEST_F(TreeTest, AnItemThatSaysItLiesElsewhereIsLeftOut) {
  ItemRecord stray = file("/folder/a/b", "b");
  stray.parentIdentifier = "/folder/a";
  ItemRecord own = file("/own", "own");
  own.parentIdentifier = root_.item.identifier;
  const Effects effects = list(root_, {stray, own});
  EXPECT_THAT(names(root_), ElementsAre("own"));
  EXPECT_EQ(effects.leftOut, 1U);
}

TEST_F(TreeTest, OfTwoItemsWithOneNameTheFirstIsShown) {
  const Effects effects = list(root_, {file("1", "a"), folder("2", "a")});
  EXPECT_THAT(names(root_), ElementsAre("a"));
  EXPECT_FALSE(child(root_, "a").isFolder);
  EXPECT_EQ(effects.leftOut, 1U);
}

TEST_F(TreeTest, OfTwoItemsWithOneIdentifierTheFirstIsShown) {
  const Effects effects = list(root_, {file("1", "a"), file("1", "b")});
  EXPECT_THAT(names(root_), ElementsAre("a"));
  EXPECT_EQ(effects.leftOut, 1U);
}

TEST_F(TreeTest, ANewNameIsAppendedAndTheKernelForgetsThatItWasMissing) {
  list(root_, {file("1", "b")});
  const Effects effects = change(root_, {update(file("2", "a"))});
  EXPECT_THAT(names(root_), ElementsAre("b", "a"));
  EXPECT_THAT(effects.cache, ElementsAre(CacheUpdate{Kind::entry, kRootNode, "a"},
                                         CacheUpdate{Kind::listing, kRootNode}));
  EXPECT_EQ(root_.entriesChanged, kNow);
}

TEST_F(TreeTest, TheFoldersTimeMovesWithEveryChangeOfItsNames) {
  list(root_, {file("1", "a")});
  change(root_, {update(file("2", "b"))});
  change(root_, {deletion("2")});  // at the same moment
  EXPECT_GT(root_.entriesChanged, kNow);
}

TEST_F(TreeTest, ARenamedItemKeepsItsInode) {
  list(root_, {file("1", "a")});
  const InodeNumber inode = child(root_, "a").inode;
  change(root_, {update(file("1", "b"))});
  EXPECT_THAT(names(root_), ElementsAre("b"));
  EXPECT_EQ(child(root_, "b").inode, inode);
}

TEST_F(TreeTest, AFileThatBecameAFolderIsAnotherItem) {
  list(root_, {file("1", "a")});
  const InodeNumber inode = child(root_, "a").inode;
  change(root_, {update(folder("1", "a"))});
  EXPECT_TRUE(child(root_, "a").isFolder);
  EXPECT_NE(child(root_, "a").inode, inode);
}

TEST_F(TreeTest, AnotherItemUnderAnOldNameGetsItsOwnInode) {
  list(root_, {file("1", "a")});
  const InodeNumber inode = child(root_, "a").inode;
  list(root_, {file("2", "a")});
  EXPECT_NE(child(root_, "a").inode, inode);
}

TEST_F(TreeTest, AnItemSeenInAnotherFolderHasMovedWithAllBelowIt) {
  list(root_, {folder("1", "from"), folder("2", "to")});
  list(child(root_, "from"), {folder("3", "moved")});
  Node& moved = child(child(root_, "from"), "moved");
  list(moved, {file("4", "inside")});
  list(child(root_, "to"), {});
  change(child(root_, "to"), {update(folder("3", "arrived"))});
  EXPECT_THAT(names(child(root_, "from")), IsEmpty());
  EXPECT_EQ(&child(child(root_, "to"), "arrived"), &moved);
  EXPECT_THAT(names(moved), ElementsAre("inside"));
  // The folder that it left reports it as deleted, later.
  change(child(root_, "from"), {deletion("3")});
  EXPECT_THAT(names(child(root_, "to")), ElementsAre("arrived"));
}

TEST_F(TreeTest, AFolderIsNeverPutBelowItself) {
  list(root_, {folder("1", "a")});
  Node& a = child(root_, "a");
  const Effects effects = list(a, {folder("1", "a"), folder("root", "r"), file("5", "ok")});
  EXPECT_THAT(names(a), ElementsAre("ok"));
  EXPECT_EQ(effects.leftOut, 2U);
  EXPECT_THAT(names(root_), ElementsAre("a"));
}

TEST_F(TreeTest, AnItemMayTakeTheNameOfTheFolderThatHeldIt) {
  list(root_, {folder("1", "a")});
  list(child(root_, "a"), {file("2", "inner")});
  list(root_, {file("2", "a")});
  EXPECT_THAT(names(root_), ElementsAre("a"));
  EXPECT_FALSE(child(root_, "a").isFolder);
}

TEST_F(TreeTest, AnUnopenedFileIsUpdatedInPlace) {
  list(root_, {file("1", "a", "1", 5)});
  Node& before = child(root_, "a");
  before.kernelReferences = 1;
  const Effects effects = change(root_, {update(file("1", "a", "2", 7))});
  EXPECT_EQ(&child(root_, "a"), &before);
  EXPECT_EQ(before.sizeBytes(), 7);
  EXPECT_THAT(effects.cache, ElementsAre(CacheUpdate{Kind::attributes, before.id}));
}

TEST_F(TreeTest, AnOpenedFilesNewVersionIsANewNodeWithTheSameInodeAndPlace) {
  list(root_, {file("1", "a"), file("2", "b")});
  Node& before = child(root_, "a");
  before.openFiles = 1;
  makeContents(before);
  const auto contents = before.contents;
  const Effects effects = change(root_, {update(file("1", "a", "2"))});
  Node& after = child(root_, "a");
  EXPECT_NE(after.id, before.id);
  EXPECT_EQ(after.inode, before.inode);
  EXPECT_THAT(names(root_), ElementsAre("a", "b"));
  EXPECT_FALSE(before.linked);
  EXPECT_EQ(after.contents, nullptr);
  EXPECT_THAT(effects.abandonedContents, ElementsAre(contents));
  EXPECT_THAT(effects.cache, ElementsAre(CacheUpdate{Kind::entry, kRootNode, "a"},
                                         CacheUpdate{Kind::listing, kRootNode}));
}

TEST_F(TreeTest, TheSameVersionReportedAgainKeepsTheNode) {
  list(root_, {file("1", "a", "1", 5)});
  Node& node = child(root_, "a");
  makeContents(node);
  node.storedBytes = 9;
  change(root_, {update(file("1", "a", "1", 5))});
  EXPECT_EQ(&child(root_, "a"), &node);
  EXPECT_EQ(node.sizeBytes(), 9);
}

TEST_F(TreeTest, WithoutVersionsSizeAndTimeTellVersionsApart) {
  ItemRecord item = file("1", "a");
  item.contentVersion.reset();
  list(root_, {item});
  Node& node = child(root_, "a");
  makeContents(node);
  node.storedBytes = 9;  // not what was listed; the listing still says 5
  change(root_, {update(item)});
  EXPECT_EQ(&child(root_, "a"), &node);
  item.modified += std::chrono::seconds(1);
  node.openFiles = 1;
  change(root_, {update(item)});
  EXPECT_NE(&child(root_, "a"), &node);
}

TEST_F(TreeTest, DeletionsOfWhatIsNotHereDoNothing) {
  list(root_, {folder("1", "a"), file("2", "b")});
  list(child(root_, "a"), {file("3", "c")});
  const Effects effects = change(root_, {deletion("never"), deletion("3"), deletion("root")});
  EXPECT_THAT(effects.cache, IsEmpty());
  EXPECT_THAT(names(child(root_, "a")), ElementsAre("c"));
}

TEST_F(TreeTest, ADeletedFolderTakesAllBelowItAlong) {
  list(root_, {folder("1", "a")});
  Node& a = child(root_, "a");
  list(a, {folder("2", "b"), file("3", "c")});
  list(child(a, "b"), {file("4", "d")});
  Node& d = child(child(a, "b"), "d");
  d.kernelReferences = 1;
  const NodeId deepest = d.id;
  const NodeId middle = child(a, "b").id;
  const Effects effects = change(root_, {deletion("1")});
  EXPECT_EQ(effects.detachedFolders.size(), 2U);
  EXPECT_EQ(tree_.find(middle), nullptr);
  ASSERT_NE(tree_.find(deepest), nullptr);
  EXPECT_FALSE(d.linked);
  tree_.dropKernelReferences(d, 1);
  EXPECT_EQ(tree_.find(deepest), nullptr);
}

TEST_F(TreeTest, ADetachedNodeLivesAsLongAsSomebodyHasItOpen) {
  list(root_, {file("1", "a")});
  Node& node = child(root_, "a");
  const NodeId id = node.id;
  node.openFiles = 2;
  list(root_, {});
  tree_.dropOpenFile(node);
  ASSERT_EQ(tree_.find(id), &node);
  tree_.dropOpenFile(node);
  EXPECT_EQ(tree_.find(id), nullptr);
}

TEST_F(TreeTest, DeletedAndMadeAgainInOneBatchIsShownOnce) {
  list(root_, {file("1", "a")});
  change(root_, {update(file("1", "a", "2")), deletion("1"), update(file("2", "a"))});
  EXPECT_THAT(names(root_), ElementsAre("a"));
  EXPECT_EQ(child(root_, "a").item.identifier, "2");
}

TEST_F(TreeTest, VeryDeepTreesAreRemovedWithoutRecursion) {
  Node* at = &root_;
  for (int i = 0; i < 200'000; ++i) {
    list(*at, {folder("d" + std::to_string(i), "d")});
    at = &child(*at, "d");
  }
  EXPECT_EQ(list(root_, {}).detachedFolders.size(), 200'000U);
}

// Every linked node is reached from the root exactly once, knows its parent, and has a name that can be shown.
void checkLinks(Tree& tree, const Node& node, std::set<const Node*>& seen,
                std::set<std::string>& identifiers) {
  ASSERT_TRUE(seen.insert(&node).second);
  ASSERT_TRUE(node.linked);
  ASSERT_EQ(node.childrenByCookie.size(), node.childrenByName.size());
  for (const auto& [cookie, child] : node.childrenByCookie) {
    ASSERT_EQ(child->parent, &node);
    ASSERT_EQ(child->cookie, cookie);
    ASSERT_EQ(tree.child(node, child->item.name), child);
    ASSERT_EQ(tree.find(child->id), child);
    ASSERT_TRUE(identifiers.insert(child->item.identifier).second);
    checkLinks(tree, *child, seen, identifiers);
  }
}

class TreeModelTest : public testing::TestWithParam<unsigned> {};

TEST_P(TreeModelTest, AnyReportsKeepTheTreeATree) {
  std::mt19937 random(GetParam());
  const auto pick = [&](int below) {
    return static_cast<int>(random() % static_cast<unsigned>(below));
  };
  Tree tree("root");
  std::size_t left = 0;
  std::size_t moved = 0;
  for (int step = 0; step < 3000; ++step) {
    std::vector<Node*> folders = {&tree.root()};
    for (std::size_t i = 0; i < folders.size(); ++i) {
      for (const auto& [cookie, child] : folders[i]->childrenByCookie) {
        if (child->isFolder) folders.push_back(child);
      }
    }
    Node& where = *folders[static_cast<std::size_t>(pick(static_cast<int>(folders.size())))];
    std::vector<ReportedChange> changes;
    std::vector<ItemRecord> items;
    for (int i = pick(5); i >= 0; --i) {
      const std::string identifier = pick(40) == 0 ? "root" : "i" + std::to_string(pick(14));
      const std::string name = pick(20) == 0 ? ".." : "n" + std::to_string(pick(6));
      ItemRecord item =
          pick(2) == 0 ? folder(identifier, name) : file(identifier, name, std::to_string(pick(3)));
      items.push_back(item);
      changes.push_back(
          {pick(3) == 0 ? ReportedChange::Kind::deletion : ReportedChange::Kind::update, item});
    }
    Effects effects;
    if (pick(2) == 0) {
      tree.setChildren(where, items, kNow, effects);
    } else {
      tree.applyChanges(where, changes, kNow, effects);
    }
    left += effects.leftOut;
    moved += effects.cache.size();
    std::set<const Node*> seen;
    std::set<std::string> identifiers;
    checkLinks(tree, tree.root(), seen, identifiers);
    if (HasFatalFailure()) FAIL() << "seed " << GetParam() << " step " << step;
  }
  // The run has met what it is there for.
  EXPECT_GT(left, 100U);
  EXPECT_GT(moved, 100U);
}

INSTANTIATE_TEST_SUITE_P(Seeds, TreeModelTest, testing::Range(1U, 9U));

}  // namespace
}  // namespace kestrune::host
