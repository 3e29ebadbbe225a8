// The rows of an earlier mount become a tree again. They come from a file that may have been damaged: what contradicts itself
// must end neither in a removal at the store nor in the loss of what only this host has.
#include <algorithm>
#include <unordered_map>
#include <utility>

#include "host/basics/ItemName.h"
#include "host/tree/Tree.h"

// Whether an item is there follows from how it was found, which the check does not see.
// NOLINTBEGIN(bugprone-unchecked-optional-access)
namespace kestrune::host {

void Tree::restore(std::vector<ItemRow> rows, ItemId nextItem) {
  nextItem_ = std::max(nextItem_, nextItem);
  for (ItemRow& row : rows) restoreItem(row);
  restoreLinks(rows);
  restoreThere(rows);
  effects_ = {};
  for (const ItemRow& row : rows) {
    if (row.id != kRootItem && find(row.id) != nullptr) mend(row);
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
  item.content->base = base;
  note(item);
  return item;
}

void Tree::restoreItem(ItemRow& row) {
  Item& item = row.id == kRootItem ? *root_ : make(row.id, row.isFolder);
  nextItem_ = std::max(nextItem_, row.id + 1);
  if (item.part && row.listing) item.part->listing = std::move(*row.listing);
  item.modified = row.modified;
  item.changed = row.changed;
  item.accessed = row.modified;
  if (item.isRoot()) {
    if (row.there) item.there->policy = row.there->policy;
    return;
  }
  item.name = row.name;
  item.isExecutable = row.isExecutable;
  item.staysHere = row.staysHere;
  item.sizeBytes = row.sizeBytes;
  if (row.content && !item.isFolder)
    item.content = std::make_unique<ContentRow>(std::move(*row.content));
}

// Links what fits, then undoes what hangs on nothing.
void Tree::restoreLinks(const std::vector<ItemRow>& rows) {
  for (const ItemRow& row : rows) {
    Item& item = *find(row.id);
    Item* folder = find(row.folder);
    const bool fits = !item.isRoot() && row.isLinked && folder != nullptr && folder->isFolder &&
                      whyNotAFileName(row.name) == nullptr && child(*folder, row.name) == nullptr &&
                      !isWithin(*folder, item);
    if (fits) attach(item, *folder, row.name);
  }
  std::vector<Item*> loose;
  forEach([&](Item& item) {
    if (item.folder != nullptr && !isWithin(item, *root_)) loose.push_back(&item);
  });
  for (Item* item : loose) detach(*item);
}

// What the rows say of the store is taken where the folders there lead up to the root.
void Tree::restoreThere(const std::vector<ItemRow>& rows) {
  std::unordered_map<ItemId, ItemId> above;
  for (const ItemRow& row : rows) {
    if (row.there && row.id != kRootItem) above.emplace(row.id, row.there->folder);
  }
  const auto leadsToRoot = [&](ItemId id) {
    for (std::size_t steps = 0; id != kRootItem; ++steps) {
      const Item* item = find(id);
      const auto found = above.find(id);
      if (item == nullptr || !item->isFolder || found == above.end() || steps > above.size())
        return false;
      id = found->second;
    }
    return true;
  };
  for (const ItemRow& row : rows) {
    if (!row.there || row.id == kRootItem || !leadsToRoot(row.there->folder)) continue;
    setThere(*find(row.id), row.there);
    if (row.there->isHeldDeletion) held_.insert(row.id);
  }
  for (const ItemRow& row : rows) {
    Item* folder = row.awaited ? find(row.awaited->folder) : nullptr;
    if (folder == nullptr || !folder->isFolder || !folder->there) continue;
    if (whyNotAFileName(row.awaited->name) == nullptr) await(*find(row.id), row.awaited);
  }
}

// Of one item whose row may say more than could be true.
void Tree::mend(const ItemRow& row) {
  Item& item = *find(row.id);
  const bool lacksThere = row.there && !item.there;
  if (row.isLinked && item.folder == nullptr) {
    const bool isOnlyHere =
        item.content && item.content->state.number != 0 && (item.isEdited() || !lacksThere);
    if (item.there) {
      bringBack(item);
    } else if (isOnlyHere) {
      const bool isName = whyNotAFileName(item.name) == nullptr;
      link(item, *root_, nameIn(*root_, isName ? item.name : "restored"), false);
    }
  }
  if (lacksThere) {
    if (Item* folder = find(row.there->folder); folder != nullptr && folder->isFolder) {
      askAgain(*folder);
    }
    if (item.part) item.part->listing = {.isEnumerated = true};  // nobody else knows it
    note(item);
  }
  const bool isLearntAgain = lacksThere && !item.isFolder && !item.isEdited();
  const bool isNowhere = item.folder == nullptr && !item.there && !item.awaited;
  if (isNowhere || isLearntAgain) {
    forget(item);
  } else if (item.awaited) {
    askAgain(*find(item.awaited->folder));
  }
}

}  // namespace kestrune::host
// NOLINTEND(bugprone-unchecked-optional-access)
