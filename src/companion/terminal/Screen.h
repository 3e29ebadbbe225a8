// The terminal as a page that is drawn again and again. What was there before comes back at the end.
//
// Threads: one at a time. Owns: the state of the terminal, from `enter` to `leave` or the destructor.
#pragma once

#include <termios.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kestrune {

struct ScreenSize {
  std::size_t columns = 80;
  std::size_t lines = 24;
};

class Screen {
 public:
  /// Draws to `output`; keys come from `input` unseen, if that is a terminal too.
  Screen(int output, int input) : output_(output), input_(input) {}
  ~Screen() { leave(); }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  /// Whether a page can be drawn to `descriptor`: a terminal that $TERM says moves its cursor.
  static bool isPossible(int descriptor);

  void enter();
  void leave();
  ScreenSize size() const;
  /// As many of the lines as there is room for; none is longer than the page is wide. Throws NSPOSIXError where the terminal has gone.
  void draw(const std::vector<std::string>& lines);

 private:
  void put(const std::string& bytes) const;

  const int output_;
  const int input_;
  bool isEntered_ = false;
  bool changedInput_ = false;
  termios before_{};
};

}  // namespace kestrune
