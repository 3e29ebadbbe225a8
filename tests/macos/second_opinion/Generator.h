// Reproducible texts: the same seed gives the same texts with every compiler and library.
//
// Threads: one thread at a time.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace kestrune::second_opinion {

/// KESTRUNE_SEED from the environment, or always the same: a difference found once is found again.
std::uint64_t seedFromEnvironment();

class Generator {
 public:
  explicit Generator(std::uint64_t seed) : random_(seed) {}

  /// From 0 to `bound` - 1. REQUIRES: `bound` is positive.
  std::size_t below(std::size_t bound) { return static_cast<std::size_t>(random_() % bound); }

  /// True one time in `times`.
  bool oneIn(std::size_t times) { return below(times) == 0; }

  std::string_view pick(const std::vector<std::string_view>& texts) {
    return texts[below(texts.size())];
  }

  /// Up to `most` of the pieces, one after the other.
  std::string joined(const std::vector<std::string_view>& pieces, std::size_t most) {
    std::string text;
    for (std::size_t left = below(most + 1); left > 0; --left) text += pick(pieces);
    return text;
  }

 private:
  std::mt19937_64 random_;
};

}  // namespace kestrune::second_opinion
