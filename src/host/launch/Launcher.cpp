#include "host/launch/Launcher.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <utility>

#include "host/launch/CrashReports.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/tasks/Task.h"

namespace kestrune::host {

using platform::MutexLock;
using platform::NSErrorPtr;
using platform::NSFileProviderError;

namespace {

NSErrorPtr unavailable(const std::string& why) {
  return NSFileProviderError(NSFileProviderError::providerDomainTemporarilyUnavailable, why)
      .share();
}

// What bubblewrap has started, which ends with it; the process itself where nothing lies in between. The extension starts nothing.
int innermost(int process) {
  for (auto children = childProcesses(process); !children.empty();
       children = childProcesses(process))
    process = children.front();
  return process;
}

constexpr std::chrono::seconds kLastWords{1};

NSErrorPtr hostEnds() { return unavailable("the host ends"); }

}  // namespace

// One program and the connection to it. What it has is set before anybody else knows it.
struct Launcher::Generation {
  std::shared_ptr<boundary::RemoteExtension> remote;
  std::shared_ptr<platform::NSFileProviderReplicatedExtension> extension;
  std::unique_ptr<Descriptor> report;
  std::unique_ptr<Program> program;
  std::optional<std::string> whyNoBubblewrap;
  std::atomic<bool> isTooSlow = false;    // it was killed for it
  std::atomic<bool> isNotNeeded = false;  // its end is no death

  // Guarded by the launcher's lock.
  std::size_t uses = 0;
  std::chrono::nanoseconds idleSince{0};
  bool isWatched = false;
  bool hasDied = false;
};

// What a caller holds of the program.
class Launcher::Use final : public RunningExtension {
 public:
  Use(std::weak_ptr<Launcher> launcher, GenerationPtr generation)
      : launcher_(std::move(launcher)), generation_(std::move(generation)) {}
  ~Use() override {
    const std::weak_ptr<Generation> generation = std::exchange(generation_, nullptr);
    if (const auto launcher = launcher_.lock()) launcher->released(generation);
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  const std::shared_ptr<platform::NSFileProviderReplicatedExtension>& extension() const override {
    return generation_->extension;
  }
  bool isGone() const override { return generation_->remote->isGone(); }

 private:
  const std::weak_ptr<Launcher> launcher_;
  GenerationPtr generation_;
};

std::vector<int> childProcesses(int process) {
  const std::string number = std::to_string(process);
  std::ifstream list("/proc/" + number + "/task/" + number + "/children");
  return {std::istream_iterator<int>(list), std::istream_iterator<int>()};
}

Launcher::Launcher(LaunchOptions options)
    : options_(std::move(options)), leftBehind_(options_.leftBehind) {}

void Launcher::takeNoteOfLeftBehind() {
  std::erase_if(leftBehind_, [](int pid) { return ::waitpid(pid, nullptr, WNOHANG) != 0; });
}

Launcher::~Launcher() { end(); }

void Launcher::get(Reply<RunningExtensionPtr> reply) {
  NSErrorPtr refusal;
  RunningExtensionPtr use;
  bool starts = false;
  {
    MutexLock lock(mutex_);
    const bool isRunning = running_ && !running_->hasDied && !running_->remote->isGone();
    if (isRunning) {
      use = useLocked();
    } else if (!isStarting_) {
      refusal = refusalLocked();
      if (refusal) status_.refusal = refusal->localizedDescription();
    }
    if (!use && !refusal) {
      waiting_.push_back(reply);
      starts = !std::exchange(isStarting_, true);
    }
  }
  if (use) return reply(std::move(use));
  if (refusal) return reply(std::move(refusal));
  if (starts)
    boost::asio::post(platform::sharedExecutor(), [self = shared_from_this()] { self->start(); });
}

NSErrorPtr Launcher::refusalLocked() {
  if (isEnded_) return hostEnds();
  const auto now = options_.timers->now();
  while (!starts_.empty() && now - starts_.front() > std::chrono::minutes(1)) starts_.pop_front();
  if (starts_.size() < options_.mostStarts) return nullptr;
  const std::string how =
      status_.lastDeath.empty() ? "" : " and ended the last time by " + status_.lastDeath;
  return unavailable("the extension was started " + std::to_string(starts_.size()) +
                     " times within a minute" + how +
                     "; it is started again when that minute is over");
}

RunningExtensionPtr Launcher::useLocked() {
  ++running_->uses;
  return std::make_shared<const Use>(weak_from_this(), running_);
}

void Launcher::start() {
  GenerationPtr generation;
  GenerationPtr old;
  NSErrorPtr error;
  bool isTooLate = false;
  {
    MutexLock lock(mutex_);
    old = std::exchange(running_, nullptr);
    isTooLate = isEnded_;
    if (!isTooLate) {
      starts_.push_back(options_.timers->now());
      ++status_.starts;
      status_.refusal.clear();
    }
  }
  // Gone, as far as its connection tells; its end, which tells how it died, may come later.
  if (old) letGo(old);
  if (isTooLate) return fail(hostEnds());
  takeNoteOfLeftBehind();
  try {
    generation = startProgram();
  } catch (const platform::NSError& thrown) {
    error = thrown.share();
  }
  if (error) return fail(error);
  {
    MutexLock lock(mutex_);
    isTooLate = isEnded_;
    if (!isTooLate) starting_ = generation;
  }
  if (isTooLate) {
    generation->isNotNeeded = true;
    fail(hostEnds());
    return letGo(generation);
  }
  greet(generation);
}

void Launcher::greet(const GenerationPtr& generation) {
  options_.timers->after(options_.patience,
                         [weak = std::weak_ptr(generation), self = weak_from_this()] {
                           const auto late = weak.lock();
                           const auto launcher = self.lock();
                           if (!late || !launcher || !launcher->isStarting(late)) return;
                           late->isTooSlow = true;
                           late->program->kill(SIGKILL);
                         });
  generation->remote->greet(
      options_.domain, [self = shared_from_this(), generation](const boundary::Greeting& greeting,
                                                               NSErrorPtr error) {
        self->greeted(generation, greeting, std::move(error));
      });
}

bool Launcher::isStarting(const GenerationPtr& generation) {
  MutexLock lock(mutex_);
  return starting_ == generation;
}

Launcher::GenerationPtr Launcher::startProgram() {
  int ends[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
    throw platform::NSPOSIXError(errno, "make a pair of sockets");
  const Descriptor theirs(ends[1]);
  auto generation = std::make_shared<Generation>();
  generation->remote = boundary::RemoteExtension::connect(ends[0], options_.services);
  generation->extension = generation->remote;
  const CrashReports reports(options_.reports, options_.log);
  generation->report = std::unique_ptr<Descriptor>(new Descriptor(reports.open()));
  const auto ended = [self = weak_from_this(),
                      weak = std::weak_ptr(generation)](const ProgramEnd& end) {
    if (const auto launcher = self.lock()) launcher->ended(weak, end);
  };
  const ProgramCommand command = options_.command();
  generation->whyNoBubblewrap = command.whyNoBubblewrap;
  generation->program =
      Program::start(command, theirs.number(), generation->report->number(), ended);
  return generation;
}

void Launcher::greeted(const GenerationPtr& generation, const boundary::Greeting& greeting,
                       NSErrorPtr error) {
  const auto& wanted = options_.offers;
  const auto& offers = greeting.offers;
  if (!error && ((wanted.partialContents && !offers.partialContents) ||
                 (wanted.streams && !offers.streams) || (wanted.actions && !offers.actions)))
    error = unavailable("the extension's program offers less than this host needs of it");
  if (error) {
    const bool hasDied = platform::isInterruption(*error);
    if (!hasDied) generation->isNotNeeded = true;
    letGo(generation);
    if (generation->isTooSlow)
      return fail(unavailable("the extension's program did not answer, and was killed"));
    if (hasDied && mayStartAgain()) return start();
    return fail(hasDied ? unavailable("the extension's program ended before it answered") : error);
  }
  const int pid = innermost(generation->program->pid());
  std::vector<Reply<RunningExtensionPtr>> waiting;
  std::vector<RunningExtensionPtr> uses;
  bool isTooLate = false;
  {
    MutexLock lock(mutex_);
    isTooLate = isEnded_;
    isStarting_ = false;
    diedStarting_ = 0;
    starting_ = nullptr;
    waiting.swap(waiting_);
    if (!isTooLate) {
      running_ = generation;
      status_.pid = generation->hasDied ? 0 : pid;
      status_.confinement = {generation->whyNoBubblewrap, greeting.notEnforced};
      for (std::size_t i = 0; i < waiting.size(); ++i) uses.push_back(useLocked());
    }
  }
  for (std::size_t i = 0; i < waiting.size(); ++i) {
    if (isTooLate) {
      waiting[i](hostEnds());
    } else {
      waiting[i](std::exchange(uses[i], nullptr));
    }
  }
  if (isTooLate) letGo(generation);
}

// It may have been killed, as it may be at any other time; whoever waits for it waits a little longer.
bool Launcher::mayStartAgain() {
  MutexLock lock(mutex_);
  return !refusalLocked() && ++diedStarting_ < kMostDeathsStarting;
}

void Launcher::fail(NSErrorPtr error) {
  std::vector<Reply<RunningExtensionPtr>> waiting;
  bool isTooLate = false;
  {
    MutexLock lock(mutex_);
    isTooLate = isEnded_;
    if (isTooLate) error = hostEnds();
    isStarting_ = false;
    diedStarting_ = 0;
    starting_ = nullptr;
    status_.refusal = error->localizedDescription();
    waiting.swap(waiting_);
  }
  if (!isTooLate)
    options_.log->failure("launch", "start the extension", error->localizedDescription());
  for (const auto& reply : waiting) reply(error);
}

void Launcher::released(const std::weak_ptr<Generation>& generation) {
  const auto live = generation.lock();  // let go after the lock: its end waits for others
  bool watches = false;
  {
    MutexLock lock(mutex_);
    if (!live || --live->uses > 0 || live != running_) return;
    live->idleSince = options_.timers->now();
    watches = !std::exchange(live->isWatched, true);
  }
  if (watches) watchIdleness(generation, options_.idle);
}

void Launcher::watchIdleness(const std::weak_ptr<Generation>& generation,
                             std::chrono::nanoseconds delay) {
  options_.timers->after(delay, [self = weak_from_this(), generation] {
    if (const auto launcher = self.lock()) launcher->endIfIdle(generation);
  });
}

void Launcher::endIfIdle(const std::weak_ptr<Generation>& generation) {
  const auto live = generation.lock();
  GenerationPtr idle;
  std::chrono::nanoseconds again{0};
  {
    MutexLock lock(mutex_);
    if (!live || live != running_) return;
    live->isWatched = false;
    if (live->uses > 0) return;  // watched again when they are released
    const auto left = live->idleSince + options_.idle - options_.timers->now();
    if (left > std::chrono::nanoseconds(0)) {
      live->isWatched = true;
      again = left;
    } else {
      idle = std::exchange(running_, nullptr);
      idle->isNotNeeded = true;
      status_.pid = 0;
    }
  }
  if (idle) {
    letGo(idle);
  } else {
    watchIdleness(generation, again);
  }
}

// The program ends by itself when its socket closes; if it does not, it is killed.
void Launcher::letGo(const GenerationPtr& generation) {
  generation->remote->disconnect();
  options_.timers->after(options_.patience, [generation] {});
}

void Launcher::end() {
  GenerationPtr ending;
  bool isGreeted = false;
  {
    MutexLock lock(mutex_);
    isEnded_ = true;
    isGreeted = running_ != nullptr;
    ending = isGreeted ? std::exchange(running_, nullptr) : starting_;
    status_.pid = 0;
  }
  if (!ending) return;
  ending->isNotNeeded = true;
  ending->remote->disconnect();
  // One that was not greeted has nothing that it could bring to an end.
  if (isGreeted && ending->program->waitUntilEnded(options_.patience)) return;
  ending->program->kill(SIGKILL);
  ending->program->waitUntilEnded(options_.patience);
}

void Launcher::ended(const std::weak_ptr<Generation>& generation, const ProgramEnd& end) {
  auto dead = generation.lock();
  if (!dead) return;
  if (!dead->isNotNeeded) died(dead, end);
  // What it said last is read first. Its connection then ends by itself, unless it had asked for so much that nothing was read any more.
  options_.timers->after(kLastWords, [generation] {
    if (const auto silent = generation.lock()) silent->remote->disconnect();
  });
  // Let go elsewhere: this is the program's own thread, for which its destructor waits.
  boost::asio::post(platform::sharedExecutor(), [owned = std::move(dead)] {});
}

void Launcher::died(const GenerationPtr& generation, const ProgramEnd& end) {
  {
    MutexLock lock(mutex_);
    generation->hasDied = true;
    if (running_ == generation) {
      running_ = nullptr;
      status_.pid = 0;
    }
    ++status_.deaths;
    status_.lastDeath = end.text();
  }
  CrashReports(options_.reports, options_.log)
      .keep(*generation->report, "the extension ended by " + end.text());
  options_.log->failure("extension-death", "the extension ended", end.text());
}

ExtensionStatus Launcher::status() {
  MutexLock lock(mutex_);
  return status_;
}

}  // namespace kestrune::host
