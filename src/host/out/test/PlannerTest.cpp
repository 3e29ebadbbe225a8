#include "host/out/Planner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <set>

namespace kestrune::host {
namespace {

using Kind = Change::Kind;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class Items final : public OutgoingView {
 public:
  const OutgoingItem* find(NodeId id) const override {
    const auto found = items.find(id);
    return found == items.end() ? nullptr : &found->second;
  }
  const OutgoingItem* occupant(const Place& there) const override {
    for (const auto& [id, item] : items) {
      if (item.there == there) return &item;
    }
    return nullptr;
  }
  std::vector<NodeId> differing() const {
    std::vector<NodeId> ids;
    for (const auto& [id, item] : items) {
      if (item.differs()) ids.push_back(id);
    }
    return ids;
  }
  std::vector<Change> ready(std::span<const Change> underWay = {}, std::size_t limit = 8) const {
    return readyChanges(*this, differing(), underWay, limit);
  }
  OutgoingItem& add(NodeId id, bool isFolder, const Place& here, std::optional<Place> there = {}) {
    return items[id] = OutgoingItem{id, isFolder, true, here, std::move(there)};
  }

  std::map<NodeId, OutgoingItem> items;
};

Place at(NodeId folder, const char* name) { return {folder, name}; }

TEST(PlannerTest, WhatIsTheSameNeedsNothing) {
  Items items;
  items.add(2, true, at(1, "a"), at(1, "a"));
  OutgoingItem& file = items.add(3, false, at(2, "b"), at(2, "b"));
  file.edits = file.sentEdits = 4;
  EXPECT_THAT(items.ready(), IsEmpty());
}

TEST(PlannerTest, FoldersGoBeforeWhatIsInThem) {
  Items items;
  items.add(2, true, at(1, "a"));
  items.add(3, true, at(2, "b"));
  items.add(4, false, at(1, "c"));
  EXPECT_THAT(items.ready(), ElementsAre(Change{Kind::create, 2, at(1, "a")},
                                         Change{Kind::create, 4, at(1, "c")}));
  items.items[2].there = at(1, "a");
  EXPECT_THAT(items.ready(), UnorderedElementsAre(Change{Kind::create, 3, at(2, "b")},
                                                  Change{Kind::create, 4, at(1, "c")}));
}

TEST(PlannerTest, ContentsGoByThemselvesAndAfterAMove) {
  Items items;
  items.add(2, false, at(1, "a"), at(1, "a")).edits = 1;
  items.add(3, false, at(1, "new"), at(1, "old")).edits = 1;
  EXPECT_THAT(items.ready(),
              ElementsAre(Change{Kind::send, 2, {}}, Change{Kind::move, 3, at(1, "new")}));
}

TEST(PlannerTest, ANameIsWaitedForUntilItIsFree) {
  Items items;
  items.add(2, false, at(1, "b"), at(1, "a"));
  items.add(3, false, at(1, "a"));
  EXPECT_THAT(items.ready(), ElementsAre(Change{Kind::move, 2, at(1, "b")}));
  const std::vector<Change> underWay = items.ready();
  EXPECT_THAT(items.ready(underWay), IsEmpty());
  items.items[2].there = at(1, "b");
  EXPECT_THAT(items.ready(), ElementsAre(Change{Kind::create, 3, at(1, "a")}));
}

TEST(PlannerTest, SwappedNamesGoByWayOfAThird) {
  Items items;
  items.add(2, false, at(1, "b"), at(1, "a"));
  items.add(3, false, at(1, "a"), at(1, "b"));
  const auto aside = items.ready();
  EXPECT_THAT(aside, ElementsAre(Change{Kind::moveAside, 3, at(1, asideName(3).c_str())}));
  items.items[3].there = aside[0].to;
  EXPECT_THAT(items.ready(), ElementsAre(Change{Kind::move, 2, at(1, "b")}));
}

// One was moved aside, and then another one was given just that name here.
TEST(PlannerTest, WhoIsAsideAlreadyGetsANameThatNobodyHas) {
  Items items;
  const std::string aside = asideName(3);
  items.add(2, false, at(1, aside.c_str()), at(1, "b"));
  items.add(3, false, at(1, "b"), at(1, aside.c_str()));
  for (int rounds = 0; !items.differing().empty(); ++rounds) {
    ASSERT_LT(rounds, 4) << "it goes round";
    const auto ready = items.ready();
    ASSERT_FALSE(ready.empty());
    for (const Change& change : ready) {
      ASSERT_EQ(items.occupant(change.to), nullptr) << change.to.name << " is taken";
      items.items[change.id].there = change.to;
    }
  }
}

TEST(PlannerTest, AFolderIsRemovedOnceWithAllThatIsInIt) {
  Items items;
  for (const NodeId id : {NodeId{2}, NodeId{3}}) items.add(id, true, {}, {}).isLinked = false;
  items.items[3].there = at(1, "a");
  items.items[2].there = at(3, "b");
  EXPECT_THAT(items.ready(), ElementsAre(Change{Kind::remove, 3, {}}));
}

TEST(PlannerTest, AFolderWaitsForWhatIsMovedOutOfIt) {
  Items items;
  items.add(2, true, {}, at(1, "a")).isLinked = false;
  items.add(3, true, {}, at(2, "b")).isLinked = false;
  items.add(4, false, at(1, "kept"), at(3, "c"));
  items.add(5, false, {}, at(2, "gone")).isLinked = false;
  EXPECT_THAT(items.ready(), UnorderedElementsAre(Change{Kind::move, 4, at(1, "kept")},
                                                  Change{Kind::remove, 5, {}}));
  items.items[4].there = at(1, "kept");
  EXPECT_THAT(items.ready(), ElementsAre(Change{Kind::remove, 2, {}}));
}

TEST(PlannerTest, AFolderNeverGoesIntoItself) {
  Items items;  // there: a, and b in it; here: b, and a in it
  items.add(2, true, at(3, "a"), at(1, "a"));
  items.add(3, true, at(1, "b"), at(2, "b"));
  EXPECT_THAT(items.ready(), ElementsAre(Change{Kind::move, 3, at(1, "b")}));
}

TEST(PlannerTest, NothingGoesBelowAFolderThatIsOnItsWay) {
  Items items;
  items.add(2, true, at(1, "b"), at(1, "a"));
  items.add(3, false, at(2, "new"));
  items.add(4, false, at(2, "c"), at(2, "c")).edits = 1;
  items.add(5, false, at(1, "beside"));
  EXPECT_THAT(items.ready(), ElementsAre(Change{Kind::move, 2, at(1, "b")},
                                         Change{Kind::create, 5, at(1, "beside")}));
}

TEST(PlannerTest, NoMoreBeginsThanMayBeUnderWay) {
  Items items;
  for (NodeId id = 2; id < 30; ++id) items.add(id, false, {1, std::to_string(id)});
  EXPECT_EQ(items.ready({}, 8).size(), 8U);
  const auto some = items.ready({}, 5);
  EXPECT_EQ(items.ready(some, 8).size(), 3U);
  EXPECT_THAT(items.ready(items.ready({}, 8), 8), IsEmpty());
  EXPECT_THAT(items.ready({}, 0), IsEmpty());
}

/// A store that takes nothing that is not right, a person who changes things at random, and changes that
/// end in any order.
class World {
 public:
  explicit World(std::uint64_t seed) : random_(seed) {}

  void step() {
    switch (below(5)) {
      case 0:
      case 1:
        changeSomething();
        break;
      case 2:
        begin();
        break;
      default:
        if (!underWay_.empty()) end(below(underWay_.size()));
    }
  }

  /// Without any more changes here, everything comes to rest.
  void settle() {
    for (int round = 0; round < 10'000; ++round) {
      begin();
      if (underWay_.empty()) break;
      end(below(underWay_.size()));
    }
    ASSERT_THAT(underWay_, IsEmpty());
    ASSERT_THAT(items_.differing(), IsEmpty());
    std::map<Place, std::pair<NodeId, std::uint64_t>> here, there;
    for (const auto& [id, item] : items_.items) {
      if (item.isLinked) here[item.here] = {id, item.edits};
    }
    for (const auto& [id, place] : places_) there[place] = {id, contents_[id]};
    EXPECT_EQ(here, there);
  }

 private:
  struct Begun {
    Change change;
    std::uint64_t edits;
    std::string way;
  };

  std::size_t below(std::size_t bound) {
    return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random_);
  }

  // What a person does.

  std::vector<NodeId> linked(bool foldersOnly) const {
    std::vector<NodeId> ids;
    if (foldersOnly) ids.push_back(kRootNode);
    for (const auto& [id, item] : items_.items) {
      if (item.isLinked && (!foldersOnly || item.isFolder)) ids.push_back(id);
    }
    return ids;
  }
  NodeId someFolder() {
    const auto ids = linked(true);
    return ids[below(ids.size())];
  }
  OutgoingItem* named(const Place& place) {
    for (auto& [id, item] : items_.items) {
      if (item.isLinked && item.here == place) return &item;
    }
    return nullptr;
  }
  bool isEmptyFolder(NodeId folder) const {
    return std::none_of(items_.items.begin(), items_.items.end(), [&](const auto& entry) {
      return entry.second.isLinked && entry.second.here.folder == folder;
    });
  }
  bool isInside(NodeId folder, NodeId ancestor) const {
    for (; folder != kRootNode; folder = items_.find(folder)->here.folder) {
      if (folder == ancestor) return true;
    }
    return false;
  }
  Place somePlace() { return {someFolder(), std::string(1, static_cast<char>('a' + below(4)))}; }

  void unlinkTree(NodeId id) {
    items_.items[id].isLinked = false;
    for (auto& [child, item] : items_.items) {
      if (item.isLinked && item.here.folder == id) unlinkTree(child);
    }
  }

  void changeSomething() {
    const auto ids = linked(false);
    const std::size_t what = below(10);
    if (ids.empty() || what < 3) {
      const Place place = somePlace();
      if (named(place)) return;
      const NodeId id = ++lastId_;
      items_.add(id, below(2) == 0, place);
    } else if (what < 8) {
      rename(items_.items[ids[below(ids.size())]], somePlace());
    } else if (what == 8) {
      unlinkTree(ids[below(ids.size())]);
    } else {
      OutgoingItem& item = items_.items[ids[below(ids.size())]];
      if (!item.isFolder) ++item.edits;
    }
  }

  void rename(OutgoingItem& item, const Place& place) {
    if (isInside(place.folder, item.id)) return;
    if (OutgoingItem* replaced = named(place)) {
      if (replaced->id == item.id || replaced->isFolder != item.isFolder) return;
      if (replaced->isFolder && !isEmptyFolder(replaced->id)) return;
      replaced->isLinked = false;
    }
    item.here = place;
  }

  // What goes out.

  void begin() {
    std::vector<Change> now;
    for (const Begun& begun : underWay_) now.push_back(begun.change);
    for (const Change& change : items_.ready(now, 4)) {
      const OutgoingItem& item = items_.items[change.id];
      underWay_.push_back({change, item.edits, wayOf(change)});
    }
  }

  /// Where the change's item is and where it goes, as paths: the store knows items by those.
  std::string wayOf(const Change& change) const {
    return pathOf(change.id) + " to " + pathOf(change.to.folder);
  }
  std::string pathOf(NodeId id) const {
    std::string path;
    for (; id != kRootNode; id = places_.at(id).folder) {
      if (!places_.contains(id)) return "nowhere";
      path = "/" + places_.at(id).name + path;
    }
    return path;
  }

  void end(std::size_t which) {
    const Begun begun = underWay_[which];
    underWay_.erase(underWay_.begin() + static_cast<std::ptrdiff_t>(which));
    const Change& change = begun.change;
    ASSERT_EQ(wayOf(change), begun.way) << "the way of item " << change.id << " changed meanwhile";
    OutgoingItem& item = items_.items[change.id];
    switch (change.kind) {
      case Kind::create:
        ASSERT_FALSE(places_.contains(change.id));
        put(change);
        contents_[change.id] = item.sentEdits = begun.edits;
        item.there = change.to;
        break;
      case Kind::move:
      case Kind::moveAside:
        ASSERT_TRUE(places_.contains(change.id));
        put(change);
        item.there = change.to;
        break;
      case Kind::send:
        ASSERT_TRUE(places_.contains(change.id));
        contents_[change.id] = item.sentEdits = begun.edits;
        break;
      case Kind::remove:
        takeAway(change.id);
        break;
    }
  }

  void put(const Change& change) {
    if (change.to.folder != kRootNode) ASSERT_TRUE(places_.contains(change.to.folder));
    for (const auto& [id, place] : places_)
      ASSERT_FALSE(place == change.to) << "the name is taken by " << id;
    for (NodeId above = change.to.folder; above != kRootNode; above = places_[above].folder)
      ASSERT_NE(above, change.id) << "a folder goes into itself";
    places_[change.id] = change.to;
  }

  void takeAway(NodeId id) {
    ASSERT_TRUE(places_.contains(id));
    ASSERT_FALSE(items_.items[id].isLinked) << "an item that is here was removed there";
    std::vector<NodeId> children;
    for (const auto& [child, place] : places_) {
      if (place.folder == id) children.push_back(child);
    }
    for (const NodeId child : children) takeAway(child);
    places_.erase(id);
    contents_.erase(id);
    items_.items[id].there.reset();
  }

  std::mt19937_64 random_;
  NodeId lastId_ = kRootNode;
  Items items_;
  std::map<NodeId, Place> places_;            // the store's tree
  std::map<NodeId, std::uint64_t> contents_;  // the store's files
  std::vector<Begun> underWay_;
};

TEST(PlannerTest, WhateverIsChangedTheStoreTakesAllAndEndsTheSame) {
  const char* wanted = std::getenv("KESTRUNE_SEQUENCES");
  const int sequences = wanted != nullptr ? std::atoi(wanted) : 2000;
  for (int seed = 1; seed <= sequences; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    World world(static_cast<std::uint64_t>(seed));
    for (int step = 0; step < 80; ++step) world.step();
    world.settle();
    if (HasFailure()) return;
  }
}

}  // namespace
}  // namespace kestrune::host
