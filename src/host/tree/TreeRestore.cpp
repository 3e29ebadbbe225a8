// The rows of an earlier mount become a tree again. They come from a file that may have been damaged: what contradicts itself
// must end neither in a removal at the store nor in the loss of what only this host has.
#include <algorithm>
#include <utility>

#include "host/basics/ItemName.h"
#include "host/tree/Tree.h"

// Whether an item is there follows from how it was found, which the check does not see.
// NOLINTBEGIN(bugprone-unchecked-optional-access)
namespace kestrune::host {

void Tree::takeRow(ItemRow row) {
  Item& item = row.id == kRootItem ? *root_ : make(row.id, row.isFolder);
  nextItem_ = std::max(nextItem_, row.id + 1);
  if (item.part() && row.listing) item.part()->listing = std::move(*row.listing);
  item.setTimes({row.modified, row.modified, row.changed});
  if (item.isRoot()) {
    if (row.there) setPolicy(item, row.there->policy);
    return;
  }
  if (row.there) {  // until it is known whether it can be
    setSideThere(item, *row.there, row.name);
  } else {
    item.there.setNameHere(row.name);
  }
  item.isExecutable = row.isExecutable;
  item.staysHere = row.staysHere;
  item.sizeBytes = row.sizeBytes;
  if (row.content && !item.isFolder)
    item.setContent(std::make_unique<ContentRow>(std::move(*row.content)));
  restoring_.push_back({row.id, row.folder, row.there ? row.there->folder : 0, row.isLinked});
  if (row.awaited) restoringAwaited_.emplace(row.id, std::move(*row.awaited));
}

void Tree::endRestore(ItemId nextItem, const std::set<ItemId>& open) {
  nextItem_ = std::max(nextItem_, nextItem);
  std::vector<RestoredItem> items = std::exchange(restoring_, {});
  std::sort(items.begin(), items.end(),
            [](const RestoredItem& a, const RestoredItem& b) { return a.id < b.id; });
  const std::map<ItemId, Place> awaited = std::exchange(restoringAwaited_, {});
  isRestoring_ = true;  // what the rows say need not be told, and a million of them take their room
  byName_.reserve(items.size());
  byIdentifier_.reserve(items.size());
  restoreLinks(items);
  restoreThere(items);
  restoreAwaited(awaited);
  isRestoring_ = false;
  effects_ = {};
  for (const RestoredItem& restored : items) {
    if (find(restored.id) != nullptr) mend(restored, open);
  }
}

Item& Tree::restoreEdit(std::string_view path, bool isExecutable, const ContentState& state,
                        const std::string& base) {
  Item* folder = root_;
  std::string name = "restored";
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at + 1), path.size());
    const std::string part(path.substr(at + 1, end - at - 1));
    at = end;
    if (whyNotAFileName(part) != nullptr) continue;
    if (at == path.size()) {
      name = part;
      break;
    }
    Item* next = child(*folder, part);
    if (next == nullptr || !next->isFolder)
      next = &create(*folder, nameIn(*folder, part), true, false);
    folder = next;
  }
  Item& item = create(*folder, nameIn(*folder, name), false, isExecutable);
  setContent(item, state);
  item.content()->base = base;
  note(item);
  return item;
}

// Links what fits, then undoes what hangs on nothing.
void Tree::restoreLinks(const std::vector<RestoredItem>& items) {
  for (const RestoredItem& restored : items) {
    Item& item = *find(restored.id);
    Item* folder = find(restored.folder);
    const bool fits = restored.isLinked && folder != nullptr && folder->isFolder &&
                      whyNotAFileName(item.name()) == nullptr &&
                      child(*folder, item.name()) == nullptr && !isWithin(*folder, item);
    if (fits) attach(item, *folder, item.name());
  }
  std::vector<Item*> loose;
  forEach([&](Item& item) {
    if (item.folder != nullptr && !isWithin(item, *root_)) loose.push_back(&item);
  });
  for (Item* item : loose) detach(*item);
}

// What the rows say of the store is taken where the folders there lead up to the root.
void Tree::restoreThere(const std::vector<RestoredItem>& items) {
  const auto leadsToRoot = [&](ItemId id) {
    for (std::size_t steps = 0; id != kRootItem; ++steps) {
      const Item* item = find(id);
      if (item == nullptr || !item->isFolder || !item->there || steps > items.size()) return false;
      id = item->there->folder;
    }
    return true;
  };
  for (const RestoredItem& restored : items) {
    Item& item = *find(restored.id);
    if (!item.there) continue;
    if (!leadsToRoot(item.there->folder)) {
      forgetThere(item);
      continue;
    }
    setThere(item, *item.there);
    if (item.there->isHeldDeletion) held_.insert(item.id);
  }
}

void Tree::restoreAwaited(const std::map<ItemId, Place>& places) {
  for (const auto& [id, place] : places) {
    const Item* folder = find(place.folder);
    if (folder == nullptr || !folder->isFolder || !folder->there) continue;
    if (whyNotAFileName(place.name) == nullptr) await(*find(id), place);
  }
}

// Of one item whose row may say more than could be true.
void Tree::mend(const RestoredItem& restored, const std::set<ItemId>& open) {
  Item& item = *find(restored.id);
  const bool lacksThere = restored.thereFolder != 0 && !item.there;
  if (restored.isLinked && item.folder == nullptr) {
    const bool isOnlyHere =
        item.content() && item.content()->state.number != 0 && (item.isEdited() || !lacksThere);
    if (item.there) {
      bringBack(item);
    } else if (isOnlyHere) {
      const bool isName = whyNotAFileName(item.name()) == nullptr;
      link(item, *root_, nameIn(*root_, isName ? std::string(item.name()) : "restored"), false);
    }
  }
  if (lacksThere) {
    if (Item* folder = find(restored.thereFolder); folder != nullptr && folder->isFolder) {
      askAgain(*folder);
    }
    if (item.part()) item.part()->listing = {.isEnumerated = true};  // nobody else knows it
    note(item);
  }
  const bool isLearntAgain = lacksThere && !item.isFolder && !item.isEdited();
  const bool isNowhere =
      item.folder == nullptr && !item.there && !item.awaited() && !open.contains(item.id);
  if (isNowhere || isLearntAgain) {
    forget(item);
  } else if (item.awaited()) {
    askAgain(*find(item.awaited()->folder));
  }
}

}  // namespace kestrune::host
// NOLINTEND(bugprone-unchecked-optional-access)
