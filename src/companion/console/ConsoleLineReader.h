// The console's input, line by line, with a bound on what one line may take in memory.
//
// Threads: belongs to one thread. Fails: never; an input that breaks off reads as ended.
#pragma once

#include <cstddef>
#include <istream>
#include <optional>
#include <string>

namespace kestrune {

class ConsoleLineReader {
 public:
  /// Far beyond any call: the longest name a thousand items of an action.
  static constexpr std::size_t kDefaultLimitBytes = std::size_t{64} << 20U;

  struct Line {
    std::string text;    // without the line feed; cut at the limit
    bool isCut = false;  // the line was longer; its rest has been skipped
  };

  /// REQUIRES: `input` outlives the reader.
  explicit ConsoleLineReader(std::istream& input, std::size_t limitBytes = kDefaultLimitBytes)
      : input_(input), limitBytes_(limitBytes) {}

  /// The next line, or nothing at the end of the input. A last line without a line feed counts,
  /// unless it is empty.
  std::optional<Line> next();

 private:
  std::istream& input_;
  const std::size_t limitBytes_;
};

}  // namespace kestrune
