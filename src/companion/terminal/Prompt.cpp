#include "companion/terminal/Prompt.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "companion/terminal/Signals.h"
#include "host/basics/LocalFile.h"
#include "platform/values/NSError.h"

namespace kestrune {

namespace {

constexpr std::size_t kLongestLine = 64U << 10U;

/// Shows nothing of what is typed, while it lives.
class Quiet {
 public:
  Quiet(int terminal, Echo echo) : terminal_(terminal) {
    isChanged_ = echo == Echo::hidden && ::tcgetattr(terminal_, &before_) == 0;
    if (!isChanged_) return;
    termios quiet = before_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    ::tcsetattr(terminal_, TCSAFLUSH, &quiet);
  }
  ~Quiet() {
    if (isChanged_) ::tcsetattr(terminal_, TCSAFLUSH, &before_);
  }
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;

 private:
  const int terminal_;
  bool isChanged_ = false;
  termios before_{};
};

void put(int terminal, const std::string& text) {
  if (::write(terminal, text.data(), text.size()) < 0)
    throw platform::NSPOSIXError(errno, "write to the terminal");
}

// True when the line is whole.
bool readSome(int terminal, std::string& line) {
  std::array<char, 1024> piece{};
  const ssize_t got = ::read(terminal, piece.data(), piece.size());
  if (got < 0 && errno == EINTR) return false;
  if (got < 0) throw platform::NSPOSIXError(errno, "read from the terminal");
  line.append(piece.data(), static_cast<std::size_t>(got));
  return got == 0 || line.ends_with('\n') || line.size() > kLongestLine;
}

// The signal that came instead of a line; 0 if the line came.
int readLine(int terminal, const Signals& signals, std::string& line) {
  for (;;) {
    std::array<pollfd, 2> polled = {pollfd{signals.descriptor(), POLLIN, 0},
                                    pollfd{terminal, POLLIN, 0}};
    if (::poll(polled.data(), polled.size(), -1) < 0) continue;
    while (const auto signal = signals.take()) {
      if (*signal != SIGWINCH) return *signal;
    }
    if (polled[1].revents != 0 && readSome(terminal, line)) return 0;
  }
}

}  // namespace

std::string askAtTerminal(const std::string& question, Echo echo) {
  const host::Descriptor terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (terminal.number() < 0) throw platform::NSPOSIXError(errno, "ask at the terminal");
  const Signals signals;
  for (;;) {
    std::string line;
    int signal = 0;
    {
      const Quiet quiet(terminal.number(), echo);  // first: who types at once must not see it
      put(terminal.number(), question);
      signal = readLine(terminal.number(), signals, line);
    }
    if (signal == SIGTSTP) {
      ::kill(::getpid(), SIGSTOP);
      continue;
    }
    if (signal != 0) {
      put(terminal.number(), "\n");
      throw Interrupted(signal);
    }
    if (line.ends_with('\n')) line.pop_back();
    return line;
  }
}

}  // namespace kestrune
