#include "host/tree/test/TreeCheck.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "host/out/ConflictName.h"

namespace kestrune::host {

namespace {

template <typename Container>
void append(Container& all, const Container& more) {
  if constexpr (requires { all.push_back(*more.begin()); }) {
    all.insert(all.end(), more.begin(), more.end());
  } else {
    all.insert(more.begin(), more.end());
  }
}

void add(TreeEffects& all, const TreeEffects& more) {
  append(all.cache, more.cache);
  append(all.changed, more.changed);
  append(all.forgotten, more.forgotten);
  append(all.detached, more.detached);
  append(all.dropped, more.dropped);
  append(all.rescued, more.rescued);
  append(all.adopted, more.adopted);
  append(all.gone, more.gone);
  append(all.doubtful, more.doubtful);
}

}  // namespace

TreeEffects TreeCheck::after(Tree& tree) {
  TreeEffects all = tree.takeEffects();
  persist(tree, all);
  for (const ItemId id : std::set<ItemId>(all.gone)) {
    if (Item* item = tree.find(id)) tree.forgetIfGone(*item);
  }
  const TreeEffects more = tree.takeEffects();
  persist(tree, more);
  add(all, more);
  compareRows(tree);
  checkHere(tree);
  checkThere(tree);
  return all;
}

std::vector<ItemRow> TreeCheck::rows() const {
  std::vector<ItemRow> rows;
  for (const auto& [id, row] : database_) rows.push_back(row);
  return rows;
}

void TreeCheck::restarted(Tree& tree) {
  const std::map<ItemId, ItemRow> before = database_;
  after(tree);
  std::set<ItemId> awaiting;
  for (const auto& [id, row] : before) {
    if (row.awaited) awaiting.insert(row.awaited->folder);
  }
  for (auto [id, row] : before) {
    if (awaiting.contains(id)) row.listing->anchor.reset();  // to be listed as a whole
    const bool isNowhere = !row.isLinked && !row.there && !row.awaited;
    EXPECT_EQ(tree.find(id) == nullptr, isNowhere) << "item " << id;
    if (tree.find(id) != nullptr) EXPECT_TRUE(tree.row(*tree.find(id)) == row) << "item " << id;
  }
}

void TreeCheck::persist(Tree& tree, const TreeEffects& effects) {
  for (const ItemId id : effects.forgotten) {
    EXPECT_EQ(tree.find(id), nullptr) << "item " << id << " is forgotten and still there";
    EXPECT_FALSE(effects.changed.contains(id));
    database_.erase(id);
  }
  for (const ItemId id : effects.changed) {
    ASSERT_NE(tree.find(id), nullptr) << "item " << id << " changed and is not there";
    database_[id] = tree.row(*tree.find(id));
  }
}

void TreeCheck::compareRows(Tree& tree) const {
  std::size_t count = 1;
  tree.forEach([&](Item& item) {
    ++count;
    const auto row = database_.find(item.id);
    ASSERT_NE(row, database_.end()) << "item " << item.id << " was not reported";
    EXPECT_TRUE(row->second == tree.row(item))
        << "a change of item " << item.id << " was not reported";
  });
  EXPECT_EQ(tree.count(), count);
  EXPECT_EQ(database_.size(), database_.contains(kRootItem) ? count : count - 1);
}

void TreeCheck::checkHere(Tree& tree) const {
  std::set<ItemId> differing;
  std::set<ItemId> held;
  std::set<ItemId> conflictCopies;
  tree.forEach([&](Item& item) {
    EXPECT_EQ(tree.find(item.id), &item);
    if (item.isLinked() && isConflictName(item.name())) conflictCopies.insert(item.id);
    EXPECT_LT(item.id, tree.nextItem());
    if (Tree::differs(item)) differing.insert(item.id);
    EXPECT_EQ(Tree::differs(item), !item.staysHere && Tree::outgoingItem(item).differs());
    if (item.there && item.there->isHeldDeletion) held.insert(item.id);
    if (item.folder != nullptr) {
      EXPECT_EQ(tree.find(item.folder->id), item.folder);
      EXPECT_EQ(tree.child(*item.folder, item.name()), &item);
      EXPECT_TRUE(Tree::isWithin(item, tree.root())) << "item " << item.id << " hangs on nothing";
    }
    EXPECT_EQ(item.isFolder, item.part() != nullptr);
    if (item.isFolder) EXPECT_EQ(item.content(), nullptr);
    if (!item.part()) return;
    std::size_t count = 0;
    ItemId before = 0;
    for (const Item* child : item.part()->children) {
      ASSERT_EQ(tree.find(child->id), child);
      EXPECT_LT(before, child->id);
      EXPECT_EQ(*item.part()->children.after(before), child);
      before = child->id;
      ++count;
      EXPECT_EQ(child->folder, &item);
    }
    EXPECT_EQ(item.part()->children.size(), count);
    EXPECT_EQ(item.part()->children.after(before), item.part()->children.end());
  });
  for (const Item* child : tree.root().part()->children) EXPECT_EQ(tree.find(child->id), child);
  EXPECT_EQ(tree.differing(), differing);
  EXPECT_EQ(tree.conflictCopies(), conflictCopies);
  const std::vector<ItemId> told = tree.heldDeletions();
  EXPECT_EQ(std::set<ItemId>(told.begin(), told.end()), held);
}

void TreeCheck::checkThere(Tree& tree) {
  std::map<Place, std::vector<const Item*>> places;
  tree.forEach([&](Item& item) {
    if (!item.there) return;
    const Place place{item.there->folder, item.there->name};
    places[place].push_back(&item);
    places_.insert(place);
    identifiers_.insert(item.there->identifier);
    const Item* folder = tree.find(item.there->folder);
    ASSERT_TRUE(folder != nullptr && folder->isFolder && folder->there)
        << "item " << item.id << " is in a folder that is not there";
    const bool isStale = folder->part()->listing.hasStaleIdentifiers;
    if (isStale) EXPECT_FALSE(tree.isSure(item));
    if (!isStale && tree.byIdentifier(item.there->identifier) != &item)
      EXPECT_FALSE(tree.isSure(item));
  });
  for (const Place& place : places_) {
    const Item* occupant = tree.occupant(place);
    const auto known = places.find(place);
    if (known == places.end()) {
      EXPECT_EQ(occupant, nullptr) << "nobody is at " << place.name;
    } else {
      EXPECT_TRUE(std::count(known->second.begin(), known->second.end(), occupant) == 1)
          << "who is at " << place.name << "?";
    }
  }
  for (const std::string& identifier : identifiers_) {
    const Item* item = tree.byIdentifier(identifier);
    if (item != nullptr) EXPECT_TRUE(item->there && item->there->identifier == identifier);
  }
}

void restore(Tree& tree, const std::vector<ItemRow>& rows, ItemId nextItem) {
  for (const ItemRow& row : rows) tree.takeRow(row);
  tree.endRestore(nextItem);
}

}  // namespace kestrune::host
