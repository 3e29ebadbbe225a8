#include "companion/terminal/Signals.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>

#include "platform/values/NSError.h"

namespace kestrune {

namespace {

sigset_t concerned() {
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGTSTP, SIGWINCH})
    ::sigaddset(&signals, signal);
  return signals;
}

int blocked() {
  const sigset_t signals = concerned();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

}  // namespace

Signals::Signals() : descriptor_(blocked()) {
  if (descriptor_.number() < 0) throw platform::NSPOSIXError(errno, "wait for signals");
}

Signals::~Signals() {
  const sigset_t signals = concerned();
  ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

std::optional<int> Signals::take() const {
  signalfd_siginfo info{};
  if (::read(descriptor_.number(), &info, sizeof info) != sizeof info) return std::nullopt;
  return static_cast<int>(info.ssi_signo);
}

}  // namespace kestrune
