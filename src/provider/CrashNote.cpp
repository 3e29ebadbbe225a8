#include "provider/CrashNote.h"

#include <execinfo.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstring>

namespace kestrune::provider {

namespace {

constexpr int kMostCalls = 64;
constexpr std::array kSignals = {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL, SIGTRAP, SIGSYS};

int noteDescriptor = -1;  // set before the handlers are

void note(const char* text) {
  if (::write(noteDescriptor, text, std::strlen(text)) < 0) return;  // nobody can be told
}

// Only what may be called in a handler: the description of a signal is a constant, the symbols are written without memory being
// asked for.
void noteCrash(int signal, siginfo_t*, void*) {
  note("signal: ");
  const char* name = ::sigabbrev_np(signal);
  note(name != nullptr ? name : "unknown");
  note("\ncalls, the last one first:\n");
  std::array<void*, kMostCalls> calls{};
  const int count = ::backtrace(calls.data(), kMostCalls);
  ::backtrace_symbols_fd(calls.data(), count, noteDescriptor);
  ::raise(signal);  // the handler is gone (SA_RESETHAND): it ends the program when this returns
}

}  // namespace

void noteCrashesIn(int descriptor) {
  noteDescriptor = descriptor;
  // The first call loads a library, which a handler must not.
  std::array<void*, 1> call{};
  ::backtrace(call.data(), 1);
  struct sigaction action = {};
  action.sa_sigaction = &noteCrash;
  action.sa_flags = static_cast<int>(SA_SIGINFO | SA_RESETHAND);
  for (const int signal : kSignals) ::sigaction(signal, &action, nullptr);
}

}  // namespace kestrune::provider
