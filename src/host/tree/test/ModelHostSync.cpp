// How the model's host sends and learns.
#include <gtest/gtest.h>

#include <algorithm>

#include "host/tree/test/ModelHost.h"

namespace kestrune::host {

namespace {

using Kind = Change::Kind;

bool hasTarget(const Change& change) {
  return change.kind != Kind::send && change.kind != Kind::remove;
}

}  // namespace

// ------------------------------------------------------------------------------------------- what goes out

bool ModelHost::mayBegin(const Change& change) const {
  const auto isSure = [&](ItemId id) {
    for (const Item* at = tree_->find(id); !at->isRoot(); at = tree_->find(at->there->folder)) {
      if (!tree_->isSure(*at)) return false;
    }
    return true;
  };
  if (tree_->find(change.id)->awaited()) return false;
  return (change.kind == Kind::create || isSure(change.id)) &&
         (!hasTarget(change) || isSure(change.to.folder));
}

void ModelHost::begin(bool isReliable) {
  std::vector<Change> now_;
  for (const Begun& begun : underWay_) now_.push_back(begun.change);
  const std::vector<ItemId> differing(tree_->differing().begin(), tree_->differing().end());
  // Of some of what was sent before it is not known how it ended.
  for (const ItemId id : differing) {
    Item* item = tree_->find(id);
    const bool isSent = item != nullptr && item->there && tree_->isSure(*item) && item->content() &&
                        item->content()->sendingSince != 0;
    if (isSent && !item->isUnderWay) lookAt(*item);
  }
  for (const Change& change : readyChanges(*tree_->outgoing(), differing, now_, 4)) {
    if (!mayBegin(change)) continue;
    if (change.kind == Kind::remove) {
      beginRemoval(change, isReliable);
      return;  // it may have changed what is ready
    }
    Item& item = *tree_->find(change.id);
    Begun begun;
    begun.change = change;
    begun.began = now();
    const auto to = hasTarget(change) ? std::optional(change.to) : std::nullopt;
    const bool carries =
        !item.isFolder && (change.kind == Kind::create || change.kind == Kind::send);
    if (carries) {
      begun.edits = item.content()->state.edits;
      begun.token = visible(item);
      tree_->beginSending(item, static_cast<std::int64_t>(begun.token), begun.edits, to);
    } else {
      tree_->beginChange(item, to);
    }
    underWay_.push_back(begun);
  }
  takeEffects();
}

void ModelHost::lookAt(Item& item) {
  const auto key = store_.find(item.there->identifier);
  std::optional<ItemRecord> record;
  if (key) record = store_.record(*key);
  tree_->applyItem(item, record, tree_->moment());
  takeEffects();
}

// Looks at all that would go, and if nothing of it is news, removes it at once.
void ModelHost::beginRemoval(const Change& change, bool isReliable) {
  lookAt(*tree_->find(change.id));
  std::vector<ItemId> folders = {change.id};
  for (std::size_t i = 0; i < folders.size(); ++i) {
    Item* at = tree_->find(folders[i]);
    if (at == nullptr || !at->there || !at->isFolder) continue;
    if (!tree_->isSure(*at) || !listNow(*at)) return;
    tree_->forEach([&](Item& child) {
      if (child.there && child.there->folder == at->id) folders.push_back(child.id);
    });
  }
  Item* still = tree_->find(change.id);
  if (still == nullptr || !still->there || still->isLinked()) return;
  std::vector<Change> others;
  for (const Begun& begun : underWay_) others.push_back(begun.change);
  const std::vector<ItemId> differing(tree_->differing().begin(), tree_->differing().end());
  const auto ready = readyChanges(*tree_->outgoing(), differing, others, 1000);
  if (std::find(ready.begin(), ready.end(), change) == ready.end()) return;
  if (!isReliable && percent(20)) return;
  const auto at = store_.find(still->there->identifier);
  if (!at) return;
  tree_->beginChange(*still);
  for (const Key gone : store_.tree(*at)) {
    const auto& node = store_.nodes().at(gone);
    const bool isKnown = std::any_of(mayGo_.begin(), mayGo_.end(),
                                     [&](Token removed) { return comesFrom(removed, node.token); });
    EXPECT_TRUE(node.isFolder || isKnown)
        << "contents " << node.token << " were removed and nobody here knew of them";
  }
  store_.remove(*at);
  Begun begun;
  begun.change = change;
  begun.isApplied = true;
  underWay_.push_back(begun);
}

void ModelHost::goOn(bool isReliable) {
  if (underWay_.empty()) return;
  const std::size_t which = below(underWay_.size());
  Begun& begun = underWay_[which];
  if (!begun.isApplied) {
    apply(begun, isReliable);
    if (begun.isApplied) return;
  } else {
    answer(begun, !isReliable && percent(20));
  }
  if (Item* item = tree_->find(begun.change.id)) tree_->endChange(*item);
  underWay_.erase(underWay_.begin() + static_cast<std::ptrdiff_t>(which));
  takeEffects();
}

void ModelHost::apply(Begun& begun, bool isReliable) {
  Item* item = tree_->find(begun.change.id);
  ASSERT_NE(item, nullptr) << "item " << begun.change.id << " was forgotten while under way";
  if (!isReliable && percent(15)) return;
  switch (begun.change.kind) {
    case Kind::create:
      create(begun, *item);
      break;
    case Kind::move:
    case Kind::moveAside:
      move(begun, *item);
      break;
    default:
      send(begun, *item);
  }
}

std::optional<ModelStore::Key> ModelHost::look(Begun& begun, Item& item) {
  if (!item.there || !tree_->isSure(item)) return std::nullopt;
  const auto key = store_.find(item.there->identifier);
  const ItemId id = begun.change.id;
  if (!key || store_.nodes().at(*key).isFolder != item.isFolder) {
    tree_->endChange(item);
    tree_->applyItem(item, std::nullopt, tree_->moment());
    doubtful_.insert(kRootItem);
    takeEffects();
    if (Item* still = tree_->find(id)) tree_->beginChange(*still);
    return std::nullopt;
  }
  tree_->applyItem(item, store_.record(*key), tree_->moment());
  return key;
}

void ModelHost::create(Begun& begun, Item& item) {
  if (tree_->find(begun.change.to.folder) == nullptr) return;
  const Item& folder = *tree_->find(begun.change.to.folder);
  if (!folder.there) return;
  const auto parent = store_.find(folder.there->identifier);
  doubtful_.insert(folder.id);
  if (!parent || store_.child(*parent, begun.change.to.name)) return;
  if (*parent != ModelStore::kRoot && !store_.nodes().at(*parent).isFolder) return;
  if (begun.change.to.name == "junk") {
    tree_->refused(item);
    return;
  }
  const Key key = store_.create(*parent, begun.change.to.name, item.isFolder, begun.token, now());
  begun.answer = store_.record(key);
  if (!item.isFolder && percent(50)) begun.answer.contentVersion = store_.guess(begun.token);
  begun.isApplied = true;
}

void ModelHost::move(Begun& begun, Item& item) {
  const auto key = look(begun, item);
  if (!key) return;
  if (tree_->find(begun.change.to.folder) == nullptr) return;
  const Item& folder = *tree_->find(begun.change.to.folder);
  if (!folder.there) return;
  const auto parent = store_.find(folder.there->identifier);
  doubtful_.insert(folder.id);
  doubtful_.insert(item.there->folder);
  if (!parent || store_.child(*parent, begun.change.to.name)) return;
  if (*parent != ModelStore::kRoot && !store_.nodes().at(*parent).isFolder) return;
  if (store_.isWithin(*parent, *key)) return;
  store_.move(*key, *parent, begun.change.to.name);
  begun.answer = store_.record(*key);
  begun.isApplied = true;
}

void ModelHost::send(Begun& begun, Item& item) {
  const auto key = look(begun, item);
  if (!key || !item.isLinked() || !item.isEdited()) return;
  if (item.there->version.contentVersion != item.content()->base) {
    tree_->keepBoth(item);
    return;
  }
  const Token there = store_.nodes().at(*key).token;
  EXPECT_TRUE(comesFrom(begun.token, there))
      << "contents " << there << " were replaced by " << begun.token
      << ", which nobody made with them in view";
  if (!comesFrom(visible(item), begun.token)) return;
  store_.write(*key, begun.token, now());
  begun.answer = store_.record(*key);
  if (percent(50)) begun.answer.contentVersion = store_.guess(begun.token);
  begun.isApplied = true;
}

void ModelHost::answer(const Begun& begun, bool isLost) {
  Item& item = *tree_->find(begun.change.id);
  if (isLost) {
    doubtful_.insert(kRootItem);
    return;
  }
  switch (begun.change.kind) {
    case Kind::create:
      tree_->created(item, begun.change.to, begun.answer, begun.edits, begun.began);
      break;
    case Kind::move:
    case Kind::moveAside:
      tree_->moved(item, begun.change.to, begun.answer);
      break;
    case Kind::send:
      tree_->sent(item, begun.answer, begun.edits, begun.began);
      break;
    case Kind::remove:
      tree_->removedThere(item);
  }
}

// ------------------------------------------------------------------------------------------- what comes in

void ModelHost::ask(Item& folder) {
  if (!folder.there || !tree_->isSure(folder)) return;
  Ask ask;
  ask.asOf = tree_->moment();
  ask.identifier = folder.there->identifier;
  ask.anchor = folder.part()->listing.anchor;
  asks_[folder.id] = ask;
}

void ModelHost::take(Ask& ask) {
  ask.isTaken = true;
  const auto key = store_.find(ask.identifier);
  ask.isMissing = !key || (*key != ModelStore::kRoot && !store_.nodes().at(*key).isFolder);
  if (ask.isMissing) return;
  ask.next = store_.anchor();
  if (!ask.anchor) {
    ask.items = store_.list(*key);
    return;
  }
  ask.changes = store_.changes(*key, *ask.anchor);
  if (!percent(10)) return;
  for (const ItemRecord& record : store_.list(*key))  // all are reported
    ask.changes.push_back({ReportedChange::Kind::update, record});
}

/// False: it is in doubt.
bool ModelHost::deliver(ItemId id, Ask ask) {
  Item* folder = tree_->find(id);
  if (folder == nullptr || !folder->there) return false;
  doubtful_.erase(id);
  if (ask.isMissing) {
    doubtful_.insert(folder->there->folder);
    return false;
  }
  if (ask.anchor) {
    tree_->applyChanges(*folder, ask.changes, ask.next, ask.asOf);
  } else {
    std::optional<platform::NSFileProviderSyncAnchor> anchor;
    if (hasAnchors_) anchor = ask.next;
    tree_->applyListing(*folder, ask.items, anchor, ask.asOf);
  }
  takeEffects();
  return !doubtful_.contains(id);
}

bool ModelHost::listNow(Item& folder) {
  const ItemId id = folder.id;
  ask(folder);
  const auto asked = asks_.find(id);
  if (asked == asks_.end()) return false;
  Ask ask = asked->second;
  asks_.erase(asked);
  take(ask);
  return deliver(id, ask);
}

void ModelHost::listAll() {
  std::vector<ItemId> folders = {kRootItem};
  for (std::size_t i = 0; i < folders.size(); ++i) {
    Item* folder = tree_->find(folders[i]);
    if (folder == nullptr || !folder->there) continue;
    listNow(*folder);
    if (tree_->find(folders[i]) == nullptr) continue;
    tree_->forEach([&](Item& child) {
      if (child.isFolder && child.there && child.there->folder == folders[i])
        folders.push_back(child.id);
    });
  }
}

// ------------------------------------------------------------------------------------------- the end

void ModelHost::settle() {
  const auto before = seen();
  for (const auto& [id, ask] : std::map<ItemId, Ask>(asks_)) {
    asks_.erase(id);
    Ask taken = ask;
    if (!taken.isTaken) take(taken);
    deliver(id, taken);
  }
  for (int round = 0; round < 200; ++round) {
    seconds_ += 5;
    begin(true);
    while (!underWay_.empty() && !testing::Test::HasFailure()) goOn(true);
    listAll();
    for (const ItemId id : std::set<ItemId>(doubtful_)) {
      if (Item* folder = tree_->find(id); folder != nullptr) listNow(*folder);
    }
    tree_->settleHeldDeletions(percent(50));
    takeEffects();
    if (testing::Test::HasFailure()) return;
    std::erase_if(doubtful_,
                  [&](ItemId id) { return tree_->find(id) == nullptr || !tree_->find(id)->there; });
    bool isQuiet = doubtful_.empty() && tree_->heldDeletions().empty();
    for (const ItemId id : tree_->differing()) {
      const Item* at = tree_->find(id);
      while (at != nullptr && !at->staysHere) at = at->folder;
      isQuiet &= at != nullptr;  // what is in a folder that stays here stays too
    }
    if (!isQuiet) continue;
    compare();
    expectSeen(before);
    return;
  }
  std::string left;
  for (const ItemId id : tree_->differing()) {
    const Item& item = *tree_->find(id);
    left += "\n" + std::to_string(id) + " " + tree_->path(item) +
            (item.isLinked() ? "" : ", removed") + (item.there ? ", there" : "") +
            (item.awaited() ? ", awaited" : "") + (item.isUnderWay ? ", under way" : "");
  }
  for (const ItemId id : doubtful_) left += "\nin doubt: " + tree_->path(*tree_->find(id));
  ADD_FAILURE() << "it does not come to rest:" << left;
}

void ModelHost::compare() {
  std::map<std::string, Token> here;
  std::map<std::string, Token> there;
  std::set<Token> kept;
  std::set<Key> left;  // what was moved into a folder that stays here is left alone there
  tree_->forEach([&](Item& item) {
    if (!item.isLinked()) return;
    bool staysHere = false;
    for (const Item* at = &item; at != nullptr; at = at->folder) staysHere |= at->staysHere;
    if (staysHere) {
      kept.insert(visible(item));
      const auto key = item.there ? store_.find(item.there->identifier) : std::nullopt;
      for (const Key each : key ? store_.tree(*key) : std::vector<Key>{}) left.insert(each);
    } else {
      here[tree_->path(item)] = visible(item);
    }
  });
  for (const auto& [key, node] : store_.nodes()) {
    if (!left.contains(key)) there[store_.path(key)] = node.token;
    kept.insert(node.token);
  }
  EXPECT_EQ(here, there);
  for (const Token token : precious_)
    EXPECT_TRUE(kept.contains(token)) << "contents " << token << ", written here, are lost";
}

}  // namespace kestrune::host
