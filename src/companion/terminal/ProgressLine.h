// A line of a terminal that is written over again and again, and gone at the end: what a long command is doing. Nothing where the
// descriptor is no terminal.
//
// Threads: one at a time.
#pragma once

#include <string>

namespace kestrune {

class ProgressLine {
 public:
  explicit ProgressLine(int descriptor);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  bool isShown() const { return isTerminal_; }
  /// `text` holds no control characters.
  void show(const std::string& text);

 private:
  const int descriptor_;
  const bool isTerminal_;
  bool hasShown_ = false;
};

}  // namespace kestrune
