// Changes made here, saves, and rows of an earlier mount.
#include "host/tree/Tree.h"

#include "host/tree/test/TreeFixture.h"

namespace kestrune::host {
namespace {

using Kind = CacheUpdate::Kind;
using ChangeKind = Change::Kind;
using testing::ElementsAre;
using testing::IsEmpty;

class TreeTest : public TreeFixture {};

TEST_F(TreeTest, WhatTheKernelDidItIsNotTold) {
  Item& folder = tree().create(root(), "d", true, false);
  folder.node = 7;
  Item& item = tree().create(folder, "a", false, true);
  EXPECT_TRUE(item.isExecutable);
  tree().move(item, root(), "b");
  Item& other = tree().create(root(), "c", false, false);
  tree().exchange(item, other);
  EXPECT_EQ(at("c"), &item);
  EXPECT_EQ(at("b"), &other);
  tree().remove(other);
  EXPECT_THAT(check().cache, IsEmpty());
  EXPECT_EQ(tree().path(item), "/c");
  EXPECT_THAT(names(), ElementsAre("c", "d"));
}

TEST_F(TreeTest, WhatOthersDidTheKernelIsTold) {
  list({file("1", "a")});
  Item* item = at("a");
  item->node = 9;
  tree().applyListing(root(), {file("1", "b"), file("2", "c")}, {}, tree().moment());
  const auto& cache = check().cache;
  EXPECT_THAT(cache, testing::Contains(CacheUpdate{Kind::deletion, kRootNode, "a", 9}));
  EXPECT_THAT(cache, testing::Contains(CacheUpdate{Kind::entry, kRootNode, "b", 0}));
  EXPECT_THAT(cache, testing::Contains(CacheUpdate{Kind::entry, kRootNode, "c", 0}));
  EXPECT_THAT(cache, testing::Contains(CacheUpdate{Kind::listing, kRootNode, "", 0}));
}

TEST_F(TreeTest, AFirstListingTellsTheKernelNothingAndLeavesTheTimeOfTheFolder) {
  const FileTime before = root().modified();
  now_ += std::chrono::seconds(10);
  tree().applyListing(root(), {file("1", "a"), folder("2", "d")}, "anchor", tree().moment());
  EXPECT_THAT(check().cache, IsEmpty());
  EXPECT_EQ(root().modified(), before);
  EXPECT_TRUE(root().part()->listing.isEnumerated);
  EXPECT_EQ(root().part()->listing.anchor, "anchor");
  EXPECT_EQ(at("a")->sizeBytes, 1);
  EXPECT_THAT(ready(), IsEmpty());
  list({file("1", "a"), folder("2", "d"), file("3", "b")});
  EXPECT_GT(root().modified(), before);
}

TEST_F(TreeTest, AnItemThatIsNeitherHereNorThereIsForgotten) {
  Item& item = make("a");
  const ItemId id = item.id;
  tree().remove(item);
  EXPECT_TRUE(check().forgotten.contains(id));
  EXPECT_THAT(effects_.dropped, ElementsAre(1));
  EXPECT_EQ(tree().find(id), nullptr);
}

TEST_F(TreeTest, AnItemUnderWayIsForgottenWhenItsChangeHasEnded) {
  Item& item = make("a");
  const ItemId id = item.id;
  tree().beginChange(item);
  tree().remove(item);
  check();
  tree().forgetIfGone(item);
  ASSERT_NE(tree().find(id), nullptr);
  tree().endChange(item);
  check();
  EXPECT_EQ(tree().find(id), nullptr);
}

TEST_F(TreeTest, AnEditBeginsFromTheVersionThatIsThere) {
  list({file("1", "a", 3)});
  Item& item = *at("a");
  fill(item, 3);
  EXPECT_FALSE(item.isEdited());
  EXPECT_THAT(ready(), IsEmpty());
  fill(item, 9, 1);
  EXPECT_EQ(item.content()->base, "v3");
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::send, item.id, {}}));
}

TEST_F(TreeTest, ContentsThatWereDroppedAndFetchedAgainAreNoEdit) {
  list({file("1", "a", 3)});
  Item& item = *at("a");
  fill(item, 9, 4);
  send(item, file("1", "a", 9));
  tree().dropContent(item);
  ContentState state;
  state.number = 77;
  state.edits = 4;  // its object goes on counting
  tree().setContent(item, state);
  EXPECT_FALSE(item.isEdited());
}

// ------------------------------------------------------------------------------------------- saves

class TreeSaveTest : public TreeFixture {
 protected:
  TreeSaveTest() {
    list({file("1", "a", 3)});
    old_ = at("a");
  }
  /// `item` is the new contents of what the store has as "1".
  void expectSent(const Item& item) {
    ASSERT_TRUE(item.there);
    EXPECT_EQ(item.there->identifier, "1");
    EXPECT_EQ(item.content()->base, "v3");
    EXPECT_TRUE(item.isEdited());
    EXPECT_THAT(ready(), testing::Contains(Change{ChangeKind::send, item.id, {}}));
  }
  Item* old_;
};

TEST_F(TreeSaveTest, ANewFileRenamedOverTheOldOneIsNewContents) {
  Item& item = make("temp");
  const ItemId old = old_->id;
  tree().move(item, root(), "a");
  check();
  expectSent(item);
  EXPECT_EQ(ready().size(), 1U);
  EXPECT_EQ(tree().find(old), nullptr);
}

TEST_F(TreeSaveTest, TheBackupIsHereAloneFromThenOn) {
  fill(*old_, 3);
  tree().move(*old_, root(), "a~");
  make("a");
  const ContentRow& row = *old_->content();
  EXPECT_TRUE(row.state.isEdited);  // a restart takes nothing of it for what can be fetched
  EXPECT_NE(row.sentEdits, row.state.edits);
  EXPECT_TRUE(row.base.empty());
}

TEST_F(TreeSaveTest, ABackupInTheSameFolderGoesOutAsANewFile) {
  fill(*old_, 3);
  tree().move(*old_, root(), "a~");
  Item& item = make("a");
  expectSent(item);
  EXPECT_FALSE(old_->there);
  EXPECT_THAT(ready(), testing::Contains(Change{ChangeKind::create, old_->id, {kRootItem, "a~"}}));
}

TEST_F(TreeSaveTest, ABackupThatIsNotHereIsRenamedThere) {
  tree().move(*old_, root(), "a~");
  Item& item = make("a");
  EXPECT_FALSE(item.there);
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::move, old_->id, {kRootItem, "a~"}}));
}

TEST_F(TreeSaveTest, ABackupInAnotherFolderIsMovedThere) {
  fill(*old_, 3);
  Item& folder = tree().create(root(), "d", true, false);
  tree().move(*old_, folder, "a");
  EXPECT_FALSE(make("a").there);
}

TEST_F(TreeSaveTest, RemovedAndWrittenAnewIsNewContents) {
  tree().remove(*old_);
  Item& item = make("a");
  expectSent(item);
  EXPECT_EQ(ready().size(), 1U);
}

TEST_F(TreeSaveTest, ATemporaryFileThatWasSentLatelyIsNewContentsAndItsPlaceIsCleared) {
  Item& item = make("temp");
  send(item, file("2", "temp", 5));
  now_ += std::chrono::seconds(59);
  tree().move(item, root(), "a");
  check();
  expectSent(item);
  Item* left = tree().byIdentifier("2");
  ASSERT_NE(left, nullptr);
  EXPECT_NE(left, &item);
  EXPECT_FALSE(left->isLinked());
  EXPECT_THAT(ready(), testing::UnorderedElementsAre(Change{ChangeKind::send, item.id, {}},
                                                     Change{ChangeKind::remove, left->id, {}}));
}

TEST_F(TreeSaveTest, AFileThatLivedLongerIsMovedOverTheOther) {
  Item& item = make("temp");
  send(item, file("2", "temp", 5));
  now_ += std::chrono::seconds(61);
  tree().move(item, root(), "a");
  EXPECT_EQ(item.there->identifier, "2");
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::remove, old_->id, {}}));
  tree().beginChange(*old_);
  tree().removedThere(*old_);
  tree().endChange(*old_);
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::move, item.id, {kRootItem, "a"}}));
}

TEST_F(TreeSaveTest, NeitherWhatIsBeingEvictedNorABackupOfItIsCountedOn) {
  Item& item = make("temp");
  send(item, file("2", "temp", 5));
  item.isBeingEvicted = true;
  tree().move(item, root(), "a");
  EXPECT_EQ(item.there->identifier, "2");

  list({file("2", "temp", 5), file("3", "b", 3)});
  Item& old = *tree().child(root(), "b");
  fill(old, 3);
  old.isBeingEvicted = true;
  tree().move(old, root(), "b~");
  EXPECT_FALSE(make("b").there);
}

TEST_F(TreeSaveTest, ContentsWithHolesOfAVersionThatIsGoneTakeNothingOver) {
  list({file("1", "a", 3), file("2", "b", 8)});
  Item& item = *tree().child(root(), "b");
  ContentState state;
  state.number = 77;
  state.sizeBytes = 8;
  state.fetchableBytes = 8;
  state.present.add({4, 8});
  state.version = "v8";
  state.edits = 1;
  state.isEdited = true;
  tree().setContent(item, state);
  list({file("1", "a", 3)});
  ASSERT_FALSE(item.there);
  tree().move(item, root(), "a");
  check();
  EXPECT_FALSE(item.there);
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::remove, old_->id, {}}));
}

TEST_F(TreeSaveTest, WhatIsUnderWayIsNotTakenOver) {
  tree().beginChange(*old_);
  Item& item = make("temp");
  tree().move(item, root(), "a");
  EXPECT_FALSE(item.there);
  tree().endChange(*old_);
}

TEST_F(TreeSaveTest, ASendingOfWhichTheEndIsUnknownIsTakenOverToo) {
  fill(*old_, 8, 1);
  tree().beginSending(*old_, 8, 1);
  tree().endChange(*old_);
  Item& item = make("temp", 6);
  tree().move(item, root(), "a");
  expectSent(item);
  ItemRecord record = file("1", "a", 8);
  record.modified = now_;
  list({record});  // it had arrived
  EXPECT_EQ(item.content()->base, "v8");
  EXPECT_TRUE(item.isEdited());
}

TEST_F(TreeSaveTest, AFolderTakesNothingOver) {
  list({file("1", "a", 3), folder("2", "d")});
  tree().remove(*at("d"));
  EXPECT_FALSE(tree().create(root(), "d", true, false).there);
}

// ------------------------------------------------------------------------------------------- restarts

TEST_F(TreeTest, RowsBecomeTheSameTree) {
  list({file("1", "a", 3), folder("2", "d"), file("4", "gone")});
  list(*at("d"), {file("3", "b", 4)});
  fill(*at("a"), 9, 1);
  tree().remove(*at("gone"));
  tree().move(*tree().byIdentifier("3"), root(), "moved");
  tree().setPolicy(*at("d"), platform::NSFileProviderContentPolicy::downloadLazily);
  make("new").staysHere = true;
  tree().changedHere(*at("new"));
  const auto before = ready();
  restart();
  EXPECT_EQ(ready(), before);
  EXPECT_EQ(before.size(), 3U);
  EXPECT_THAT(names(), ElementsAre("a", "d", "moved", "new"));
}

class TreeRestoreTest : public TreeFixture {
 protected:
  static ItemRow row(ItemId id, ItemId folder, const std::string& name, bool isFolder = false) {
    ItemRow row;
    row.id = id;
    row.folder = folder;
    row.name = name;
    row.isFolder = isFolder;
    if (isFolder) row.listing = FolderRow{true, false, "anchor"};
    return row;
  }
  static ItemRow there(ItemRow row, const std::string& identifier) {
    row.there = ThereState{};
    row.there->identifier = identifier;
    row.there->folder = row.folder;
    row.there->name = row.name;
    return row;
  }
  static ItemRow edited(ItemRow row, ContentNumber number) {
    row.content = ContentRow{};
    row.content->state.number = number;
    row.content->state.edits = 1;
    return row;
  }
  void restore(const std::vector<ItemRow>& rows) {
    kestrune::host::restore(tree(), rows, 2);
    const TreeEffects told = tree().takeEffects();
    std::vector<ItemRow> mended;
    tree().forEach([&](Item& item) { mended.push_back(tree().row(item)); });
    for (const ItemRow& row : rows) {
      const Item* item = tree().find(row.id);
      const bool isTold = told.changed.contains(row.id) || told.forgotten.contains(row.id);
      if (!isTold) EXPECT_TRUE(item != nullptr && tree().row(*item) == row) << row.id;
    }
    doubtful_ = told.doubtful;
    tree_ = std::make_unique<Tree>(setting());
    kestrune::host::restore(tree(), mended, 2);
    tree().forEach([&](Item& item) { tree().changedHere(item); });
    check();
  }
  std::set<ItemId> doubtful_;
};

TEST_F(TreeRestoreTest, OfTwoWithOneNameOneIsPutWhereTheStoreHasIt) {
  restore({there(row(2, 1, "a"), "x"), there(row(3, 1, "a"), "y")});
  EXPECT_THAT(names(), ElementsAre("a", "a" + kConflict));
}

TEST_F(TreeRestoreTest, OfTwoWithOneNameAnEditIsKept) {
  restore({there(row(2, 1, "a"), "x"), edited(row(3, 1, "a"), 8)});
  EXPECT_THAT(names(), ElementsAre("a", "a" + kConflict));
}

TEST_F(TreeRestoreTest, CirclesAreCutAndEditsInThemSurvive) {
  restore({row(2, 3, "d", true), row(3, 2, "e", true), edited(row(4, 3, "f"), 8)});
  EXPECT_THAT(names(), ElementsAre("f"));
  EXPECT_EQ(tree().count(), 2U);
}

TEST_F(TreeRestoreTest, WhoseFolderIsMissingIsNotRemovedThere) {
  restore({there(row(2, 9, "a"), "x"), edited(there(row(3, 9, "b"), "y"), 8)});
  EXPECT_THAT(names(), ElementsAre("b"));
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::create, 3, {1, "b"}}));
}

TEST_F(TreeRestoreTest, AMissingPlaceHereIsTheOneThere) {
  ItemRow lost = there(row(2, 1, "a"), "x");
  lost.folder = 9;
  restore({lost});
  EXPECT_THAT(names(), ElementsAre("a"));
  EXPECT_THAT(ready(), IsEmpty());
}

class TreeLostEditTest : public TreeFixture {
 protected:
  Item& lost(const std::string& path, const std::string& base, int contents = 7) {
    ContentState state;
    state.number = ++lastNumber_;
    state.version = base;
    state.sizeBytes = contents;
    state.present.add({0, contents});
    state.edits = 1;
    state.isEdited = true;
    Item& item = tree().restoreEdit(path, true, state, base);
    check();
    return item;
  }
};

TEST_F(TreeLostEditTest, ChangesOfTheVersionThatTheStoreHasAreSentToIt) {
  const Item& a = lost("/d/a", "v5");
  const ItemId id = a.id;
  list({folder("1", "d")});
  Item& d = *at("d");
  list(d, {file("2", "a", 5)});
  EXPECT_THAT(names(d), ElementsAre("a"));
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::send, id, {}}));
  EXPECT_EQ(tree().find(id)->content()->base, tree().find(id)->there->version.contentVersion);
  EXPECT_TRUE(tree().find(id)->isExecutable);
}

TEST_F(TreeLostEditTest, ChangesOfAnotherVersionAreKeptBesideIt) {
  const ItemId id = lost("/a", "v5").id;
  list({file("1", "a", 6)});
  EXPECT_THAT(names(), ElementsAre("a", "a" + kConflict));
  EXPECT_EQ(tree().find(id)->name(), "a" + kConflict);
}

TEST_F(TreeLostEditTest, WhatWasMadeHereIsMadeThereWithItsFolders) {
  const ItemId id = lost("/d/e/a", "").id;
  const ItemId other = lost("/d/e/b", "").id;
  list({});
  const Item& folder = *tree().find(id)->folder;
  EXPECT_EQ(tree().find(other)->folder, &folder);
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::create, folder.folder->id, {1, "d"}}));
}

TEST_F(TreeLostEditTest, NamesThatAreTakenOrNoneAreNoHindrance) {
  lost("/a", "");
  lost("/a", "");
  lost("/a/b", "");
  lost("/../c", "");
  lost("/", "");
  EXPECT_THAT(names(),
              testing::UnorderedElementsAre("a", "a" + kConflict,
                                            testing::StartsWith("a (conflict"), "c", "restored"));
}

TEST_F(TreeRestoreTest, FoldersThatAreThereInCirclesAreNot) {
  ItemRow d = there(row(2, 1, "d", true), "x");
  ItemRow e = there(row(3, 1, "e", true), "y");
  d.there->folder = 3;
  e.there->folder = 2;
  restore({d, e, there(row(4, 2, "f"), "z")});
  EXPECT_THAT(names(), ElementsAre("d", "e"));
  EXPECT_FALSE(tree().find(2)->there);
  EXPECT_EQ(tree().find(4), nullptr);
  EXPECT_TRUE(doubtful_.contains(2));
  EXPECT_FALSE(tree().find(2)->part()->listing.anchor);
}

TEST_F(TreeRestoreTest, WhatWasRemovedIsRemovedThereOrForgotten) {
  ItemRow removed = there(row(2, 1, "a"), "x");
  removed.isLinked = false;
  ItemRow gone = row(3, 1, "b");
  gone.isLinked = false;
  restore({removed, gone});
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::remove, 2, {}}));
  EXPECT_EQ(tree().find(3), nullptr);
}

TEST_F(TreeRestoreTest, ABadNameHidesNoEdit) {
  restore({edited(row(2, 1, "a/b"), 8)});
  EXPECT_THAT(names(), ElementsAre("restored"));
}

}  // namespace
}  // namespace kestrune::host
