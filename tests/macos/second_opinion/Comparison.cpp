#include "Comparison.h"

#include <gtest/gtest.h>

#include <iostream>

namespace kestrune::second_opinion {

namespace {

// A rule that is wrong is wrong for a thousand inputs; the first few show it.
constexpr std::int64_t kShownDifferences = 12;
constexpr std::size_t kShownBytes = 600;

std::string shown(const Answer& answer) {
  if (!answer) return "(refused)";
  if (answer->size() <= kShownBytes) return testing::PrintToString(*answer);
  return testing::PrintToString(answer->substr(0, kShownBytes)) + "… of " +
         std::to_string(answer->size()) + " bytes";
}

}  // namespace

Comparison::Comparison(std::uint64_t seed, std::vector<AcceptedDifference> accepted)
    : seed_(seed), accepted_(std::move(accepted)), covered_(accepted_.size()) {}

void Comparison::compare(const std::string& input, const Answer& ours, const Answer& theirs) {
  if (ours == theirs) {
    ++(ours ? sameValue_ : bothRefused_);
    return;
  }
  const Difference difference{input, ours, theirs};
  for (std::size_t i = 0; i < accepted_.size(); ++i) {
    if (!accepted_[i].covers(difference)) continue;
    ++covered_[i];
    return;
  }
  if (++unexplained_ > kShownDifferences) return;
  ADD_FAILURE() << "seed " << seed_ << ", input " << shown(input) << "\n  ours:   " << shown(ours)
                << "\n  theirs: " << shown(theirs);
}

void Comparison::finish() const {
  std::cout << "seed " << seed_ << ": same value " << sameValue_ << ", both refuse " << bothRefused_
            << "\n";
  for (std::size_t i = 0; i < accepted_.size(); ++i) {
    std::cout << "  " << covered_[i] << " differ: " << accepted_[i].why << "\n";
    EXPECT_GT(covered_[i], 0) << "explains nothing: " << accepted_[i].why;
  }
  EXPECT_GT(sameValue_, 0) << "the two never agreed on a value";
  EXPECT_EQ(unexplained_, 0) << "differences that nothing explains";
}

}  // namespace kestrune::second_opinion
