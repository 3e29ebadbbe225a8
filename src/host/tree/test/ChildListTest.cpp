#include "host/tree/ChildList.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>

#include "host/tree/Item.h"

namespace kestrune::host {

namespace {

class ChildListTest : public testing::Test {
 protected:
  void insert(ItemId id) {
    std::unique_ptr<Item>& item = items_[id];
    item = std::make_unique<Item>(id, false);
    list_.insert(*item);
  }
  void erase(ItemId id) {
    list_.erase(*items_.at(id));
    items_.erase(id);
  }
  void check() const {
    ASSERT_EQ(list_.size(), items_.size());
    EXPECT_EQ(list_.empty(), items_.empty());
    auto expected = items_.begin();
    for (const Item* item : list_) {
      ASSERT_NE(expected, items_.end());
      ASSERT_EQ(item, expected->second.get());
      ++expected;
    }
    EXPECT_EQ(expected, items_.end());
  }
  void checkAfter(ItemId id) const {
    const auto expected = items_.upper_bound(id);
    const auto found = list_.after(id);
    if (expected == items_.end()) {
      EXPECT_EQ(found, list_.end());
    } else {
      ASSERT_NE(found, list_.end());
      EXPECT_EQ(*found, expected->second.get());
    }
  }

  ChildList list_;
  std::map<ItemId, std::unique_ptr<Item>> items_;
};

}  // namespace

TEST_F(ChildListTest, KeepsTheOrderOfNumbersWhateverComesAndGoes) {
  std::mt19937_64 random(1);
  for (const std::size_t most : {3U, 300U, 3000U}) {
    for (int step = 0; step < 20'000; ++step) {
      const ItemId id = 2 + random() % (2 * most);
      if (items_.contains(id)) {
        erase(id);
      } else if (items_.size() < most) {
        insert(id);
      }
      checkAfter(random() % (2 * most));
      if (step % 500 == 0) check();
    }
    check();
  }
}

TEST_F(ChildListTest, TakesAndLosesManyInOrderAndAgainstIt) {
  constexpr ItemId kMany = 2000;
  for (ItemId id = 2; id < kMany; ++id) insert(id);
  check();
  for (ItemId id = 2; id < kMany; ++id) erase(id);
  check();
  for (ItemId id = kMany; id > 1; --id) insert(id);
  check();
  for (ItemId id = kMany; id > 1; --id) erase(id);
  check();
}

}  // namespace kestrune::host
