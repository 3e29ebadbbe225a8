#include "host/launch/Program.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <future>

#include "platform/values/NSError.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSPOSIXError;

void check(int error, const std::string& tried) {
  if (error != 0) throw NSPOSIXError(error, tried);
}

// What the program has open: nothing of the host's.
class FileActions {
 public:
  FileActions(int socket, int report) {
    check(::posix_spawn_file_actions_init(&actions_), "prepare a program");
    check(::posix_spawn_file_actions_addopen(&actions_, 0, "/dev/null", O_RDONLY, 0),
          "prepare input");
    check(::posix_spawn_file_actions_adddup2(&actions_, socket, kProgramSocket),
          "prepare a socket");
    check(::posix_spawn_file_actions_adddup2(&actions_, report, kProgramReport),
          "prepare a report");
    check(::posix_spawn_file_actions_addclosefrom_np(&actions_, kProgramReport + 1), "close files");
    check(::posix_spawn_file_actions_addchdir_np(&actions_, "/"), "prepare a directory");
  }
  ~FileActions() { ::posix_spawn_file_actions_destroy(&actions_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

// A process group of its own, so that Ctrl-C is the host's to answer; no signal blocked or ignored.
class Attributes {
 public:
  Attributes() {
    check(::posix_spawnattr_init(&attributes_), "prepare a program");
    sigset_t none;
    sigset_t all;
    ::sigemptyset(&none);
    ::sigfillset(&all);
    ::posix_spawnattr_setsigmask(&attributes_, &none);
    ::posix_spawnattr_setsigdefault(&attributes_, &all);
    ::posix_spawnattr_setpgroup(&attributes_, 0);
    check(::posix_spawnattr_setflags(
              &attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP),
          "prepare a program");
  }
  ~Attributes() { ::posix_spawnattr_destroy(&attributes_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

// The descriptor under a number beyond those that the program gets.
Descriptor beyond(int descriptor) {
  const int copy = ::fcntl(descriptor, F_DUPFD_CLOEXEC, kProgramReport + 1);
  if (copy < 0) throw NSPOSIXError(errno, "copy a descriptor");
  return Descriptor(copy);
}

int spawn(const ProgramCommand& command, int socket, int report) {
  const Descriptor socketCopy = beyond(socket);
  const Descriptor reportCopy = beyond(report);
  const FileActions actions(socketCopy.number(), reportCopy.number());
  const Attributes attributes;
  std::vector<std::string> words = command.words;
  std::vector<std::string> settings;
  for (const auto& [name, value] : command.environment) settings.push_back(name + "=" + value);
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  std::vector<char*> environment;
  for (std::string& setting : settings) environment.push_back(setting.data());
  environment.push_back(nullptr);
  pid_t pid = -1;
  check(::posix_spawn(&pid, words.front().c_str(), actions.get(), attributes.get(),
                      arguments.data(), environment.data()),
        "start '" + words.front() + "'");
  return pid;
}

}  // namespace

std::string ProgramEnd::text() const {
  if (signal == 0) return "exit code " + std::to_string(exitCode);
  return "signal " + std::to_string(signal) + " (" + ::strsignal(signal) + ")";
}

std::unique_ptr<Program> Program::start(const ProgramCommand& command, int socket, int report,
                                        Ended ended) {
  std::unique_ptr<Program> program(new Program());
  std::promise<void> started;
  program->thread_ = std::thread([&, self = program.get(), ended = std::move(ended)]() mutable {
    ::pthread_setname_np(::pthread_self(), "kes-launch");
    try {
      self->pid_ = spawn(command, socket, report);
    } catch (...) {
      started.set_exception(std::current_exception());
      return;
    }
    started.set_value();
    self->wait(ended);
  });
  try {
    started.get_future().get();
  } catch (...) {
    program->thread_.join();
    throw;
  }
  return program;
}

Program::~Program() {
  if (!thread_.joinable()) return;
  kill(SIGKILL);
  thread_.join();
}

void Program::kill(int signal) {
  MutexLock lock(mutex_);
  if (!hasEnded_) ::kill(pid_, signal);
}

bool Program::waitUntilEnded(std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  MutexLock lock(mutex_);
  while (!hasEnded_) {
    if (!lock.waitUntil(end_, deadline)) return hasEnded_;
  }
  return true;
}

void Program::wait(const Ended& ended) {
  siginfo_t info{};
  while (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT) != 0 &&
         errno == EINTR) {
  }
  int status = 0;
  {
    MutexLock lock(mutex_);
    hasEnded_ = true;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    end_.notify_all();
  }
  ProgramEnd end;
  if (WIFSIGNALED(status)) end.signal = WTERMSIG(status);
  if (WIFEXITED(status)) end.exitCode = WEXITSTATUS(status);
  // What another program started for it reports the end by a signal so.
  if (end.exitCode > 128 && end.exitCode < 128 + NSIG) end.signal = end.exitCode - 128;
  ended(end);
}

}  // namespace kestrune::host
