// What the store says, and what is pending here meanwhile.
#include "host/tree/test/TreeFixture.h"

namespace kestrune::host {
namespace {

using ChangeKind = Change::Kind;
using testing::ElementsAre;
using testing::IsEmpty;

class TreeIncomingTest : public TreeFixture {};

TEST_F(TreeIncomingTest, LaterListingsBringWhatChanged) {
  list({file("1", "a", 3), file("2", "b"), folder("3", "d")});
  Item& a = *at("a");
  fill(a, 3);
  a.node = 7;
  list({file("1", "a", 4), file("4", "c"), folder("3", "d")});
  EXPECT_THAT(names(), ElementsAre("a", "c", "d"));
  EXPECT_EQ(a.content(), nullptr);
  EXPECT_EQ(a.sizeBytes, 4);
  EXPECT_EQ(a.modified().seconds, 100);
  EXPECT_EQ(a.node, 0U);
  EXPECT_THAT(ready(), IsEmpty());
}

TEST_F(TreeIncomingTest, AReplacedVersionIsDetachedAndItsContentsGo) {
  list({file("1", "a", 3)});
  fill(*at("a"), 3);
  at("a")->node = 7;
  tree().applyListing(root(), {file("1", "a", 4)}, {}, tree().moment());
  check();
  ASSERT_EQ(effects_.detached.size(), 1U);
  EXPECT_EQ(effects_.detached[0].node, 7U);
  EXPECT_EQ(effects_.detached[0].sizeBytes, 3);
  EXPECT_THAT(effects_.dropped, ElementsAre(1));
}

TEST_F(TreeIncomingTest, AnObjectWithoutContentsGoesOnWithTheNewVersion) {
  list({file("1", "a", 3)});
  Item& a = *at("a");
  const auto object =
      std::make_shared<FileObject>(std::make_shared<FileObjectServices>(), a.id, ContentState{});
  a.setObject(object);
  a.node = 7;
  tree().applyListing(root(), {file("1", "a", 4)}, {}, tree().moment());
  const TreeEffects effects = tree().takeEffects();
  EXPECT_EQ(a.object(), object);
  EXPECT_THAT(effects.abandoned, IsEmpty());
  EXPECT_EQ(a.node, 7U);
  EXPECT_THAT(effects.detached, IsEmpty());
  EXPECT_EQ(a.sizeBytes, 4);
  EXPECT_TRUE(std::any_of(effects.cache.begin(), effects.cache.end(), [](const auto& update) {
    return update.kind == CacheUpdate::Kind::attributes && update.node == 7;
  }));
  tree().changedHere(a);
  tree().changedHere(root());
}

TEST_F(TreeIncomingTest, AnObjectWithContentsOfTheOldVersionIsAbandoned) {
  list({file("1", "a", 3)});
  Item& a = *at("a");
  fill(a, 3);
  const auto object =
      std::make_shared<FileObject>(std::make_shared<FileObjectServices>(), a.id, ContentState{});
  a.setObject(object);
  a.node = 7;
  tree().applyListing(root(), {file("1", "a", 4)}, {}, tree().moment());
  const TreeEffects effects = tree().takeEffects();
  EXPECT_EQ(a.object(), nullptr);
  EXPECT_THAT(effects.abandoned, ElementsAre(object));
  ASSERT_EQ(effects.detached.size(), 1U);
  EXPECT_EQ(effects.detached[0].object, object);
  EXPECT_EQ(a.node, 0U);
  tree().changedHere(a);
  tree().changedHere(root());
}

TEST_F(TreeIncomingTest, WhatIsReportedAsUpdatedAndIsTheSameKeepsItsContents) {
  list({file("1", "a", 3), folder("2", "d")});
  fill(*at("a"), 3);
  Item* a = at("a");
  change({update(file("1", "a", 3)), update(folder("2", "d")), deletion("unknown")});
  EXPECT_EQ(at("a"), a);
  EXPECT_TRUE(a->isWhole());
  EXPECT_EQ(root().part()->listing.anchor, "next");
  change({deletion("1"), update(file("3", "c"))});
  EXPECT_THAT(names(), ElementsAre("c", "d"));
}

TEST_F(TreeIncomingTest, OfManyReportsOfOneItemTheLastCounts) {
  list({file("1", "a"), file("2", "b")});
  change({update(file("1", "x")), update(file("1", "y")), update(file("2", "z")), deletion("2"),
          deletion("3"), update(file("3", "c"))});
  EXPECT_THAT(names(), ElementsAre("c", "y"));
}

TEST_F(TreeIncomingTest, AMoveWithinAndAcrossFoldersKeepsTheItem) {
  list({file("1", "a", 3), folder("2", "d")});
  Item& a = *at("a");
  fill(a, 3);
  change({update(file("1", "b", 3))});
  EXPECT_EQ(at("b"), &a);
  list(*at("d"), {file("1", "c", 3)});
  EXPECT_EQ(tree().child(*at("d"), "c"), &a);
  change({deletion("1")});  // as the folder reports that it left
  EXPECT_EQ(tree().child(*at("d"), "c"), &a);
  EXPECT_TRUE(a.isWhole());
  EXPECT_THAT(ready(), IsEmpty());
}

TEST_F(TreeIncomingTest, AMoveHereWinsAgainstOneThere) {
  list({file("1", "a"), file("2", "b")});
  Item& a = *at("a");
  tree().move(a, root(), "mine");
  tree().remove(*at("b"));
  list({file("1", "theirs"), file("2", "c")});
  EXPECT_THAT(names(), ElementsAre("mine"));
  EXPECT_EQ(a.there->name, "theirs");
  EXPECT_EQ(ready().size(), 2U);
}

TEST_F(TreeIncomingTest, AFolderWithAnotherIdentifierIsListedAnew) {
  list({folder("1", "d")});
  Item& d = *at("d");
  list(d, {file("2", "a")});
  list({folder("3", "d")});
  EXPECT_EQ(at("d"), &d);
  EXPECT_FALSE(d.part()->listing.anchor);
  EXPECT_FALSE(tree().isSure(*tree().child(d, "a")));
  EXPECT_TRUE(effects_.doubtful.contains(d.id));
}

TEST_F(TreeIncomingTest, NamesThatWereSwappedAreSwappedHere) {
  list({file("1", "a", 3), file("2", "b", 4)});
  Item* a = at("a");
  Item* b = at("b");
  fill(*a, 3);
  list({file("1", "b", 3), file("2", "a", 4)});
  EXPECT_EQ(at("b"), a);
  EXPECT_EQ(at("a"), b);
  change({update(file("1", "a", 3)), update(file("2", "b", 4))});
  EXPECT_EQ(at("a"), a);
  EXPECT_TRUE(a->isWhole());
  EXPECT_THAT(ready(), IsEmpty());
}

TEST_F(TreeIncomingTest, ANewItemInTheNameOfOneThatMovedDoesNotTakeItAway) {
  list({file("1", "a", 3)});
  Item* a = at("a");
  fill(*a, 3);
  list({file("2", "a", 4), file("1", "b", 3)});
  EXPECT_EQ(at("b"), a);
  EXPECT_TRUE(a->isWhole());
  list({folder("4", "b"), file("1", "c", 3), file("2", "a", 4)});
  EXPECT_EQ(at("c"), a);
  EXPECT_TRUE(at("b")->isFolder);
}

TEST_F(TreeIncomingTest, AFileThatBecomesAFolderIsAnotherItem) {
  list({file("1", "a")});
  const ItemId id = at("a")->id;
  list({folder("1", "a")});
  EXPECT_TRUE(at("a")->isFolder);
  EXPECT_NE(at("a")->id, id);
  tree().applyItem(*at("a"), file("1", "a"), tree().moment());
  EXPECT_TRUE(check().doubtful.contains(kRootItem));
  EXPECT_EQ(at("a"), nullptr);
}

TEST_F(TreeIncomingTest, WhatContradictsItselfIsLeftOutAndCounted) {
  ItemRecord elsewhere = file("6", "e");
  elsewhere.parentIdentifier = "other";
  tree().applyListing(root(),
                      {file("1", "a"), file("2", "a"), file("1", "b"), file("3", "x/y"),
                       file("4", ""), file("5", ".."), elsewhere, folder("root", "r")},
                      {}, tree().moment());
  TreeEffects effects = tree().takeEffects();
  EXPECT_EQ(effects.leftOut, 7U);
  EXPECT_EQ(effects.firstLeftOut, "'a': another item has its name");
  EXPECT_THAT(names(), ElementsAre("a"));
  EXPECT_EQ(at("a")->there->identifier, "1");
  tree_ = std::make_unique<Tree>(setting());
}

TEST_F(TreeIncomingTest, WhoseNewNameCanNotBeShownIsFoundOutByAListing) {
  list({file("1", "a")});
  change({update(file("1", "a/b"))});
  EXPECT_TRUE(effects_.doubtful.contains(kRootItem));
  EXPECT_FALSE(root().part()->listing.anchor);
  EXPECT_NE(at("a"), nullptr);
  list({file("1", "a/b")});
  EXPECT_EQ(at("a"), nullptr);
}

TEST_F(TreeIncomingTest, WhoeverHadAnIdentifierBeforeIsAskedForAgain) {
  list({folder("d", "d")});
  Item& d = *at("d");
  list(d, {file("1", "a")});
  Item& a = *tree().child(d, "a");
  list({folder("d", "d"), folder("1", "x")});
  EXPECT_EQ(tree().byIdentifier("1"), at("x"));
  EXPECT_FALSE(tree().isSure(a));
  EXPECT_TRUE(effects_.doubtful.contains(d.id));
  EXPECT_FALSE(d.part()->listing.anchor);
  list(d, {});
  EXPECT_THAT(names(d), IsEmpty());
  EXPECT_EQ(tree().byIdentifier("1"), at("x"));
}

// ------------------------------------------------------------------------------------------- old answers

TEST_F(TreeIncomingTest, AListingFromBeforeTheItemItselfWasAskedChangesNothing) {
  list({file("1", "a", 5)});
  const std::uint64_t before = tree().moment();
  tree().applyItem(*at("a"), file("1", "a", 6), tree().moment());
  check();
  tree().remove(*at("a"));
  tree().applyListing(root(), {file("1", "a", 5)}, "anchor", before);
  check();
  EXPECT_THAT(names(), testing::IsEmpty());
  EXPECT_TRUE(effects_.doubtful.contains(kRootItem));
}

TEST_F(TreeIncomingTest, AnAnswerFromBeforeASendingChangesNothing) {
  list({file("1", "a", 3)});
  fill(*at("a"), 5, 1);
  const std::uint64_t asOf = tree().moment();
  send(*at("a"), file("1", "a", 5));
  tree().applyChanges(root(), {update(file("1", "a", 3))}, "stale", asOf);
  EXPECT_TRUE(check().doubtful.contains(kRootItem));
  EXPECT_EQ(root().part()->listing.anchor, "anchor");
  tree().applyListing(root(), {}, "stale", asOf);
  EXPECT_TRUE(check().doubtful.contains(kRootItem));
  EXPECT_NE(at("a"), nullptr);
  EXPECT_FALSE(root().part()->listing.anchor);
  tree().applyItem(*at("a"), file("1", "a", 4), asOf);
  tree().applyItem(*at("a"), std::nullopt, asOf);
  ASSERT_NE(at("a"), nullptr);
  EXPECT_TRUE(at("a")->isWhole());
}

TEST_F(TreeIncomingTest, WhatIsUnderWayIsNotBelievedGone) {
  list({folder("1", "d")});
  Item& d = *at("d");
  list(d, {file("2", "a")});
  Item& a = *tree().child(d, "a");
  tree().beginChange(a);
  list({});
  EXPECT_TRUE(effects_.doubtful.contains(kRootItem));
  EXPECT_EQ(at("d"), &d);
  tree().endChange(a);
  list({});
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(TreeIncomingTest, WhatAListingMissesIsNotGoneWhenSomethingLeftTheFolderMeanwhile) {
  list({file("1", "a"), file("2", "b")});
  Item& a = *at("a");
  tree().remove(a);
  tree().beginChange(a);
  const std::uint64_t asOf = tree().moment();
  tree().removedThere(a);
  tree().endChange(a);
  check();
  // Its pages are counted by items: "b" was on the second one until "a" went.
  tree().applyListing(root(), {}, "anchor", asOf);
  EXPECT_TRUE(check().doubtful.contains(kRootItem));
  EXPECT_FALSE(root().part()->listing.anchor);
  EXPECT_THAT(names(), ElementsAre("b"));
  list({});
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(TreeIncomingTest, NorWhenItMayHaveLeftAtAnyTime) {
  list({file("1", "a"), file("2", "b"), file("3", "c")});
  Item& a = *at("a");
  tree().move(a, root(), "d");
  tree().beginChange(a, Place{kRootItem, "d"});
  list({file("1", "a"), file("3", "c")});
  EXPECT_THAT(names(), ElementsAre("b", "c", "d"));
  const std::uint64_t asOf = tree().moment();
  tree().endChange(a);  // without an answer
  check();
  tree().applyListing(root(), {file("1", "a"), file("3", "c")}, "anchor", asOf);
  check();
  EXPECT_THAT(names(), ElementsAre("b", "c", "d"));
  list({file("1", "a"), file("3", "c")});
  EXPECT_THAT(names(), ElementsAre("c", "d"));
}

TEST_F(TreeIncomingTest, AListingFromBeforeItsFolderMovedChangesNothing) {
  list({folder("/d", "d"), folder("/e", "e")});
  Item& d = *at("d");
  list(d, {file("/d/a", "a")});
  const std::uint64_t asOf = tree().moment();
  tree().move(d, *at("e"), "d");
  tree().moved(d, {at("e")->id, "d"}, folder("/e/d", "d"));
  tree().applyListing(d, {}, "stale", asOf);
  EXPECT_TRUE(check().doubtful.contains(d.id));
  EXPECT_EQ(d.part()->children.size(), 1U);
}

TEST_F(TreeIncomingTest, WhatGoesWhileItsAnswerIsOnTheWayIsAskedFor) {
  list({});
  Item& a = make("a");
  tree().beginSending(a, 5, 1);
  change({deletion("1")});
  tree().created(a, {kRootItem, "a"}, file("1", "a", 5), 1, now_);
  tree().endChange(a);
  EXPECT_TRUE(check().doubtful.contains(kRootItem));
  EXPECT_FALSE(root().part()->listing.anchor);
}

TEST_F(TreeIncomingTest, WhatWasShownAndGoesWhileItsAnswerIsOnTheWayIsAskedForToo) {
  list({});
  Item& d = tree().create(root(), "d", true, false);
  tree().beginChange(d);
  tree().move(d, root(), "moved");
  change({update(folder("1", "d"))});
  change({deletion("1")});
  EXPECT_THAT(names(), ElementsAre("moved"));
  tree().created(d, {kRootItem, "d"}, folder("1", "d"), 0, now_);
  tree().endChange(d);
  EXPECT_TRUE(check().doubtful.contains(kRootItem));
  EXPECT_FALSE(root().part()->listing.anchor);
}

TEST_F(TreeIncomingTest, AListingWhileAnAnswerIsOnTheWayIsRepeated) {
  list({});
  Item& a = make("a");
  tree().beginSending(a, 5, 1);
  list({});  // before it was there, or after it was gone again
  tree().created(a, {kRootItem, "a"}, file("1", "a", 5), 1, now_);
  tree().endChange(a);
  EXPECT_TRUE(check().doubtful.contains(kRootItem));
  EXPECT_FALSE(root().part()->listing.anchor);
}

TEST_F(TreeIncomingTest, WhatMovedOutOfAFolderThatIsGoneStays) {
  list({folder("d", "d")});
  list(*at("d"), {file("1", "a", 3)});
  Item* a = tree().byIdentifier("1");
  fill(*a, 3);
  list({file("1", "a", 3)});
  EXPECT_EQ(at("a"), a);
  EXPECT_TRUE(a->isWhole());
  EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(TreeIncomingTest, AnItemThatWasSeenBeforeItsAnswerCameIsOne) {
  list({});
  Item& a = make("a");
  tree().beginSending(a, 5, 1);
  list({file("1", "renamed", 5)});
  tree().created(a, {kRootItem, "a"}, file("1", "a", 5), 1, now_);
  tree().endChange(a);
  check();
  EXPECT_THAT(names(), ElementsAre("a"));
  list({file("1", "renamed", 5)});
  EXPECT_EQ(at("renamed"), &a);
}

TEST_F(TreeIncomingTest, WhatWasChangedBeforeTheAnswerOfItsCreationCameIsNotTheCreation) {
  list({});
  Item& made = make("a", 5);
  tree().beginSending(made, 5, 1);
  tree().move(made, root(), "b");
  list({file("1", "c", 5)});  // the creation, renamed by others: nobody knows it
  Item& shown = *at("c");
  fill(shown, 6, 1);
  send(shown, file("1", "c", 6));
  tree().created(made, {kRootItem, "a"}, file("1", "a", 5), 1, now_);
  tree().endChange(made);
  check();
  EXPECT_EQ(tree().byIdentifier("1"), &shown);
  EXPECT_EQ(made.content()->sendingSince, 0);
  EXPECT_THAT(ready(), ElementsAre(Change{Change::Kind::create, made.id, {kRootItem, "b"}}));
  list({file("1", "c", 6)});
  EXPECT_EQ(at("c"), &shown);
  EXPECT_EQ(made.sizeBytes, 5);
}

TEST_F(TreeIncomingTest, WhatIsBeingChangedWhenTheAnswerOfItsCreationComesIsNotTheCreation) {
  list({});
  Item& made = make("a", 5);
  tree().beginSending(made, 5, 1);
  tree().move(made, root(), "b");
  list({file("1", "c", 5)});
  Item& shown = *at("c");
  fill(shown, 6, 1);
  tree().beginSending(shown, 6, 1);
  tree().created(made, {kRootItem, "a"}, file("1", "a", 5), 1, now_);
  tree().endChange(made);
  check();
  EXPECT_EQ(tree().byIdentifier("1"), &shown);
  EXPECT_FALSE(made.there);
}

// ------------------------------------------------------------------------------------------- identifiers that are paths

class TreePathsTest : public TreeFixture {
 protected:
  TreePathsTest() {
    list({folder("/d", "d")});
    d_ = at("d");
    list(*d_, {folder("/d/e", "e"), file("/d/a", "a", 3)});
    e_ = tree().child(*d_, "e");
    a_ = tree().child(*d_, "a");
    list(*e_, {file("/d/e/b", "b", 4)});
    b_ = tree().child(*e_, "b");
    fill(*a_, 3);
    fill(*b_, 8, 1);
    tree().move(*d_, root(), "x");
    tree().beginChange(*d_);
    tree().moved(*d_, {kRootItem, "x"}, folder("/x", "x"));
    tree().endChange(*d_);
    check();
  }
  Item *d_, *e_, *a_, *b_;
};

TEST_F(TreePathsTest, ARenamedFolderMakesAllThatIsInItUnsure) {
  EXPECT_THAT(effects_.doubtful, ElementsAre(d_->id, e_->id));
  EXPECT_TRUE(tree().isSure(*d_));
  for (const Item* item : {e_, a_, b_}) EXPECT_FALSE(tree().isSure(*item));
  EXPECT_EQ(tree().byIdentifier("/d/a"), nullptr);
  EXPECT_FALSE(e_->part()->listing.anchor);
  tree().applyItem(*a_, std::nullopt, tree().moment());
  EXPECT_TRUE(check().doubtful.contains(d_->id));
  EXPECT_TRUE(a_->isWhole());
  restart();
  EXPECT_EQ(tree().byIdentifier("/d/a"), nullptr);
  EXPECT_TRUE(tree().isSure(*at("x")));
}

TEST_F(TreePathsTest, ListingsMatchByNamesFromTheTopDown) {
  list(*e_, {file("/x/e/b", "b", 4)});  // too early
  EXPECT_TRUE(effects_.doubtful.contains(e_->id));
  list(*d_, {folder("/x/e", "e"), file("/x/a", "a", 3)});
  EXPECT_EQ(tree().byIdentifier("/x/a"), a_);
  EXPECT_TRUE(a_->isWhole());
  EXPECT_FALSE(d_->part()->listing.hasStaleIdentifiers);
  list(*e_, {file("/x/e/b", "b", 4)});
  EXPECT_EQ(tree().byIdentifier("/x/e/b"), b_);
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::send, b_->id, {}}));
  EXPECT_EQ(b_->content()->base, "v4");
}

TEST_F(TreePathsTest, OnlyAListingTellsWhoIsWho) {
  tree().applyChanges(*d_, {update(file("/x/new", "new"))}, "next", tree().moment());
  EXPECT_TRUE(check().doubtful.contains(d_->id));
  EXPECT_THAT(names(*d_), ElementsAre("a", "e"));
  EXPECT_FALSE(d_->part()->listing.anchor);
}

TEST_F(TreePathsTest, WhatComesToTheOldPathIsAnother) {
  list({folder("/x", "x"), folder("/d", "d")});
  EXPECT_NE(at("d"), d_);
  list(*at("d"), {file("/d/a", "a", 9)});
  EXPECT_NE(tree().child(*at("d"), "a"), a_);
  EXPECT_TRUE(a_->isWhole());
}

TEST_F(TreePathsTest, WhileSomethingIsUnderWayNamesTellNothing) {
  tree().beginChange(*a_);
  list(*d_, {});
  EXPECT_TRUE(d_->part()->listing.hasStaleIdentifiers);
  EXPECT_EQ(tree().child(*d_, "a"), a_);
  tree().endChange(*a_);
}

TEST_F(TreePathsTest, AMoveWhoseAnswerWasLostIsRecognised) {
  list({folder("/x", "x"), file("/a", "a", 3)});
  Item* a = at("a");
  fill(*a, 3);
  tree().move(*a, root(), "b");
  list({folder("/x", "x"), file("/b", "b", 3)});
  EXPECT_EQ(at("b"), a);
  EXPECT_TRUE(a->isWhole());
  EXPECT_EQ(a->there->identifier, "/b");
}

TEST_F(TreeIncomingTest, AFolderThatKeepsItsIdentifierLeavesThoseInItSure) {
  list({folder("1", "d")});
  list(*at("d"), {file("2", "a")});
  tree().move(*at("d"), root(), "x");
  tree().moved(*at("x"), {kRootItem, "x"}, folder("1", "x"));
  EXPECT_TRUE(tree().isSure(*tree().byIdentifier("2")));
  EXPECT_EQ(at("x")->part()->listing.anchor, "anchor");
}

}  // namespace
}  // namespace kestrune::host
