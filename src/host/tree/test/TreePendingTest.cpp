// Changes that wait here while the store changes too, and sendings whose end is unknown.
#include "host/tree/test/TreeFixture.h"

namespace kestrune::host {
namespace {

using ChangeKind = Change::Kind;
using testing::ElementsAre;
using testing::IsEmpty;

class TreePendingTest : public TreeFixture {};

TEST_F(TreePendingTest, BothChangedBothAreKept) {
  list({file("1", "a.txt", 3)});
  Item& item = *at("a.txt");
  fill(item, 5, 1);
  list({file("1", "a.txt", 4)});
  EXPECT_TRUE(item.isEdited());
  EXPECT_EQ(item.content()->base, "v3");
  EXPECT_EQ(item.there->version.contentVersion, "v4");
  Item& stored = tree().keepBoth(item);
  check();
  EXPECT_EQ(item.name(), "a" + kConflict + ".txt");
  EXPECT_EQ(at("a.txt"), &stored);
  EXPECT_EQ(stored.there->identifier, "1");
  EXPECT_EQ(stored.sizeBytes, 4);
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::create, item.id, {1, item.name()}}));
}

TEST_F(TreePendingTest, BothAreKeptOfAFileThatWasMovedOutOfARemovedFolder) {
  list({folder("1", "d")});
  Item& d = *at("d");
  list(d, {file("2", "a", 3)});
  Item& a = *tree().child(d, "a");
  fill(a, 5, 1);
  tree().move(a, root(), "b");
  tree().remove(d);
  Item& stored = tree().keepBoth(a);
  check();
  EXPECT_EQ(at("b"), &a);
  EXPECT_EQ(at("d"), &d);
  EXPECT_EQ(tree().child(d, "a"), &stored);
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::create, a.id, {1, "b"}}));
}

TEST_F(TreePendingTest, WhoRemovesWhatBothChangedRemovesOnlyWhatIsHere) {
  list({file("1", "a", 3)});
  Item& item = *at("a");
  fill(item, 5, 1);
  list({file("1", "a", 4)});
  tree().remove(item);
  check();
  ASSERT_NE(at("a"), nullptr);
  EXPECT_NE(at("a"), &item);
  EXPECT_EQ(at("a")->sizeBytes, 4);
  EXPECT_EQ(at("a")->there->identifier, "1");
  EXPECT_THAT(ready(), IsEmpty());
}

TEST_F(TreePendingTest, SoDoesWhoRemovesItWhileAChangeOfItIsOnItsWay) {
  list({file("1", "a", 3)});
  Item& item = *at("a");
  fill(item, 5, 1);
  list({file("1", "a", 4)});
  tree().beginChange(item);
  tree().remove(item);
  tree().endChange(item);
  check();
  ASSERT_NE(at("a"), nullptr);
  EXPECT_EQ(at("a")->sizeBytes, 4);
  EXPECT_EQ(at("a")->there->identifier, "1");
  EXPECT_THAT(ready(), IsEmpty());
}

TEST_F(TreePendingTest, SoDoesWhoReplacesIt) {
  list({file("1", "a", 3), folder("2", "b")});
  Item& item = *at("a");
  fill(item, 5, 1);
  list({file("1", "a", 4), folder("2", "b")});
  tree().move(item, *at("b"), "c");
  Item& other = make("other");
  tree().move(other, *at("b"), "c");
  check();
  ASSERT_NE(at("a"), nullptr);
  EXPECT_EQ(at("a")->sizeBytes, 4);
  EXPECT_EQ(tree().child(*at("b"), "c"), &other);
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::create, other.id, {at("b")->id, "c"}}));
}

TEST_F(TreePendingTest, SoDoesWhoMovesItOverAnother) {
  list({file("2", "b", 3)});
  Item& item = make("a");
  ItemRecord sent = file("1", "a", 5);
  sent.modified = now_;
  send(item, sent);
  list({sent, file("2", "b", 3)});
  fill(item, 6, 2);
  list({file("1", "a", 4), file("2", "b", 3)});
  tree().move(item, root(), "b");
  check();
  ASSERT_NE(at("a"), nullptr);
  EXPECT_EQ(at("a")->sizeBytes, 4);
  EXPECT_EQ(at("b"), &item);
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::send, item.id, {}}));
}

TEST_F(TreePendingTest, WhatWasThereBeforeASendingIsNotTakenForWhatItBrought) {
  list({file("1", "a", 3)});
  Item& item = *at("a");
  fill(item, 5, 1);
  ItemRecord first = file("1", "a", 5);
  first.modified = now_;
  send(item, first);
  list({first});
  fill(item, 5, 2);
  tree().beginSending(item, 5, 2);
  tree().endChange(item);  // with an error
  list({first});
  EXPECT_TRUE(item.isEdited());
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::send, item.id, {}}));
}

TEST_F(TreePendingTest, TheFirstChangeIsOfTheVersionThatItsContentsAreOf) {
  list({file("1", "a", 3)});
  Item& item = *at("a");
  list({file("1", "a", 4)});
  ContentState state;  // begun before the listing
  state.number = 1;
  state.version = "v3";
  state.sizeBytes = 3;
  state.edits = 1;
  state.isEdited = true;
  tree().setContent(item, state);
  check();
  EXPECT_EQ(item.content()->base, "v3");
}

TEST_F(TreePendingTest, ADeletionLosesAgainstAnEditAndAgainstAMoveOfWhatIsHere) {
  list({file("1", "a", 3), file("2", "b", 3), file("3", "c", 3)});
  fill(*at("a"), 5, 1);
  fill(*at("b"), 3);
  tree().move(*at("b"), root(), "moved");
  tree().move(*at("c"), root(), "absent");
  change({deletion("1"), deletion("2"), deletion("3")});
  EXPECT_THAT(names(), ElementsAre("a", "moved"));
  EXPECT_EQ(ready().size(), 2U);
  for (const Change& change : ready()) EXPECT_EQ(change.kind, ChangeKind::create);
}

TEST_F(TreePendingTest, AFolderThatIsGoneSurvivesWithWhatWasChangedInIt) {
  list({folder("1", "d")});
  Item& d = *at("d");
  list(d, {file("2", "a", 3), file("3", "b", 3)});
  fill(*tree().child(d, "a"), 5, 1);
  list({});
  EXPECT_THAT(names(d), ElementsAre("a"));
  EXPECT_FALSE(d.there);
  EXPECT_FALSE(d.part()->listing.anchor);
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::create, d.id, {1, "d"}}));
}

TEST_F(TreePendingTest, ARemovalLosesAgainstNewContents) {
  list({file("1", "a", 3)});
  Item& a = *at("a");
  tree().remove(a);
  tree().applyItem(a, file("1", "a", 3), tree().moment());
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::remove, a.id, {}}));
  tree().applyItem(a, file("1", "a", 4), tree().moment());
  check();
  EXPECT_EQ(at("a"), &a);
  EXPECT_THAT(ready(), IsEmpty());
}

TEST_F(TreePendingTest, ARemovedFolderComesBackWithAllThatIsInItWhenOthersPutSomethingIntoIt) {
  list({folder("1", "d")});
  Item& d = *at("d");
  list(d, {file("2", "a"), folder("3", "e")});
  Item& a = *tree().child(d, "a");
  tree().remove(a);
  tree().remove(*tree().child(d, "e"));
  tree().remove(d);
  list(d, {file("2", "a"), folder("3", "e")});
  EXPECT_EQ(at("d"), nullptr);
  list(d, {file("2", "a"), folder("3", "e"), file("4", "new")});
  EXPECT_EQ(at("d"), &d);
  EXPECT_THAT(names(d), ElementsAre("a", "e", "new"));
  EXPECT_THAT(ready(), IsEmpty());
  tree().remove(a);
  tree().bringBack(a);
  EXPECT_EQ(tree().child(d, "a"), &a);
}

TEST_F(TreePendingTest, WhatComesBackIntoATakenNameHasAnother) {
  list({file("1", "a", 3)});
  Item& a = *at("a");
  tree().remove(a);
  Item& taken = tree().create(root(), "a", true, false);
  tree().bringBack(a);
  EXPECT_EQ(at("a"), &taken);
  EXPECT_EQ(a.name(), "a" + kConflict);
}

TEST_F(TreePendingTest, TwoFilesOfOneNameAreBothKept) {
  list({});
  Item& mine = make("a");
  list({file("1", "a", 5)});
  EXPECT_EQ(mine.name(), "a" + kConflict);
  EXPECT_EQ(at("a")->there->identifier, "1");
}

TEST_F(TreePendingTest, ANameForBothIsFreeOnBothSides) {
  list({file("2", "a" + kConflict)});
  tree().remove(*at("a" + kConflict));
  Item& mine = make("a");
  list({file("1", "a", 5), file("2", "a" + kConflict)});
  EXPECT_EQ(mine.name(), "a (conflict here 1970-01-12 13.46 2)");
}

TEST_F(TreePendingTest, TwoFoldersOfOneNameAreOne) {
  list({});
  Item& mine = tree().create(root(), "d", true, false);
  Item& inner = tree().create(mine, "x", false, false);
  list({folder("1", "d")});
  EXPECT_EQ(at("d"), &mine);
  EXPECT_EQ(mine.there->identifier, "1");
  EXPECT_TRUE(effects_.doubtful.contains(mine.id));
  EXPECT_FALSE(mine.part()->listing.anchor);
  list(mine, {file("2", "y")});
  EXPECT_THAT(names(mine), ElementsAre("x", "y"));
  EXPECT_THAT(ready(), ElementsAre(Change{ChangeKind::create, inner.id, {mine.id, "x"}}));
}

TEST_F(TreePendingTest, AFolderThatOthersMoveOntoANewOneKeepsItsName) {
  list({folder("1", "d")});
  Item& theirs = *at("d");
  Item& mine = tree().create(root(), "x", true, false);
  list({folder("1", "x")});
  EXPECT_EQ(at("x"), &theirs);
  EXPECT_EQ(mine.name(), "x" + kConflict);
  EXPECT_FALSE(mine.there);
}

TEST_F(TreePendingTest, WhatIsBeingMadeIsNotTakenForAnothersThoughItsNameIsAnItemsOfItsOwnHere) {
  list({});
  Item& first = make("a", 5);
  tree().beginSending(first, 5, 1, Place{kRootItem, "a"});
  tree().remove(first);
  Item& second = make("a", 7);
  list({file("1", "a", 5)});
  EXPECT_EQ(at("a"), &second);
  EXPECT_EQ(root().part()->children.size(), 1U);
  EXPECT_TRUE(effects_.doubtful.contains(kRootItem));
  tree().created(first, {kRootItem, "a"}, file("1", "a", 5), 1, now_);
  tree().endChange(first);
  list({file("1", "a", 5)});
  EXPECT_EQ(at("a"), &second);
  EXPECT_EQ(root().part()->children.size(), 1U);
}

TEST_F(TreePendingTest, ACreationWhoseAnswerWasLostIsRecognisedBySizeAndTime) {
  list({});
  Item& a = make("a", 5);
  tree().beginSending(a, 5, 1);
  tree().endChange(a);
  fill(a, 7, 2);
  ItemRecord record = file("1", "a", 5);
  record.modified = now_;
  list({record});
  EXPECT_EQ(at("a"), &a);
  EXPECT_EQ(a.content()->base, "v5");
  EXPECT_EQ(a.content()->sentEdits, 1U);
  EXPECT_TRUE(a.isEdited());
  EXPECT_EQ(a.content()->sendingSince, 0);
}

TEST_F(TreePendingTest, AnotherSizeOrAnEarlierTimeIsNotTheCreation) {
  list({});
  for (const auto& [size, seconds] : {std::pair{6, 0}, std::pair{5, -3}}) {
    Item& a = make("a", 5);
    tree().beginSending(a, 5, 1);
    tree().endChange(a);
    ItemRecord record = file("1", "a", size);
    record.modified = now_ + std::chrono::seconds(seconds);
    list({record});
    EXPECT_NE(at("a"), &a);
    tree().remove(a);
    list({});
  }
}

TEST_F(TreePendingTest, AGuessedVersionBecomesTheTrueOneAndLaterEditsStandOnIt) {
  list({file("1", "a", 3)});
  Item& a = *at("a");
  fill(a, 5, 1);
  ItemRecord guess = file("1", "a", 5);
  guess.contentVersion = "guess";
  send(a, guess);
  EXPECT_TRUE(a.there->isProvisional);
  EXPECT_FALSE(a.content()->state.isEdited);
  fill(a, 6, 2);
  ItemRecord record = file("1", "a", 5);
  record.modified = now_;
  list({record});
  EXPECT_FALSE(a.there->isProvisional);
  EXPECT_EQ(a.content()->base, "v5");
  EXPECT_EQ(a.content()->state.version, "v5");
  EXPECT_TRUE(a.isEdited());
  EXPECT_TRUE(a.isWhole());
}

TEST_F(TreePendingTest, WhatOthersWroteAfterASendingIsNotTheGuess) {
  list({file("1", "a", 3)});
  Item& a = *at("a");
  fill(a, 5, 1);
  send(a, file("1", "a", 77));
  list({file("1", "a", 6)});
  EXPECT_EQ(a.content(), nullptr);
  EXPECT_EQ(a.sizeBytes, 6);
}

TEST_F(TreePendingTest, OfTwoSendingsTheOneThatArrivedIsTheBase) {
  list({file("1", "a", 3)});
  Item& a = *at("a");
  fill(a, 5, 1);
  send(a, file("1", "a", 77));
  fill(a, 5, 2);
  tree().beginSending(a, 5, 2);
  tree().endChange(a);
  ItemRecord record = file("1", "a", 5);
  record.modified = now_;
  list({record});  // it could be both
  EXPECT_EQ(a.content()->sentEdits, 1U);
  EXPECT_TRUE(a.isEdited());
  EXPECT_EQ(a.content()->base, "v5");
}

TEST_F(TreePendingTest, WhatTheExtensionDoesNotTakeIsNotSentUntilItHasAnotherName) {
  list({});
  Item& item = make("junk");
  tree().refused(item);
  EXPECT_THAT(ready(), IsEmpty());
  tree().move(item, root(), "good");
  EXPECT_EQ(ready().size(), 1U);
}

TEST_F(TreePendingTest, WhatIsMovedOutOfAFolderThatGoesAndIsNotHereGoesToo) {
  list({folder("1", "d")});
  Item& d = *at("d");
  list(d, {file("2", "here", 3), file("3", "absent", 3)});
  fill(*tree().child(d, "here"), 3);
  for (const char* name : {"here", "absent"}) tree().move(*tree().child(d, name), root(), name);
  tree().remove(d);
  tree().beginChange(d);
  tree().removedThere(d);
  tree().endChange(d);
  check();
  EXPECT_THAT(names(), ElementsAre("here"));
  EXPECT_FALSE(at("here")->there);
}

// ------------------------------------------------------------------------------------------- sent and not seen since

TEST_F(TreePendingTest, WhatWasSentAndIsNotShownIsMadeAgain) {
  list({file("2", "b", 3)});
  Item& made = make("a");
  send(made, file("1", "a", 5));
  fill(*at("b"), 4, 1);
  send(*at("b"), file("2", "b", 4));
  list({});
  EXPECT_EQ(at("a"), &made);
  EXPECT_TRUE(made.isWhole());
  EXPECT_THAT(names(), ElementsAre("a", "b"));
  EXPECT_THAT(ready(), testing::UnorderedElementsAre(
                           Change{ChangeKind::create, made.id, {kRootItem, "a"}},
                           Change{ChangeKind::create, at("b")->id, {kRootItem, "b"}}));
}

TEST_F(TreePendingTest, WhatWasSentAndIsReportedAsGoneIsMadeAgain) {
  list({});
  Item& made = make("a");
  send(made, file("1", "a", 5));
  tree().applyItem(made, std::nullopt, tree().moment());
  check();
  EXPECT_EQ(at("a"), &made);
  EXPECT_EQ(ready().size(), 1U);
}

TEST_F(TreePendingTest, WhatWasSentAndShownAndIsShownNoLongerGoes) {
  list({});
  Item& made = make("a");
  send(made, file("1", "a", 5));
  ItemRecord record = file("1", "a", 5);
  record.modified = now_;
  list({record});
  list({});
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(TreePendingTest, WhatWasSentAndIsNoLongerWholeHereGoes) {
  list({});
  Item& made = make("a");
  send(made, file("1", "a", 5));
  ContentState state = made.content()->state;
  state.present = {};
  tree().setContent(made, state);
  list({});
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(TreePendingTest, WhatWasSentAndRemovedHereIsNotMadeAgain) {
  list({});
  Item& made = make("a");
  send(made, file("1", "a", 5));
  tree().remove(made);
  list({});
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(ready(), IsEmpty());
}

}  // namespace
}  // namespace kestrune::host
