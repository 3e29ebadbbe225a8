#include "companion/terminal/ProgressLine.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <string_view>

#include "companion/terminal/Screen.h"
#include "companion/terminal/TerminalText.h"

namespace kestrune {

namespace {

constexpr std::string_view kBegin = "\r\033[K";

// Progress that cannot be shown is no reason to fail.
void put(int descriptor, std::string_view bytes) {
  static_cast<void>(::write(descriptor, bytes.data(), bytes.size()) == 0);
}

}  // namespace

ProgressLine::ProgressLine(int descriptor)
    : descriptor_(descriptor), isTerminal_(Screen::isPossible(descriptor)) {}

ProgressLine::~ProgressLine() {
  if (hasShown_) put(descriptor_, kBegin);
}

void ProgressLine::show(const std::string& text) {
  if (!isTerminal_) return;
  hasShown_ = true;
  winsize size{};
  const bool isKnown = ::ioctl(descriptor_, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
  const std::size_t room = isKnown ? size.ws_col - 1U : 79U;
  put(descriptor_, std::string(kBegin) + fitted(text, room));
}

}  // namespace kestrune
