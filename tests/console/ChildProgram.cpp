#include "tests/console/ChildProgram.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <thread>

namespace kestrune {

namespace {

constexpr std::chrono::seconds kDeadline{30};

using Instant = std::chrono::steady_clock::time_point;

int millisecondsUntil(Instant deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline - std::chrono::steady_clock::now());
  return static_cast<int>(std::max<std::int64_t>(0, left.count()));
}

void closeAndForget(int& descriptor) {
  if (descriptor >= 0) ::close(descriptor);
  descriptor = -1;
}

}  // namespace

ChildProgram::ChildProgram(const std::string& name, const std::vector<std::string>& arguments) {
  std::signal(
      SIGPIPE,
      SIG_IGN);  // a child that ended early shows in the checks, not as the test's own death
  std::array<int, 2> in{}, out{};
  if (::pipe2(in.data(), O_CLOEXEC) != 0 || ::pipe2(out.data(), O_CLOEXEC) != 0)
    throw std::runtime_error("pipe");
  errors_ = ::memfd_create("stderr", MFD_CLOEXEC);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errors_, STDERR_FILENO);
  // The test's own ignoring of SIGPIPE is inherited across exec; a program starts with the default,
  // as in a shell.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  const std::string path = std::string(KESTRUNE_BIN_DIR) + "/" + name;
  std::vector<char*> argv{const_cast<char*>(path.c_str())};
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const int error = ::posix_spawn(&pid_, path.c_str(), &actions, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  ::close(in[0]);
  ::close(out[1]);
  input_ = in[1];
  output_ = out[0];
  if (error != 0) throw std::runtime_error("cannot start " + path);
}

ChildProgram::~ChildProgram() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  closeAndForget(input_);
  closeAndForget(output_);
  closeAndForget(errors_);
}

void ChildProgram::write(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t written = ::write(input_, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) {
      ADD_FAILURE() << "the program takes no input any more";
      return;
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

void ChildProgram::closeInput() { closeAndForget(input_); }
void ChildProgram::closeOutput() { closeAndForget(output_); }

std::optional<std::string> ChildProgram::readLine() {
  const Instant deadline = std::chrono::steady_clock::now() + kDeadline;
  std::array<char, 65536> buffer{};
  for (;;) {
    if (const auto end = unread_.find('\n'); end != std::string::npos) {
      std::string line = unread_.substr(0, end);
      unread_.erase(0, end + 1);
      return line;
    }
    pollfd readable{output_, POLLIN, 0};
    if (::poll(&readable, 1, millisecondsUntil(deadline)) <= 0) {
      ADD_FAILURE() << "no line came; so far on standard error: " << errors();
      return std::nullopt;
    }
    const ssize_t count = ::read(output_, buffer.data(), buffer.size());
    if (count <= 0) {
      EXPECT_EQ(unread_, "") << "the output ends within a line";
      return std::nullopt;
    }
    unread_.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

int ChildProgram::finish() {
  closeInput();
  const Instant deadline = std::chrono::steady_clock::now() + kDeadline;
  int status = 0;
  while (::waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ADD_FAILURE() << "the program did not end; on standard error: " << errors();
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

void ChildProgram::signal(int number) const { ::kill(pid_, number); }

std::string ChildProgram::errors() const {
  std::string text;
  std::array<char, 4096> buffer{};
  for (ssize_t count = 0; (count = ::pread(errors_, buffer.data(), buffer.size(),
                                           static_cast<off_t>(text.size()))) > 0;) {
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return text;
}

}  // namespace kestrune
