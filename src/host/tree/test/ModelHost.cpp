#include "host/tree/test/ModelHost.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace kestrune::host {

ModelHost::ModelHost(ModelStore::Identifiers identifiers, std::uint64_t seed)
    : random_(seed), store_(identifiers), hasAnchors_(below(3) != 0), isAlone_(below(3) == 0) {
  const std::size_t files = isAlone_ ? 0 : below(20) == 0 ? 30 : below(5);
  for (std::size_t i = 0; i < files; ++i)
    store_.create(ModelStore::kRoot, "f" + std::to_string(i), false, ++lastToken_, now());
  start({}, kRootItem + 1);
}

void ModelHost::start(std::vector<ItemRow> rows, ItemId nextItem) {
  tree_ = std::make_unique<Tree>(Tree::Setting{"here", [this] { return now(); }, "root"});
  restore(*tree_, rows, nextItem);
}

std::size_t ModelHost::below(std::size_t bound) {
  return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random_);
}

void ModelHost::takeEffects() {
  const TreeEffects effects = check_.after(*tree_);
  doubtful_.insert(effects.doubtful.begin(), effects.doubtful.end());
  for (const ContentNumber number : effects.dropped) bytes_.erase(number);
  for (const auto& rescued : effects.rescued) bytes_.erase(rescued.number);
  for (const auto& detached : effects.detached) EXPECT_NE(detached.node, 0U);
  tree_->forEach([&](Item& item) {
    if (item.content()) EXPECT_TRUE(bytes_.contains(item.content()->state.number)) << item.id;
  });
}

void ModelHost::restart() {
  const ItemId next = tree_->nextItem();
  asks_.clear();
  underWay_.clear();
  doubtful_.clear();
  start(check_.rows(), next);
  check_.restarted(*tree_);
  takeEffects();
}

void ModelHost::step() {
  seconds_ += static_cast<std::int64_t>(percent(3) ? 100 : below(3));
  const std::size_t what = below(100);
  const auto before = seen();
  if (what < 35) {
    changeHere();
  } else if (what < 50) {
    if (!isAlone_) changeThere();
  } else if (what < 60) {
    begin(false);
  } else if (what < 75) {
    goOn(false);
  } else if (what < 84) {
    if (Item* folder = someFolder()) ask(*folder);
  } else if (what < 98) {
    if (asks_.empty()) return;
    auto some = asks_.begin();
    std::advance(some, below(asks_.size()));
    if (!some->second.isTaken) {
      take(some->second);
    } else {
      const auto [id, ask] = *some;
      asks_.erase(some);
      deliver(id, ask);
    }
  } else if (what < 99) {
    tree_->settleHeldDeletions(percent(50));
  } else {
    restart();
  }
  takeEffects();
  if (what >= 35) expectSeen(before);
}

std::map<std::string, Token> ModelHost::seen() {
  std::map<std::string, Token> seen;
  tree_->forEach([&](Item& item) {
    if (item.isLinked()) seen[tree_->path(item)] = visible(item);
  });
  return seen;
}

// What the store says, and what became of changes, takes nothing away from who works alone, and brings nothing back.
void ModelHost::expectSeen(const std::map<std::string, Token>& before) {
  if (isAlone_) EXPECT_EQ(seen(), before);
}

// ------------------------------------------------------------------------------------------- the person here

Item* ModelHost::someItem() {
  std::vector<Item*> items;
  tree_->forEach([&](Item& item) {
    if (item.isLinked()) items.push_back(&item);
  });
  std::sort(items.begin(), items.end(), [](Item* a, Item* b) { return a->id < b->id; });
  return items.empty() ? nullptr : items[below(items.size())];
}

Item* ModelHost::someFolder() {
  std::vector<Item*> items = {&tree_->root()};
  tree_->forEach([&](Item& item) {
    if (item.isLinked() && item.isFolder) items.push_back(&item);
  });
  std::sort(items.begin(), items.end(), [](Item* a, Item* b) { return a->id < b->id; });
  return items[below(items.size())];
}

std::string ModelHost::someName() { return percent(2) ? "junk" : std::string(1, "abcd"[below(4)]); }

Token ModelHost::visible(const Item& item) const {
  if (item.isFolder) return 0;
  if (item.content()) return bytes_.at(item.content()->state.number);
  return item.there ? store_.tokenOf(item.there->version.contentVersion) : 0;
}

bool ModelHost::comesFrom(Token token, Token before) const {
  std::vector<Token> pending = {token};
  std::set<Token> seen;
  while (!pending.empty()) {
    const Token at = pending.back();
    pending.pop_back();
    if (at == before) return true;
    if (!seen.insert(at).second || !parents_.contains(at)) continue;
    for (const Token parent : parents_.at(at)) pending.push_back(parent);
  }
  return false;
}

void ModelHost::mayGo(const Item& item) {
  if (item.isFolder) return;
  forgetToken(visible(item));
  mayGo_.insert(visible(item));
  if (!item.there) return;
  const std::string& version = item.there->version.contentVersion;
  const bool isUnseen = item.isEdited() && !item.isUnderWay && item.content()->base != version;
  if (!isUnseen) mayGo_.insert(store_.tokenOf(version));
}

void ModelHost::setBytes(Item& item, Token token, bool isEdit) {
  ContentState state;
  if (item.content()) {
    state = item.content()->state;
  } else {
    state.number = ++lastNumber_;
    if (item.there) state.version = item.there->version.contentVersion;
  }
  bytes_[state.number] = token;
  state.sizeBytes = static_cast<std::int64_t>(token);
  state.present = {};
  state.present.add({0, state.sizeBytes});
  state.isEdited |= isEdit;
  if (isEdit) ++state.edits;
  state.fetchableBytes = isEdit ? 0 : state.sizeBytes;
  tree_->setContent(item, state);
}

void ModelHost::edit(Item& item) {
  const Token token = ++lastToken_;
  follow(token, visible(item));
  forgetToken(visible(item));
  if (!item.there && item.folder != nullptr) {
    const Item* before = tree_->occupant({item.folder->id, item.name()});
    if (before != nullptr) follow(token, visible(*before));
  }
  precious_.insert(token);
  setBytes(item, token, true);
}

void ModelHost::createHere() {
  Item* folder = someFolder();
  const std::string name = someName();
  if (!folder->part()->listing.isEnumerated || tree_->child(*folder, name) != nullptr) return;
  Item& item = tree_->create(*folder, name, percent(40), false);
  if (!item.isFolder) edit(item);
  if (percent(50)) item.node = ++lastNode_;
}

void ModelHost::removeHere(Item& item) {
  if (item.isFolder && !item.part()->listing.isEnumerated) return;
  if (item.isFolder) {
    while (!item.part()->children.empty()) {
      Item& child = **item.part()->children.begin();
      removeHere(child);
      if (child.isLinked()) return;
    }
  }
  mayGo(item);
  tree_->remove(item);
}

void ModelHost::moveHere(Item& item, Item& folder, const std::string& name) {
  if (!folder.part()->listing.isEnumerated || Tree::isWithin(folder, item)) return;
  for (const Item* at = &folder; at != nullptr; at = at->folder) {
    if (at->name() == "junk") return;  // what is at the store is not moved to where it cannot be
  }
  Item* replaced = tree_->child(folder, name);
  if (replaced == &item) return;
  if (replaced != nullptr) {
    if (replaced->isFolder != item.isFolder) return;
    const bool isFull = replaced->isFolder && (!replaced->part()->children.empty() ||
                                               !replaced->part()->listing.isEnumerated);
    if (isFull) return;
    mayGo(*replaced);
  }
  if (!item.isFolder) {
    const Item* before = tree_->occupant({folder.id, name});
    if (before != nullptr && before != &item) follow(visible(item), visible(*before));
    mayGo_.insert(visible(item));  // its old place may be cleared by a removal
    if (item.there) mayGo_.insert(store_.tokenOf(item.there->version.contentVersion));
  }
  tree_->move(item, folder, name);
}

// As programs save.
void ModelHost::save(Item& item) {
  Item& folder = *item.folder;
  const std::string name = item.name();
  if (item.isFolder || !folder.part()->listing.isEnumerated) return;
  const std::size_t way = below(3);
  if (way == 0) {
    if (tree_->child(folder, "temp") != nullptr) return;
    Item& written = tree_->create(folder, "temp", false, false);
    edit(written);
    takeEffects();
    if (percent(30)) begin(false);
    if (percent(30)) goOn(false);
    if (tree_->child(folder, "temp") == &written && item.isLinked())
      moveHere(written, folder, name);
    return;
  }
  if (way == 1) {
    if (tree_->child(folder, "backup") != nullptr) return;
    moveHere(item, folder, "backup");
  } else {
    removeHere(item);
  }
  takeEffects();
  // What the store got meanwhile may be there now.
  if (tree_->child(folder, name) == nullptr) edit(tree_->create(folder, name, false, false));
}

void ModelHost::readOrDrop(Item& item) {
  if (item.isFolder || !item.there) return;
  if (item.content()) {
    if (item.isEdited() || item.isUnderWay || item.content()->sendingSince != 0) return;
    bytes_.erase(item.content()->state.number);
    tree_->dropContent(item);
    return;
  }
  const auto key = store_.find(item.there->identifier);
  if (!key || store_.nodes().at(*key).version != item.there->version.contentVersion) return;
  setBytes(item, store_.nodes().at(*key).token, false);
  if (percent(50)) item.node = ++lastNode_;
}

void ModelHost::changeHere() {
  Item* item = someItem();
  const std::size_t what = below(100);
  if (item == nullptr || what < 15) {
    createHere();
  } else if (what < 35) {
    if (!item->isFolder) edit(*item);
  } else if (what < 45) {
    removeHere(*item);
  } else if (what < 65) {
    moveHere(*item, *someFolder(), someName());
  } else if (what < 75) {
    save(*item);
  } else if (what < 78) {
    Item* other = someItem();
    const bool isApart = !Tree::isWithin(*item, *other) && !Tree::isWithin(*other, *item);
    if (isApart) tree_->exchange(*item, *other);
  } else {
    for (int i = 0; i < 5; ++i) readOrDrop(*someItem());
  }
}

// ------------------------------------------------------------------------------------------- others

std::optional<ModelStore::Key> ModelHost::someKey(bool folder) {
  std::vector<Key> keys;
  if (folder) keys.push_back(ModelStore::kRoot);
  for (const auto& [key, node] : store_.nodes()) {
    if (!folder || node.isFolder) keys.push_back(key);
  }
  if (keys.empty()) return std::nullopt;
  return keys[below(keys.size())];
}

void ModelHost::changeThere() {
  const Key folder = *someKey(true);
  const std::optional<Key> key = someKey(false);
  const std::string name = someName();
  const std::size_t what = below(100);
  if (!key || what < 35) {
    const bool isFolder = percent(30);
    if (!store_.child(folder, name))
      store_.create(folder, name, isFolder, isFolder ? 0 : ++lastToken_, now());
  } else if (what < 60) {
    if (store_.nodes().at(*key).isFolder) return;
    forgetToken(store_.nodes().at(*key).token);
    store_.write(*key, ++lastToken_, now());
  } else if (what < 80) {
    if (!store_.child(folder, name) && !store_.isWithin(folder, *key))
      store_.move(*key, folder, name);
  } else if (what < 99) {
    for (const Key each : store_.tree(*key)) forgetToken(store_.nodes().at(each).token);
    store_.remove(*key);
  } else {
    for (const Key each : store_.tree(ModelStore::kRoot)) {
      if (!store_.nodes().contains(each)) continue;
      for (const Key gone : store_.tree(each)) forgetToken(store_.nodes().at(gone).token);
      store_.remove(each);
    }
  }
}

}  // namespace kestrune::host
