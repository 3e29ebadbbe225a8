// A program that the host has started: its socket, its life and its end.
//
// Threads: every operation on any thread; `ended` is called on a thread of the program's own, which lives exactly as long as the
// program, since the kernel ends a program with the thread that started it where that was asked for.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/basics/LocalFile.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

/// How a program is started. Its standard input is empty, its standard output and error are the host's, its directory is "/".
struct ProgramCommand {
  /// The first is the executable's absolute path.
  std::vector<std::string> words;
  /// Nothing else is in its environment.
  std::map<std::string, std::string> environment;
  /// Why it is started without bubblewrap, in words for people; none: it is started by it.
  std::optional<std::string> whyNoBubblewrap = {};
};

/// The descriptors that a program finds open beside the standard ones.
inline constexpr int kProgramSocket = 3;
/// Where it writes what it knows of its own crash.
inline constexpr int kProgramReport = 4;

/// How a program ended.
struct ProgramEnd {
  int exitCode = 0;
  int signal = 0;  // not 0 where a signal ended it
  /// "exit code 3", "signal 11 (Segmentation fault)".
  std::string text() const;
};

class Program {
 public:
  using Ended = std::function<void(const ProgramEnd& end)>;

  /// Starts it with the two descriptors, which stay the caller's. Throws NSPOSIXError if it cannot be started; `ended` is not
  /// called then.
  static std::unique_ptr<Program> start(const ProgramCommand& command, int socket, int report,
                                        Ended ended);
  /// Kills it, and waits until it and `ended` have ended. REQUIRES: not called in `ended`.
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  int pid() const { return pid_; }
  void kill(int signal);
  /// False if it has not ended by then.
  bool waitUntilEnded(std::chrono::milliseconds patience);

 private:
  Program() = default;
  void wait(const Ended& ended);

  int pid_ = -1;
  platform::Mutex mutex_;
  bool hasEnded_ GUARDED_BY(mutex_) = false;  // its number may be another's from then on
  std::condition_variable end_;
  std::thread thread_;
};

}  // namespace kestrune::host
