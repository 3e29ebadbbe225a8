// Whether a tree agrees with itself, and with a database that has been told of every change that the tree reported.
#pragma once

#include <map>
#include <set>
#include <vector>

#include "host/tree/Tree.h"

namespace kestrune::host {

class TreeCheck {
 public:
  /// Takes the effects, forgets what is gone, brings the rows into the database, then checks everything. What is wrong
  /// is reported as failures of the test. The answer has the effects of all.
  TreeEffects after(Tree& tree);
  /// What a restart finds.
  std::vector<ItemRow> rows() const;
  /// The tree was made from `rows()`.
  void restarted(Tree& tree);

 private:
  void persist(Tree& tree, const TreeEffects& effects);
  void compareRows(Tree& tree) const;
  void checkHere(Tree& tree) const;
  void checkThere(Tree& tree);

  std::map<ItemId, ItemRow> database_;
  /// Whatever was there once: nobody must be found by what is not theirs any more.
  std::set<Place> places_;
  std::set<std::string> identifiers_;
};

/// Makes a new tree of the rows of an earlier one.
void restore(Tree& tree, const std::vector<ItemRow>& rows, ItemId nextItem);

}  // namespace kestrune::host
