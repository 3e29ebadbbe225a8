// Which watch stands for which folder of the tree: each knows its name and the watch of the folder above it, so that a
// folder that moves takes along all that is below it in one step.
//
// It says where folders were when they were last looked at; whether they still are is asked of the tree.
//
// Threads: one at a time.
#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kestrune::service {

class WatchedFolders {
 public:
  /// Stands above the root, and for a folder that has no watch.
  static constexpr int kNone = -1;

  bool has(int watch) const { return folders_.contains(watch); }
  std::size_t count() const { return folders_.size(); }
  /// The watch of the folder above.
  /// REQUIRES: has(watch).
  int above(int watch) const { return folders_.at(watch).above; }
  /// REQUIRES: has(watch).
  const std::string& name(int watch) const { return folders_.at(watch).name; }
  /// "/Docs/2024" by what is known; empty for the root. Nothing if the watch is not known.
  std::optional<std::string> pathOf(int watch) const;

  /// The folder of `watch`, new or known, is `name` in `above` (kNone for the root). False, with nothing changed, if it would
  /// then lie in itself.
  /// REQUIRES: `above` is known, or kNone.
  bool put(int watch, int above, const std::string& name);
  /// Forgets the folder and all below it, and returns their watches.
  std::vector<int> forget(int watch);
  void clear();

 private:
  struct Folder {
    int above;
    std::string name;
  };
  bool isWithin(int watch, int folder) const;

  std::unordered_map<int, Folder> folders_;
  /// Each watch after the one of the folder above it.
  std::set<std::pair<int, int>> children_;
};

}  // namespace kestrune::service
