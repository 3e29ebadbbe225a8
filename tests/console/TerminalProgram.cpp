#include "tests/console/TerminalProgram.h"

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

namespace kestrune {

namespace {

constexpr int kDeadlineMilliseconds = 10'000;

}  // namespace

TerminalProgram::TerminalProgram(const std::vector<std::string>& arguments) {
  const winsize size{24, 80, 0, 0};
  const std::string program = std::string(KESTRUNE_BIN_DIR) + "/kestrune";
  std::vector<char*> words{const_cast<char*>("kestrune")};
  for (const std::string& argument : arguments)
    words.push_back(const_cast<char*>(argument.c_str()));
  words.push_back(nullptr);
  pid_ = ::forkpty(&terminal_, nullptr, nullptr, &size);
  if (pid_ != 0) return;
  ::execv(program.c_str(), words.data());
  ::_exit(127);
}

TerminalProgram::~TerminalProgram() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  ::close(terminal_);
}

void TerminalProgram::resize(unsigned short columns, unsigned short lines) const {
  const winsize size{lines, columns, 0, 0};
  ASSERT_EQ(::ioctl(terminal_, TIOCSWINSZ, &size), 0);
}

void TerminalProgram::type(const std::string& keys) const {
  ASSERT_EQ(::write(terminal_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
}

void TerminalProgram::signal(int number) const { ASSERT_EQ(::kill(pid_, number), 0); }

bool TerminalProgram::echoes() const {
  termios state{};
  return ::tcgetattr(terminal_, &state) == 0 && (state.c_lflag & ECHO) != 0;
}

// Nothing at the end, and after the deadline.
std::string TerminalProgram::readSome() const {
  pollfd polled{terminal_, POLLIN, 0};
  std::array<char, 4096> piece{};
  if (::poll(&polled, 1, kDeadlineMilliseconds) <= 0) return {};
  const ssize_t got = ::read(terminal_, piece.data(), piece.size());
  return got <= 0 ? std::string() : std::string(piece.data(), static_cast<std::size_t>(got));
}

std::string TerminalProgram::readUntil(const std::string& text) {
  std::string seen;
  while (seen.find(text) == std::string::npos) {
    const std::string piece = readSome();
    if (piece.empty()) break;
    seen += piece;
  }
  EXPECT_THAT(seen, testing::HasSubstr(text));
  return seen;
}

int TerminalProgram::end(std::string& rest) {
  for (std::string piece = readSome(); !piece.empty(); piece = readSome()) rest += piece;
  int status = 0;
  if (::waitpid(pid_, &status, 0) != pid_) return -1;
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace kestrune
