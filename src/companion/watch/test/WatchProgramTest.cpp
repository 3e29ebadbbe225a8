// `kestrune status --watch` on a terminal and on a pipe, beside a host in the test's hands.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <string>

#include "companion/control/HostFinder.h"
#include "host/control/test/FakeHostControl.h"
#include "tests/console/ChildProgram.h"
#include "tests/support/IsolatedStorage.h"
#include "tests/support/ScopedEnvironment.h"

namespace kestrune {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* kEnter = "\033[?1049h";
constexpr const char* kLeave = "\033[?25h\033[?1049l";

/// `kestrune` with a terminal of its own.
class OnTerminal {
 public:
  OnTerminal(unsigned short columns, unsigned short lines) {
    winsize size{lines, columns, 0, 0};
    pid_ = ::forkpty(&terminal_, nullptr, nullptr, &size);
    if (pid_ == 0) {
      const std::string program = std::string(KESTRUNE_BIN_DIR) + "/kestrune";
      ::execl(program.c_str(), "kestrune", "status", "--watch", nullptr);
      ::_exit(127);
    }
  }
  ~OnTerminal() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    ::close(terminal_);
  }
  OnTerminal(const OnTerminal&) = delete;
  OnTerminal& operator=(const OnTerminal&) = delete;

  void resize(unsigned short columns, unsigned short lines) const {
    const winsize size{lines, columns, 0, 0};
    ASSERT_EQ(::ioctl(terminal_, TIOCSWINSZ, &size), 0);
  }
  void type(char key) const { ASSERT_EQ(::write(terminal_, &key, 1), 1); }
  void signal(int number) const { ASSERT_EQ(::kill(pid_, number), 0); }
  bool echoes() const {
    termios state{};
    return ::tcgetattr(terminal_, &state) == 0 && (state.c_lflag & ECHO) != 0;
  }
  /// All that came until `text` did, since the last call.
  std::string readUntil(const std::string& text) {
    std::string seen;
    while (seen.find(text) == std::string::npos) {
      pollfd polled{terminal_, POLLIN, 0};
      std::array<char, 4096> piece{};
      if (::poll(&polled, 1, 10'000) <= 0) break;
      const ssize_t got = ::read(terminal_, piece.data(), piece.size());
      if (got <= 0) break;
      seen.append(piece.data(), static_cast<std::size_t>(got));
    }
    EXPECT_THAT(seen, HasSubstr(text));
    return seen;
  }
  /// The exit code, and the last of what it wrote.
  int end(std::string& rest) {
    for (;;) {
      std::array<char, 4096> piece{};
      pollfd polled{terminal_, POLLIN, 0};
      if (::poll(&polled, 1, 10'000) <= 0) break;
      const ssize_t got = ::read(terminal_, piece.data(), piece.size());
      if (got <= 0) break;
      rest.append(piece.data(), static_cast<std::size_t>(got));
    }
    int status = 0;
    if (::waitpid(pid_, &status, 0) != pid_) return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t pid_ = -1;
  int terminal_ = -1;
};

class WatchProgram : public testing::Test {
 protected:
  WatchProgram() {
    control.setPending("/", {});
    options.socketFile = controlSocketFile("main");
    options.domainIdentifier = "main";
    options.mountPoint = "/mnt/k";
    server = std::make_unique<host::ControlServer>(options, control);
  }
  void setKnownItems(std::uint64_t count) {
    host::HostStatus status;
    status.knownItems = count;
    control.setStatus(status);
  }

  support::TemporaryDirectory runtime;
  support::IsolatedStorage storage;
  support::ScopedEnvironment variable{"XDG_RUNTIME_DIR", runtime.path().string()};
  support::ScopedEnvironment kind{"TERM", "xterm"};
  host::FakeHostControl control;
  host::ControlOptions options;
  std::unique_ptr<host::ControlServer> server;
};

TEST_F(WatchProgram, DrawsAPageAndPutsTheTerminalBackOnControlC) {
  OnTerminal program(80, 24);
  const std::string first = program.readUntil("Transfers (0)");
  EXPECT_THAT(first, HasSubstr(kEnter));
  EXPECT_THAT(first, HasSubstr("Kestrune  /mnt/k"));
  EXPECT_FALSE(program.echoes());
  setKnownItems(77);
  program.readUntil("of 77 items");
  program.type('\x03');
  std::string rest;
  EXPECT_EQ(program.end(rest), 130);
  EXPECT_TRUE(rest.ends_with(kLeave)) << rest;
  EXPECT_TRUE(program.echoes());
}

TEST_F(WatchProgram, QEndsItAndSignalsDoToo) {
  std::string rest;
  {
    OnTerminal program(80, 24);
    program.readUntil("Transfers");
    program.type('q');
    EXPECT_EQ(program.end(rest), 0);
  }
  OnTerminal program(80, 24);
  program.readUntil("Transfers");
  program.signal(SIGTERM);
  rest.clear();
  EXPECT_EQ(program.end(rest), 143);
  EXPECT_TRUE(rest.ends_with(kLeave));
}

TEST_F(WatchProgram, FollowsTheTerminalsSize) {
  OnTerminal program(80, 24);
  program.readUntil("Kestrune  /mnt/k");
  program.resize(12, 24);
  program.readUntil("Kestrune  /~");
}

TEST_F(WatchProgram, WithoutColorsWhereTheyAreNotWanted) {
  const support::ScopedEnvironment plain("NO_COLOR", "1");
  OnTerminal program(80, 24);
  EXPECT_THAT(program.readUntil("Transfers (0)"), Not(HasSubstr("\033[1m")));
}

TEST_F(WatchProgram, WaitsForAHostThatGoesAway) {
  OnTerminal program(80, 24);
  program.readUntil("Transfers");
  server = nullptr;
  program.readUntil("No host answers");
  server = std::make_unique<host::ControlServer>(options, control);
  program.readUntil("Transfers");
}

TEST_F(WatchProgram, OnAPipeItTellsEachChangeOnce) {
  ChildProgram program("kestrune", {"status", "--watch"});
  EXPECT_THAT(program.readLine().value_or(""), HasSubstr("Z store not asked yet"));
  EXPECT_THAT(program.readLine().value_or(""), HasSubstr("Z everything is at the store"));
  control.setPending("/", {1, {host::pendingSend("/a", "it is full")}});
  EXPECT_THAT(program.readLine().value_or(""), HasSubstr("send of /a failed: it is full"));
  program.signal(SIGINT);
  EXPECT_EQ(program.readLine(), std::nullopt) << "nothing is told twice";
  EXPECT_EQ(program.finish(), 130);
}

TEST_F(WatchProgram, ForProgramsItTellsObjects) {
  ChildProgram program("kestrune", {"status", "--watch", "--json"});
  EXPECT_EQ(platform::decodeJson(program.readLine().value_or(""))["status"]["knownItems"], 0);
  setKnownItems(5);
  EXPECT_EQ(platform::decodeJson(program.readLine().value_or(""))["status"]["knownItems"], 5);
  program.signal(SIGTERM);
  EXPECT_EQ(program.finish(), 143);
}

TEST_F(WatchProgram, WithoutAHostAtTheBeginningItFails) {
  server = nullptr;
  ChildProgram program("kestrune", {"status", "--watch"});
  EXPECT_EQ(program.finish(), 1);
  EXPECT_THAT(program.errors(), HasSubstr("No host of the domain"));
}

}  // namespace
}  // namespace kestrune
