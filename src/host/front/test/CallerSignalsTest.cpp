#include "host/front/CallerSignals.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <sstream>
#include <string>

namespace kestrune::host {
namespace {

std::string maskOf(int signal) {
  std::ostringstream text;
  text.width(16);
  text.fill('0');
  text << std::hex << (signal == 0 ? 0 : std::uint64_t{1} << static_cast<unsigned>(signal - 1));
  return text.str();
}

struct Masks {
  int ofThread = 0;
  int ofProcess = 0;
  int blocked = 0;
  int ignored = 0;
  int caught = 0;
};

std::string statusWith(const Masks& masks) {
  return "Name:\tls\nState:\tD (disk sleep)\nSigQ:\t1/95920\nSigPnd:\t" + maskOf(masks.ofThread) +
         "\nShdPnd:\t" + maskOf(masks.ofProcess) + "\nSigBlk:\t" + maskOf(masks.blocked) +
         "\nSigIgn:\t" + maskOf(masks.ignored) + "\nSigCgt:\t" + maskOf(masks.caught) +
         "\nCapInh:\t0000000000000000\n";
}

TEST(CallerSignalsTest, WhatIsPendingForThreadOrProcessEndsTheCall) {
  EXPECT_TRUE(endsCall(statusWith({.ofThread = SIGKILL})));
  EXPECT_TRUE(endsCall(statusWith({.ofProcess = SIGTERM})));
  EXPECT_TRUE(endsCall(statusWith({.ofProcess = SIGINT, .caught = SIGINT})));
  EXPECT_TRUE(endsCall(statusWith({.ofThread = SIGALRM, .caught = SIGALRM})));
  EXPECT_TRUE(endsCall(statusWith({.ofThread = 64, .caught = 64})));
}

TEST(CallerSignalsTest, AThreadThatIsStoppedTracedOrFrozenStays) {
  EXPECT_FALSE(endsCall(statusWith({})));
  for (const int signal : {SIGSTOP, SIGTSTP, SIGTTIN, SIGTTOU})
    EXPECT_FALSE(endsCall(statusWith({.ofProcess = signal}))) << signal;
}

TEST(CallerSignalsTest, WhoHandlesItsOwnStopLeavesItsCall) {
  EXPECT_TRUE(endsCall(statusWith({.ofProcess = SIGTSTP, .caught = SIGTSTP})));
}

TEST(CallerSignalsTest, WhatRuntimesAndShellsLiveWithCanWait) {
  for (const int signal : {SIGCHLD, SIGCONT, SIGURG, SIGWINCH, SIGPROF, SIGVTALRM})
    EXPECT_FALSE(endsCall(statusWith({.ofThread = signal, .caught = signal}))) << signal;
}

TEST(CallerSignalsTest, WhatIsBlockedOrIgnoredIsNotHandled) {
  EXPECT_FALSE(endsCall(statusWith({.ofProcess = SIGTERM, .blocked = SIGTERM})));
  EXPECT_FALSE(endsCall(statusWith({.ofThread = SIGHUP, .ignored = SIGHUP})));
}

TEST(CallerSignalsTest, WhoCannotBeLookedAtIsTakenToHaveASignal) {
  EXPECT_TRUE(endsCall(""));
  EXPECT_TRUE(endsCall("Name:\tls\nSigPnd:\t0000000000000000\n"));
  EXPECT_TRUE(endsCall("\nSigPnd:\tx\nShdPnd:\tx\nSigBlk:\tx\nSigIgn:\tx\nSigCgt:\tx\n"));
  EXPECT_TRUE(signalEndsCallOf(0));  // the kernel's word for a thread in another name space
}

TEST(CallerSignalsTest, AThreadIsLookedAtInProc) {
  EXPECT_FALSE(signalEndsCallOf(static_cast<pid_t>(::syscall(SYS_gettid))));
}

}  // namespace
}  // namespace kestrune::host
