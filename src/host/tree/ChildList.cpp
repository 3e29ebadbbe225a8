#include "host/tree/ChildList.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "host/tree/Item.h"

namespace kestrune::host {

namespace {

constexpr std::size_t kLongestRun = 256;

bool isBefore(const Item* item, ItemId id) { return item->id < id; }

}  // namespace

std::size_t ChildList::runOf(ItemId id) const {
  const auto next = std::upper_bound(runs_.begin(), runs_.end(), id,
                                     [](ItemId a, const Run& run) { return a < run.front()->id; });
  return next == runs_.begin() ? 0 : static_cast<std::size_t>(next - runs_.begin()) - 1;
}

ChildList::Iterator ChildList::after(ItemId id) const {
  if (runs_.empty()) return end();
  const std::size_t number = runOf(id);
  const Run& run = runs_[number];
  const auto at = std::lower_bound(run.begin(), run.end(), id + 1, isBefore);
  if (at == run.end()) return {&runs_, number + 1, 0};
  return {&runs_, number, static_cast<std::size_t>(at - run.begin())};
}

void ChildList::insert(Item& item) {
  if (size_++ == 0) {
    runs_.push_back({&item});
    return;
  }
  std::size_t number = runOf(item.id);
  if (runs_[number].size() == kLongestRun) {
    const auto next = runs_.begin() + static_cast<std::ptrdiff_t>(number) + 1;
    Run& full = runs_[number];
    const bool isNext = full.back()->id < item.id;  // mostly: numbers grow
    const std::size_t keeps = isNext ? kLongestRun : kLongestRun / 2;
    Run rest(full.begin() + static_cast<std::ptrdiff_t>(keeps), full.end());
    full.resize(keeps);
    runs_.insert(next, std::move(rest));
    if (isNext || runs_[number + 1].front()->id < item.id) ++number;
  }
  Run& run = runs_[number];
  run.insert(std::lower_bound(run.begin(), run.end(), item.id, isBefore), &item);
}

void ChildList::erase(const Item& item) {
  const std::size_t number = runOf(item.id);
  Run& run = runs_[number];
  const auto at = std::lower_bound(run.begin(), run.end(), item.id, isBefore);
  assert(at != run.end() && *at == &item);
  run.erase(at);
  --size_;
  if (run.empty()) {
    runs_.erase(runs_.begin() + static_cast<std::ptrdiff_t>(number));
  } else if (run.size() <= run.capacity() / 4) {
    run.shrink_to_fit();
  }
}

}  // namespace kestrune::host
