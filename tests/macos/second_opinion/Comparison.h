// Two answers to one question, for many inputs. Where they differ, one of the accepted classes of
// differences must cover the input, or the comparison fails; and so does a class that covers nothing,
// because it explains what does not happen.
//
// Threads: one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrune::second_opinion {

/// An answer as text; none where the input is refused.
using Answer = std::optional<std::string>;

struct Difference {
  std::string input;
  Answer ours;
  Answer theirs;
};

struct AcceptedDifference {
  const char* why;  // who says that ours is right
  std::function<bool(const Difference&)> covers;
};

class Comparison {
 public:
  /// `seed` is what the inputs were generated from; it is printed with each failure.
  Comparison(std::uint64_t seed, std::vector<AcceptedDifference> accepted);

  void compare(const std::string& input, const Answer& ours, const Answer& theirs);

  /// Fails the test for each class that covered nothing, and if the two never agreed on a value; says
  /// on the standard output how often they did.
  void finish() const;

 private:
  const std::uint64_t seed_;
  const std::vector<AcceptedDifference> accepted_;
  std::vector<std::int64_t> covered_;  // inputs of each class
  std::int64_t sameValue_ = 0;
  std::int64_t bothRefused_ = 0;
  std::int64_t unexplained_ = 0;
};

}  // namespace kestrune::second_opinion
