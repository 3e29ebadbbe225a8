// Finding an item by its number, its name in a folder, or its identifier: flat sets of pointers that read the key from the
// item, so that a known item takes a slot in each and no node.
//
// The part of an item that is its key must not change while it is in the set.
//
// Threads: as Item.
#pragma once

#include <boost/unordered/unordered_flat_set.hpp>
#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>

#include "host/tree/Item.h"

namespace kestrune::host {

/// Key policies: `Key` is what is asked for, `of` reads it from an item.
struct ByNumber {
  using Key = ItemId;
  static Key of(const Item& item) { return item.id; }
  static std::size_t hash(Key key) { return std::hash<ItemId>()(key); }
};

struct NameInFolder {
  const Item* folder;
  std::string_view name;
  bool operator==(const NameInFolder&) const = default;
};

struct ByName {
  using Key = NameInFolder;
  static Key of(const Item& item) { return {item.folder, item.name()}; }
  static std::size_t hash(const Key& key) {
    return std::hash<std::string_view>()(key.name) ^ (key.folder->id * 0x9e3779b97f4a7c15U);
  }
};

struct ByIdentifier {
  using Key = IdentifierView;
  static Key of(const Item& item) { return item.there->identifier; }
  /// The same however it is divided.
  static std::size_t hash(const Key& key) {
    if (key.tail.empty()) {
      const std::size_t length = prefixLength(key.head);
      return hash(key.head.substr(0, length), key.head.substr(length));
    }
    return hash(key.head, key.tail);
  }
  static std::size_t hash(std::string_view prefix, std::string_view name) {
    return std::hash<std::string_view>()(prefix) * 0x9e3779b97f4a7c15U ^
           std::hash<std::string_view>()(name);
  }
};

template <class By>
struct ItemKeyHash {
  using is_transparent = void;
  std::size_t operator()(const typename By::Key& key) const { return By::hash(key); }
  std::size_t operator()(const Item* item) const { return By::hash(By::of(*item)); }
  std::size_t operator()(const std::unique_ptr<Item>& item) const { return (*this)(item.get()); }
};

template <class By>
struct ItemKeyEqual {
  using is_transparent = void;
  static const typename By::Key& key(const typename By::Key& key) { return key; }
  static typename By::Key key(const Item* item) { return By::of(*item); }
  static typename By::Key key(const std::unique_ptr<Item>& item) { return By::of(*item); }
  bool operator()(const auto& a, const auto& b) const { return key(a) == key(b); }
};

template <class By, class Pointer = Item*>
using ItemIndex = boost::unordered_flat_set<Pointer, ItemKeyHash<By>, ItemKeyEqual<By>>;

}  // namespace kestrune::host
