// The session's clipboard on a real X server without a screen, read back by a program of its users.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/pasteboard/SessionPasteboard.h"
#include "platform/values/NSError.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/Waiting.h"

namespace kestrune::platform {
namespace {

using support::ScopedEnvironment;
using ::testing::HasSubstr;

constexpr int kDeadlineMilliseconds = 30'000;

/// A pipe whose ends close with it.
struct Pipe {
  Pipe() {
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  }
  ~Pipe() {
    for (const int end : ends) {
      if (end >= 0) ::close(end);
    }
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  void closeWriting() { ::close(std::exchange(ends[1], -1)); }

  /// Reads up to a line feed (`untilEnd`: up to the end), or to the deadline.
  std::string read(bool untilEnd) const {
    std::string text;
    char buffer[65536];
    for (;;) {
      pollfd waiting{ends[0], POLLIN, 0};
      if (::poll(&waiting, 1, kDeadlineMilliseconds) != 1)
        throw std::runtime_error("nothing came before the deadline");
      const ssize_t count = ::read(ends[0], buffer, sizeof buffer);
      if (count <= 0) return text;
      text.append(buffer, static_cast<std::size_t>(count));
      if (!untilEnd && text.back() == '\n') return text;
    }
  }

  int ends[2] = {-1, -1};
};

pid_t spawn(const std::vector<std::string>& arguments, int descriptor, int as) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, descriptor, as);
  pid_t child = -1;
  const int error = ::posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error(arguments[0] + " cannot be started");
  return child;
}

/// An X server of the test's own, on a socket of the file system alone.
class XServer {
 public:
  XServer() {
    Pipe number;
    pid_ = spawn({"Xvfb", "-displayfd", "3", "-nolisten", "tcp", "-screen", "0", "64x64x24"},
                 number.ends[1], 3);
    number.closeWriting();
    std::string display;
    try {
      display = number.read(false);
    } catch (...) {
      end();
      throw;
    }
    if (!display.ends_with('\n')) {
      end();
      throw std::runtime_error("Xvfb did not start");
    }
    display_ = ":" + display.substr(0, display.size() - 1);
  }
  ~XServer() { end(); }
  XServer(const XServer&) = delete;
  XServer& operator=(const XServer&) = delete;

  const std::string& display() const { return display_; }
  void end() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  std::string display_;
};

/// What a user would paste; nothing where nothing is offered.
std::optional<std::string> pasted(const std::vector<std::string>& more = {}) {
  Pipe output;
  std::vector<std::string> arguments = {"xclip", "-selection", "clipboard", "-out"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  const pid_t reader = spawn(arguments, output.ends[1], STDOUT_FILENO);
  output.closeWriting();
  std::string text;
  try {
    text = output.read(true);
  } catch (...) {
    ::kill(reader, SIGKILL);
    ::waitpid(reader, nullptr, 0);
    throw;
  }
  int status = -1;
  ::waitpid(reader, &status, 0);
  if (status != 0) return std::nullopt;
  return text;
}

class XvfbPasteboardTest : public testing::Test {
 protected:
  /// Writes `text` and waits until it can be pasted: xclip hands over to its serving process first,
  /// which then takes the clipboard.
  void expectPasted(const std::string& text) {
    pasteboard_.replaceContents(text);
    EXPECT_TRUE(support::waitUntil([&] { return pasted() == text; }));
    EXPECT_EQ(pasted(), text) << "as often as one likes";
  }

  XServer server_;
  const ScopedEnvironment wayland_{"WAYLAND_DISPLAY", std::nullopt};
  const ScopedEnvironment x11_{"DISPLAY", server_.display()};
  SessionPasteboard pasteboard_;
};

TEST_F(XvfbPasteboardTest, WhatIsWrittenCanBePasted) {
  std::string large;
  while (large.size() < (1U << 20U)) {
    large += "https://h/open/line " + std::to_string(large.size()) + "\n";
  }
  for (const std::string& text :
       {std::string("https://h/open/a%20b\nhttps://h/open/c"), std::string("Größe 資料"),
        std::string("a\0b", 3), large, std::string("the last one")}) {
    expectPasted(text);
  }
}

TEST_F(XvfbPasteboardTest, TheEmptyTextClearsWhatWasThere) {
  expectPasted("something");
  expectPasted("");
}

TEST_F(XvfbPasteboardTest, ItIsOfferedAsPlainText) {
  expectPasted("text");
  EXPECT_THAT(pasted({"-target", "TARGETS"}), testing::Optional(HasSubstr("STRING")));
  EXPECT_EQ(pasted({"-target", "UTF8_STRING"}), "text");
}

TEST_F(XvfbPasteboardTest, AServerThatIsGoneIsAnError) {
  server_.end();
  try {
    pasteboard_.replaceContents("text");
    FAIL() << "it was copied to nowhere";
  } catch (const NSCocoaError& error) {
    EXPECT_EQ(error.code(), NSCocoaError::featureUnsupported);
    EXPECT_THAT(error.localizedDescription(), HasSubstr("xclip ended with status 1"));
  }
}

}  // namespace
}  // namespace kestrune::platform
