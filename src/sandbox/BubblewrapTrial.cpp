#include "sandbox/BubblewrapTrial.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <utility>
#include <vector>

#include "platform/values/NSError.h"
#include "sandbox/Descriptor.h"

namespace kestrune::sandbox {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kDoesNothing = "/usr/bin/true";
constexpr std::size_t kLongestText = 400;

struct Pipe {
  static Pipe make() {
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw platform::NSPOSIXError(errno, "make a pipe");
    return {ends[0], ends[1]};
  }
  int readingEnd;
  int writingEnd;
};

/// Starts `command` as BubblewrapCommand.h asks, its errors going to `errors`. Returns 0 or why not.
int start(std::vector<std::string>& command, int errors, pid_t& child) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string& word : command) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  std::array<char*, 1> environment{nullptr};

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, errors, STDERR_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  posix_spawn_file_actions_addchdir_np(&actions, "/");
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  const int failure = ::posix_spawn(&child, arguments[0], &actions, &attributes, arguments.data(),
                                    environment.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return failure;
}

/// Whether `descriptor` became readable (or its other end went) before `until`.
bool waitReadable(int descriptor, Clock::time_point until) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
    pollfd waiting{descriptor, POLLIN, 0};
    const int ready = ::poll(&waiting, 1, std::max(0, static_cast<int>(left.count())));
    if (ready >= 0) return ready > 0;
    if (errno != EINTR) throw platform::NSPOSIXError(errno, "wait for bubblewrap");
  }
}

/// The first line of what is in the pipe now.
std::string firstLine(int readingEnd) {
  std::array<char, kLongestText> buffer{};
  if (!waitReadable(readingEnd, Clock::now())) return {};
  const ssize_t count = ::read(readingEnd, buffer.data(), buffer.size());
  const std::string text(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  return text.substr(0, text.find('\n'));
}

/// What forbids name spaces of users, where the kernel's settings say so; with a space before it.
std::string settingsThatForbid() {
  constexpr std::array<std::pair<const char*, int>, 3> kForbidding{
      {{"/proc/sys/user/max_user_namespaces", 0},
       {"/proc/sys/kernel/unprivileged_userns_clone", 0},                // Debian
       {"/proc/sys/kernel/apparmor_restrict_unprivileged_userns", 1}}};  // Ubuntu
  for (const auto& [file, forbidding] : kForbidding) {
    int value = !forbidding;
    if (std::ifstream(file) >> value && value == forbidding) {
      return std::string(" (") + file + " is " + std::to_string(value) + ")";
    }
  }
  return {};
}

/// How the child ended; nothing where it had to be killed at `until`.
std::optional<int> endOf(pid_t child, Clock::time_point until) {
  const Descriptor process(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
  const bool ended = process.isOpen() && waitReadable(process.number(), until);
  if (!ended) ::kill(child, SIGKILL);  // what it started dies with it
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) throw platform::NSPOSIXError(errno, "wait for bubblewrap");
  }
  return ended ? std::optional(status) : std::nullopt;
}

}  // namespace

std::optional<std::string> whyNoBubblewrap(const SandboxRules& rules,
                                           const std::filesystem::path& bubblewrap,
                                           std::chrono::milliseconds deadline) {
  SandboxRules trial = rules;
  trial.program = kDoesNothing;
  std::vector<std::string> command = bubblewrapCommand(trial, {}, {});
  command.front() = bubblewrap;
  const Pipe errors = Pipe::make();
  const Descriptor readingEnd(errors.readingEnd);
  pid_t child = 0;
  {
    const Descriptor writingEnd(errors.writingEnd);
    const int failure = start(command, writingEnd.number(), child);
    if (failure == ENOENT) return "bubblewrap is not installed (" + bubblewrap.string() + ")";
    if (failure != 0) return "bubblewrap cannot be started: " + platform::errnoText(failure);
  }
  const auto status = endOf(child, Clock::now() + deadline);
  if (!status)
    return "bubblewrap did not answer within " + std::to_string(deadline.count()) + " ms";
  if (WIFEXITED(*status) && WEXITSTATUS(*status) == 0) return std::nullopt;
  const std::string said = firstLine(readingEnd.number());
  return "bubblewrap cannot make a sandbox: " + (said.empty() ? "it does not say why" : said) +
         settingsThatForbid();
}

}  // namespace kestrune::sandbox
