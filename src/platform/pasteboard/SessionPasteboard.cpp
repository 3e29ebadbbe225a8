#include "platform/pasteboard/SessionPasteboard.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <thread>
#include <vector>

#include "platform/values/NSError.h"

namespace kestrune::platform {

namespace {

using Arguments = std::vector<std::string>;

bool isSet(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

// Both fork when they have taken the text over, so that the pasteboard outlives the call.
Arguments sessionProgram() {
  if (isSet("WAYLAND_DISPLAY")) return {"wl-copy", "--type", "text/plain;charset=utf-8"};
  if (isSet("DISPLAY")) return {"xclip", "-selection", "clipboard", "-in"};
  throw NSCocoaError(NSCocoaError::featureUnsupported,
                     "There is no desktop session to copy to: neither WAYLAND_DISPLAY nor DISPLAY "
                     "is set.");
}

NSCocoaError failed(const std::string& program, const std::string& reason) {
  return {NSCocoaError::featureUnsupported,
          "The text could not be copied to the clipboard: " + program + " " + reason + "."};
}

// The child's standard input as a file in memory: unlike a pipe it neither blocks nor raises
// SIGPIPE when the child does not read.
class Input {
 public:
  explicit Input(const std::string& text)
      : descriptor_(::memfd_create("kestrune-pasteboard", MFD_CLOEXEC)) {
    if (descriptor_ < 0) throw NSPOSIXError(errno, "make a file in memory");
    std::size_t written = 0;
    while (written < text.size()) {
      const ssize_t count = ::pwrite(descriptor_, text.data() + written, text.size() - written,
                                     static_cast<off_t>(written));
      if (count < 0) {
        const int error = errno;
        ::close(descriptor_);
        throw NSPOSIXError(error, "write to a file in memory");
      }
      written += static_cast<std::size_t>(count);
    }
  }
  ~Input() { ::close(descriptor_); }
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;
  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
};

pid_t start(const Arguments& arguments, const Input& input) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.descriptor(), STDIN_FILENO);
  // The serving process stays: whoever reads our output must not wait for its end.
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  // A session and signals of its own: Ctrl-C at our terminal does not empty the clipboard.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t signals;
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  sigaddset(&signals, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t child = -1;
  const int error = ::posix_spawnp(&child, argv[0], &actions, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error == ENOENT) throw failed(arguments[0], "is not installed");
  if (error != 0) throw failed(arguments[0], "could not be started (" + errnoText(error) + ")");
  return child;
}

// The status of the child's end. Nothing tells of it that works on all kernels and beside other
// users of SIGCHLD, so the child is asked for; taking over a text takes it milliseconds.
int waitForEnd(const std::string& program, pid_t child, std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  for (;;) {
    int status = 0;
    const pid_t ended = ::waitpid(child, &status, WNOHANG);
    if (ended == child) return status;
    if (ended < 0 && errno != EINTR) throw NSPOSIXError(errno, "wait for " + program);
    if (std::chrono::steady_clock::now() >= deadline) {
      ::kill(-child, SIGKILL);  // its session: what the program has started ends with it
      while (::waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
      throw failed(program, "did not take it in time");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

}  // namespace

void SessionPasteboard::replaceContents(const std::string& text) {
  const Arguments arguments = sessionProgram();
  const Input input(text);
  const int status = waitForEnd(arguments[0], start(arguments, input), patience_);
  if (WIFSIGNALED(status)) {
    throw failed(arguments[0], "was ended by signal " + std::to_string(WTERMSIG(status)));
  }
  if (WEXITSTATUS(status) != 0) {
    throw failed(arguments[0], "ended with status " + std::to_string(WEXITSTATUS(status)) +
                                   " (is the desktop session running?)");
  }
}

}  // namespace kestrune::platform
