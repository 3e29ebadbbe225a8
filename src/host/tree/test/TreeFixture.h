// A tree with a clock that stands still unless told, and short words for what the store says.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/tree/Tree.h"
#include "host/tree/test/TreeCheck.h"

namespace kestrune::host {

class TreeFixture : public testing::Test {
 protected:
  ~TreeFixture() override { check(); }

  /// A file: its version and its size say what is in it.
  static ItemRecord file(const std::string& identifier, const std::string& name, int contents = 1) {
    ItemRecord record = folder(identifier, name);
    record.isFolder = false;
    record.sizeBytes = contents;
    record.contentVersion = "v" + std::to_string(contents);
    record.modified = platform::Date(std::chrono::seconds(100));
    return record;
  }
  static ItemRecord folder(const std::string& identifier, const std::string& name) {
    ItemRecord record;
    record.identifier = identifier;
    record.name = name;
    record.isFolder = true;
    record.contentVersion = "";
    return record;
  }
  static ReportedChange update(const ItemRecord& record) {
    return {ReportedChange::Kind::update, record};
  }
  static ReportedChange deletion(const std::string& identifier) {
    return {ReportedChange::Kind::deletion, file(identifier, "")};
  }

  void list(Item& folder, const std::vector<ItemRecord>& items) {
    tree_->applyListing(folder, items, "anchor", tree_->moment());
    check();
  }
  void list(const std::vector<ItemRecord>& items) { list(root(), items); }
  void change(const std::vector<ReportedChange>& changes) {
    tree_->applyChanges(root(), changes, "next", tree_->moment());
    check();
  }
  /// Edits, or for `edits` 0 fetches, the whole of a file.
  void fill(Item& item, std::int64_t sizeBytes, std::uint64_t edits = 0) {
    ContentState state;
    state.number = item.content() ? item.content()->state.number : ++lastNumber_;
    state.sizeBytes = sizeBytes;
    state.present.add({0, sizeBytes});
    state.edits = edits;
    state.isEdited = edits != 0;
    tree_->setContent(item, state);
    check();
  }
  Item& make(const std::string& name, std::int64_t sizeBytes = 5) {
    Item& item = tree_->create(root(), name, false, false);
    fill(item, sizeBytes, 1);
    return item;
  }
  /// The store takes the item's contents, or its creation.
  void send(Item& item, const ItemRecord& answer) {
    const platform::Date began = now_;
    const std::uint64_t edits = item.content() ? item.content()->state.edits : 0;
    const auto to = item.there ? std::nullopt : std::optional(Place{item.folder->id, item.name()});
    tree_->beginSending(item, item.sizeBytes, edits, to);
    if (item.there) {
      tree_->sent(item, answer, edits, began);
    } else {
      tree_->created(item, {item.folder->id, item.name()}, answer, edits, began);
    }
    tree_->endChange(item);
    check();
  }
  void restart() {
    check();
    const ItemId next = tree_->nextItem();
    tree_ = std::make_unique<Tree>(setting());
    kestrune::host::restore(*tree_, check_.rows(), next);
    check_.restarted(*tree_);
  }
  const TreeEffects& check() { return effects_ = check_.after(*tree_); }

  Tree& tree() { return *tree_; }
  Item& root() { return tree_->root(); }
  /// Null if nobody has the path's name.
  Item* at(const std::string& name) { return tree_->child(root(), name); }
  std::vector<std::string> names(const Item& folder) const {
    std::vector<std::string> names;
    for (const Item* child : folder.part()->children) names.push_back(child->name());
    std::sort(names.begin(), names.end());
    return names;
  }
  std::vector<std::string> names() { return names(root()); }
  std::vector<Change> ready() {
    const std::vector<ItemId> ids(tree_->differing().begin(), tree_->differing().end());
    return readyChanges(*tree_->outgoing(), ids, {}, 100);
  }
  Tree::Setting setting() {
    return {"here", [this] { return now_; }, "root"};
  }

  platform::Date now_{std::chrono::seconds(1'000'000)};
  std::unique_ptr<Tree> tree_ = std::make_unique<Tree>(setting());
  TreeCheck check_;
  TreeEffects effects_;
  ContentNumber lastNumber_ = 0;
};

inline const std::string kConflict = " (conflict here 1970-01-12 13.46)";

}  // namespace kestrune::host
