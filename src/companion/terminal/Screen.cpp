#include "companion/terminal/Screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "platform/values/NSError.h"

namespace kestrune {

namespace {

// Control sequences of ECMA-48 and xterm, which terminals of the last decades understand.
constexpr const char* kEnter = "\033[?1049h\033[?25l";  // another page, no cursor
constexpr const char* kLeave = "\033[?25h\033[?1049l";
constexpr const char* kHome = "\033[H";
constexpr const char* kClearLine = "\033[K";
constexpr const char* kClearBelow = "\033[J";

}  // namespace

bool Screen::isPossible(int descriptor) {
  const char* kind = std::getenv("TERM");
  return ::isatty(descriptor) != 0 && kind != nullptr && *kind != '\0' &&
         std::string_view(kind) != "dumb";
}

void Screen::enter() {
  if (isEntered_) return;
  isEntered_ = true;
  changedInput_ = ::isatty(input_) != 0 && ::tcgetattr(input_, &before_) == 0;
  if (changedInput_) {
    termios quiet = before_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON);
    ::tcsetattr(input_, TCSADRAIN, &quiet);
  }
  put(kEnter);
}

void Screen::leave() {
  if (!isEntered_) return;
  isEntered_ = false;
  if (changedInput_) ::tcsetattr(input_, TCSADRAIN, &before_);
  try {
    put(kLeave);
  } catch (const platform::NSError&) {  // the terminal is gone, and with it what was to be put back
  }
}

ScreenSize Screen::size() const {
  winsize told{};
  if (::ioctl(output_, TIOCGWINSZ, &told) != 0 || told.ws_col == 0 || told.ws_row == 0) return {};
  return {told.ws_col, told.ws_row};
}

void Screen::draw(const std::vector<std::string>& lines) {
  const std::size_t room = size().lines;
  std::string bytes = kHome;
  for (std::size_t i = 0; i < std::min(room, lines.size()); ++i) {
    if (i > 0) bytes += "\r\n";
    bytes += lines[i] + kClearLine;
  }
  put(bytes + kClearBelow);
}

void Screen::put(const std::string& bytes) const {
  for (std::size_t at = 0; at < bytes.size();) {
    const ssize_t went = ::write(output_, bytes.data() + at, bytes.size() - at);
    if (went < 0 && errno == EINTR) continue;
    if (went < 0) throw platform::NSPOSIXError(errno, "write to the terminal");
    at += static_cast<std::size_t>(went);
  }
}

}  // namespace kestrune
