// The items of a folder in the order of their numbers, which is the order in which names are read.
//
// Eight bytes an item and a little: short runs of pointers, so that a folder of any size takes additions and removals anywhere without
// moving much.
//
// Threads: as Item. Changes end every iteration.
#pragma once

#include <cstddef>
#include <iterator>
#include <vector>

#include "host/basics/NodeId.h"

namespace kestrune::host {

struct Item;

class ChildList {
  using Run = std::vector<Item*>;

 public:
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Item*;
    using difference_type = std::ptrdiff_t;
    using pointer = Item* const*;
    using reference = Item* const&;

    Iterator() = default;
    Iterator(const std::vector<Run>* runs, std::size_t run, std::size_t at)
        : runs_(runs), run_(run), at_(at) {}
    reference operator*() const { return (*runs_)[run_][at_]; }
    Iterator& operator++() {
      if (++at_ == (*runs_)[run_].size()) {
        ++run_;
        at_ = 0;
      }
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const Iterator&) const = default;

   private:
    const std::vector<Run>* runs_ = nullptr;
    std::size_t run_ = 0;
    std::size_t at_ = 0;
  };

  Iterator begin() const { return {&runs_, 0, 0}; }
  Iterator end() const { return {&runs_, runs_.size(), 0}; }
  /// The first whose number is greater than `id`.
  Iterator after(ItemId id) const;
  bool empty() const { return size_ == 0; }
  std::size_t size() const { return size_; }

  /// REQUIRES: it is not in the list.
  void insert(Item& item);
  /// REQUIRES: it is in the list.
  void erase(const Item& item);

 private:
  /// The run where the item is or belongs. REQUIRES: there is one.
  std::size_t runOf(ItemId id) const;

  std::vector<Run> runs_;  // none of them empty
  std::size_t size_ = 0;
};

}  // namespace kestrune::host
