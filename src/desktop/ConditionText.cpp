#include "desktop/ConditionText.h"

#include <algorithm>

#include "desktop/Bus.h"

namespace kestrune::desktop {

std::vector<std::string> problemsOf(const host::HostCondition& condition,
                                    const host::PendingChanges& pending, std::size_t most) {
  std::vector<std::string> problems;
  if (condition.isSignedOut || !condition.isStoreReachable.value_or(true))
    problems.push_back(text(condition.storeError));
  if (condition.heldDeletionCount > 0)
    problems.push_back(std::to_string(condition.heldDeletionCount) + " deletions are held back");
  if (condition.extension && !condition.extension->refusal.empty())
    problems.push_back(text(condition.extension->refusal));
  for (const host::PendingChange& change : pending.changes) {
    if (problems.size() == most) break;
    if (change.isRefused) problems.push_back(text(change.path) + ": " + text(change.reason));
  }
  return problems;
}

std::string conditionText(const host::HostCondition& condition,
                          const host::PendingChanges& pending) {
  // More than that no notification shows.
  constexpr std::size_t kMostShown = 4;
  std::string lines = pending.count == 0 ? "Everything is at the store."
                      : pending.count == 1
                          ? "1 change is not at the store yet."
                          : std::to_string(pending.count) + " changes are not at the store yet.";
  if (condition.conflictCount > 0) {
    lines += "\n" + std::to_string(condition.conflictCount) +
             (condition.conflictCount == 1 ? " version lies" : " versions lie") +
             " beside the store's.";
  }
  const auto problems = problemsOf(condition, pending, kMostShown + 1);
  for (std::size_t i = 0; i < std::min(kMostShown, problems.size()); ++i)
    lines += "\n" + problems[i];
  if (problems.size() > kMostShown) lines += "\nand more, which kestrune status tells";
  return lines;
}

}  // namespace kestrune::desktop
