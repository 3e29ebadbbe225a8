// Starts the extension's program when it is needed, ends it when it has not been needed for a while, and starts it again when it
// died.
//
//     none ──get──▶ starting ──greeted──▶ running ──60 s without a call──▶ none
//                      └──failed──▶ none      └──died──▶ none
//
// Every program is a generation of its own: what is heard of an earlier one changes nothing any more.
//
// Threads: every operation on any thread.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "boundary/RemoteExtension.h"
#include "host/basics/ExtensionStatus.h"
#include "host/basics/HostLog.h"
#include "host/basics/Timers.h"
#include "host/launch/ExtensionSource.h"
#include "host/launch/Program.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

struct LaunchOptions {
  /// How the program is started now; asked before each start. May block for file work. Throws NSError if it cannot be.
  std::function<ProgramCommand()> command;
  platform::NSFileProviderDomain domain{"main", "Kestrune"};
  /// What the program's extension must offer.
  boundary::Offers offers;
  boundary::HostServices services;
  std::shared_ptr<HostLog> log;
  std::shared_ptr<Timers> timers;
  /// Where reports of crashes are kept, the last ten. Made if missing.
  std::filesystem::path reports;
  std::chrono::milliseconds idle = std::chrono::seconds(60);
  /// How long a program may take until it answers the greeting, and until it has ended when it is not needed any more.
  std::chrono::milliseconds patience = std::chrono::seconds(10);
  /// Children that the program had which this one replaced: they have ended, and nobody else takes note of it.
  std::vector<int> leftBehind;
  /// More starts a minute are refused.
  std::size_t mostStarts = 60;
};

/// The children of a process's first thread; none where it has gone.
std::vector<int> childProcesses(int process);

class Launcher final : public ExtensionSource, public std::enable_shared_from_this<Launcher> {
 public:
  explicit Launcher(LaunchOptions options);
  ~Launcher() override;

  void get(Reply<RunningExtensionPtr> reply) override;
  void end() override;
  ExtensionStatus status();

 private:
  /// Programs that die before they answered are started so often for whoever waits.
  static constexpr int kMostDeathsStarting = 5;

  class Use;
  struct Generation;
  using GenerationPtr = std::shared_ptr<Generation>;

  platform::NSErrorPtr refusalLocked() REQUIRES_LOCK(mutex_);
  RunningExtensionPtr useLocked() REQUIRES_LOCK(mutex_);
  void start();
  void greet(const GenerationPtr& generation);
  bool isStarting(const GenerationPtr& generation);
  void takeNoteOfLeftBehind();
  GenerationPtr startProgram();
  void greeted(const GenerationPtr& generation, const boundary::Greeting& greeting,
               platform::NSErrorPtr error);
  bool mayStartAgain();
  void fail(platform::NSErrorPtr error);
  void released(const std::weak_ptr<Generation>& generation);
  void watchIdleness(const std::weak_ptr<Generation>& generation, std::chrono::nanoseconds delay);
  void endIfIdle(const std::weak_ptr<Generation>& generation);
  void letGo(const GenerationPtr& generation);
  void ended(const std::weak_ptr<Generation>& generation, const ProgramEnd& end);
  void died(const GenerationPtr& generation, const ProgramEnd& end);

  const LaunchOptions options_;
  platform::Mutex mutex_;
  bool isEnded_ GUARDED_BY(mutex_) = false;
  bool isStarting_ GUARDED_BY(mutex_) = false;
  int diedStarting_ GUARDED_BY(mutex_) = 0;    // of those that were started for the same callers
  GenerationPtr starting_ GUARDED_BY(mutex_);  // until it was greeted
  GenerationPtr running_ GUARDED_BY(mutex_);   // none while one is starting
  std::vector<Reply<RunningExtensionPtr>> waiting_ GUARDED_BY(mutex_);
  std::vector<int> leftBehind_;                                     // used by one start at a time
  std::deque<std::chrono::nanoseconds> starts_ GUARDED_BY(mutex_);  // of the last minute
  ExtensionStatus status_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
