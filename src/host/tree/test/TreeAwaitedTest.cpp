// Changes whose answers did not come, also because the host was ended: where they may have put an item is remembered until the
// store has told.
#include "host/tree/test/TreeFixture.h"

namespace kestrune::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Kind = Change::Kind;

class TreeAwaitedTest : public TreeFixture {
 protected:
  TreeAwaitedTest() { list({}); }

  /// A new file of which nobody knows whether it reached the store as "a".
  Item& makeWithoutAnswer() {
    Item& a = make("a", 5);
    tree().beginSending(a, 5, 1, Place{kRootItem, "a"});
    return a;
  }
  /// What the store shows of it.
  ItemRecord arrived(const std::string& name, int contents) const {
    ItemRecord record = file("1", name, contents);
    record.modified = now_;
    return record;
  }
  /// The same of a file that was "a" there, and was moved to "b".
  Item& moveWithoutAnswer() {
    list({file("1", "a", 5)});
    Item& a = *at("a");
    fill(a, 5);
    tree().move(a, root(), "b");
    tree().beginChange(a, Place{kRootItem, "b"});
    return a;
  }
};

TEST_F(TreeAwaitedTest, WhatWasRemovedHereIsRemovedThereWhenItArrivedAfterAll) {
  const ItemId id = makeWithoutAnswer().id;
  tree().remove(*tree().find(id));
  restart();
  EXPECT_TRUE(effects_.doubtful.contains(kRootItem) || !root().part()->listing.anchor);
  ASSERT_NE(tree().find(id), nullptr);
  EXPECT_TRUE(tree().differing().contains(id));
  list({arrived("a", 5)});
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(ready(), ElementsAre(Change{Kind::remove, id, {}}));
}

TEST_F(TreeAwaitedTest, WhatWasRenamedHereIsMovedThereWhenItArrivedAfterAll) {
  const ItemId id = makeWithoutAnswer().id;
  tree().move(*tree().find(id), root(), "b");
  restart();
  list({arrived("a", 5)});
  EXPECT_THAT(names(), ElementsAre("b"));
  EXPECT_FALSE(tree().find(id)->isEdited());
  EXPECT_THAT(ready(), ElementsAre(Change{Kind::move, id, {kRootItem, "b"}}));
}

TEST_F(TreeAwaitedTest, WhatDidNotArriveIsMadeAgain) {
  const ItemId id = makeWithoutAnswer().id;
  restart();
  list({});
  EXPECT_THAT(ready(), ElementsAre(Change{Kind::create, id, {kRootItem, "a"}}));
  EXPECT_EQ(tree().find(id)->awaited(), nullptr);
}

TEST_F(TreeAwaitedTest, WhatDidNotArriveAndIsRemovedHereIsForgotten) {
  const ItemId id = makeWithoutAnswer().id;
  tree().remove(*tree().find(id));
  restart();
  list({});
  EXPECT_EQ(tree().find(id), nullptr);
  EXPECT_THAT(ready(), IsEmpty());
}

TEST_F(TreeAwaitedTest, WhatOthersPutThereIsTheirs) {
  const ItemId id = makeWithoutAnswer().id;
  tree().remove(*tree().find(id));
  restart();
  list({arrived("a", 6)});
  EXPECT_EQ(tree().find(id), nullptr);
  EXPECT_EQ(at("a")->sizeBytes, 6);
}

TEST_F(TreeAwaitedTest, TheSameAsBeforeIsNotWhatWasSentAfterIt) {
  list({arrived("a", 5)});
  Item& a = *at("a");
  fill(a, 5, 1);
  tree().beginSending(a, 5, 1);
  const ItemId id = a.id;
  restart();
  list({arrived("a", 5)});
  EXPECT_TRUE(tree().find(id)->isEdited());
  EXPECT_THAT(ready(), ElementsAre(Change{Kind::send, id, {}}));
}

TEST_F(TreeAwaitedTest, AFolderIsFoundToo) {
  Item& d = tree().create(root(), "d", true, false);
  tree().beginChange(d, Place{kRootItem, "d"});
  const ItemId id = d.id;
  tree().move(d, root(), "e");
  restart();
  list({folder("1", "d")});
  EXPECT_THAT(names(), ElementsAre("e"));
  EXPECT_THAT(ready(), ElementsAre(Change{Kind::move, id, {kRootItem, "e"}}));
  EXPECT_FALSE(tree().find(id)->part()->listing.anchor);
}

TEST_F(TreeAwaitedTest, AnAnswerFromBeforeTheEndOfTheChangeTellsNothing) {
  Item& a = makeWithoutAnswer();
  const std::uint64_t before = tree().moment();
  tree().endChange(a);
  tree().applyListing(root(), {}, "anchor", before);
  check();
  EXPECT_NE(a.awaited(), nullptr);
  EXPECT_TRUE(effects_.doubtful.contains(kRootItem));
  EXPECT_FALSE(root().part()->listing.anchor);
}

TEST_F(TreeAwaitedTest, ItsPlaceIsNobodyElsesMeanwhile) {
  Item& a = makeWithoutAnswer();
  tree().remove(a);
  make("a", 7);
  tree().endChange(a);
  check();
  EXPECT_EQ(tree().claimant({kRootItem, "a"}), &a);
  for (const Change& change : ready()) EXPECT_NE(change.kind, Kind::create);
}

TEST_F(TreeAwaitedTest, AMoveThatWasTakenBackHereIsTakenBackThere) {
  const ItemId id = moveWithoutAnswer().id;
  tree().move(*tree().find(id), root(), "a");
  restart();
  list({file("1", "b", 5)});
  EXPECT_THAT(names(), ElementsAre("a"));
  EXPECT_THAT(ready(), ElementsAre(Change{Kind::move, id, {kRootItem, "a"}}));
}

TEST_F(TreeAwaitedTest, AMovedFileOfAnotherIdentifierIsRemovedWhereItIs) {
  const ItemId id = moveWithoutAnswer().id;
  tree().remove(*tree().find(id));
  restart();
  list({file("/b", "b", 5)});
  EXPECT_THAT(names(), IsEmpty());
  ASSERT_NE(tree().find(id), nullptr);
  EXPECT_EQ(tree().find(id)->there->name, "b");
  EXPECT_THAT(ready(), ElementsAre(Change{Kind::remove, id, {}}));
}

TEST_F(TreeAwaitedTest, WhatMayHaveMovedToAnotherFolderIsNotGoneUntilThatOneTold) {
  list({file("1", "a", 5), folder("2", "d")});
  list(*at("d"), {});
  Item& a = *at("a");
  Item& d = *at("d");
  fill(a, 5);
  tree().move(a, d, "a");
  tree().beginChange(a, Place{d.id, "a"});
  tree().endChange(a);
  list({folder("2", "d")});
  EXPECT_TRUE(a.there);
  EXPECT_TRUE(effects_.doubtful.contains(kRootItem));
  list(d, {file("/d/a", "a", 5)});
  EXPECT_EQ(a.there->identifier, "/d/a");
  EXPECT_THAT(ready(), IsEmpty());
}

TEST_F(TreeAwaitedTest, WhatLeftTheStoreIsNotBroughtBackByAnAnswerFromBefore) {
  list({file("1", "a", 5)});
  Item& a = *at("a");
  tree().remove(a);
  tree().beginChange(a);
  const std::uint64_t before = tree().moment();
  tree().removedThere(a);
  tree().endChange(a);
  check();
  tree().applyListing(root(), {file("1", "a", 5), file("2", "b")}, "anchor", before);
  check();
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_TRUE(effects_.doubtful.contains(kRootItem));
  list({file("2", "b")});
  EXPECT_THAT(names(), ElementsAre("b"));
}

}  // namespace
}  // namespace kestrune::host
