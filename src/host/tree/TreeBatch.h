// What is known while one answer of the store is brought in.
//
// Threads: as the tree.
#pragma once

#include <cstdint>
#include <string_view>
#include <unordered_set>

#include "host/tree/Tree.h"

namespace kestrune::host {

struct Tree::Batch {
  /// When the store was asked.
  std::uint64_t asOf = 0;
  /// Names and identifiers that it has shown so far.
  std::unordered_set<std::string_view> names;
  std::unordered_set<std::string_view> identifiers;
  /// Items that it shows, whatever it says of the folders that they were in.
  Kept kept;
  /// Those that have left their old place here and have no new one yet.
  Kept leaving;
  /// Something was not believed, since it may be older than what was sent from here.
  bool isDoubtful = false;
  /// An item that was shown can not be shown as it is now.
  bool hasLostSight = false;
};

}  // namespace kestrune::host
