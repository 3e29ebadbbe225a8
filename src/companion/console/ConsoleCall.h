// One call that the console has made: what it prints, and when it has ended.
//
// A call is performed on the console's own thread. Everything that it starts is held back by a
// ledger until "returned" has been printed, so the lines of a call come in an order that can be
// relied on. It has ended when the tasks that it started have ended and its answer has been
// printed; then the status store's queue is drained and "settled" is printed.
//
//     perform -> (callbacks before the return) -> returned -> (callbacks from tasks) -> settled
//
// The extension's side holds a Reply: the right to answer. A call whose last Reply goes without an
// answer ends too, with no answer printed: an extension that forgets its handler must not hang the
// console.
//
// Threads: `perform` on the console's thread; everything else on any thread.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <thread>
#include <vector>

#include "companion/console/ConsoleJson.h"
#include "companion/console/ConsoleWriter.h"
#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/tasks/Queue.h"
#include "platform/values/Mutex.h"

namespace kestrune {

class OpenCalls;

/// What all calls of a console share.
struct CallSurroundings {
  std::shared_ptr<ConsoleWriter> writer;
  OpenCalls& openCalls;
  /// Where calls are settled: waiting for the status store's file must not hold up an executor
  /// thread.
  platform::SerialQueue& settling;
  /// Returns when all that the extension has recorded about its work is written.
  std::function<void()> drainStatus;
};

class ConsoleCall : public std::enable_shared_from_this<ConsoleCall> {
 public:
  enum class Kind {
    operation,    // returns a progress, which "returned", "completion" and "settled" show
    enumeration,  // prints "returned" and "settled" without one
    question,     // answered by one completion and nothing more
  };
  class Reply;
  using ReplyPtr = std::shared_ptr<Reply>;
  /// Calls the extension. Only operations return a progress.
  using Method = std::function<platform::NSProgressPtr(ReplyPtr reply)>;

  /// Makes a call and performs it. `watch`: every change of the progress is printed.
  static void perform(CallSurroundings& surroundings, platform::Json id, Kind kind, bool watch,
                      const Method& method);

  const platform::Json& id() const { return id_; }

  /// Cancels the progress that the call returned, if it did.
  void cancel();

  /// Keeps `enumerator` while the call is open; then it is invalidated and dropped.
  void keep(std::shared_ptr<platform::NSFileProviderEnumerator> enumerator);

 private:
  ConsoleCall(CallSurroundings& surroundings, platform::Json id, Kind kind);
  void run(bool watch, const Method& method);
  void print(std::string_view event, const OrderedJson& fields);
  OrderedJson progress() const;
  void tasksEnded();
  void answerEnded();
  void settleSoon();
  void settle();

  // Constant after construction. The surroundings live until every call has ended; the writer
  // outlives them.
  CallSurroundings& surroundings_;
  const std::shared_ptr<ConsoleWriter> writer_;
  const platform::Json id_;
  const Kind kind_;
  const std::thread::id callerThread_;

  mutable platform::Mutex mutex_;
  const platform::NSProgress::Capture* capture_ GUARDED_BY(mutex_) =
      nullptr;                                           // until the method has returned
  platform::NSProgressPtr progress_ GUARDED_BY(mutex_);  // until the call has ended
  std::weak_ptr<platform::NSProgress> endedProgress_ GUARDED_BY(mutex_);
  std::shared_ptr<platform::NSFileProviderEnumerator> enumerator_ GUARDED_BY(mutex_);
  bool hasReturned_ GUARDED_BY(mutex_) = false;
  bool tasksHaveEnded_ GUARDED_BY(mutex_) = false;
  bool answerHasEnded_ GUARDED_BY(mutex_) = false;  // it was printed, or can no longer come
  bool isSettling_ GUARDED_BY(mutex_) = false;

  platform::NSProgress::Observation
      watching_;  // set on the console's thread before the call's tasks run
};

/// The right to answer a call, shared by the copies of a completion handler or held by an observer.
class ConsoleCall::Reply {
 public:
  explicit Reply(std::shared_ptr<ConsoleCall> call) : call_(std::move(call)) {}
  ~Reply() { call_->answerEnded(); }
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;

  /// How the call's progress stands, as JSON.
  OrderedJson progress() const { return call_->progress(); }
  /// Prints a callback that others may follow.
  void tell(std::string_view event, const OrderedJson& fields) const {
    call_->print(event, fields);
  }
  /// Prints the callback that answers the call. A second one is printed like the first.
  void answer(std::string_view event, const OrderedJson& fields) const;
  /// The call's own `keep`.
  void keep(std::shared_ptr<platform::NSFileProviderEnumerator> enumerator) const {
    call_->keep(std::move(enumerator));
  }

 private:
  const std::shared_ptr<ConsoleCall> call_;
};

/// The calls that have not ended. Threads: any.
class OpenCalls {
 public:
  void add(std::shared_ptr<ConsoleCall> call);
  void remove(const ConsoleCall& call);

  std::vector<std::shared_ptr<ConsoleCall>> named(const platform::Json& id) const;

  /// Returns when no call of this id is open; without an id, when none is.
  void waitUntilEnded(const std::optional<platform::Json>& id) const;

 private:
  bool isOpen(const std::optional<platform::Json>& id) const REQUIRES_LOCK(mutex_);

  mutable platform::Mutex mutex_;
  mutable std::condition_variable ended_;
  std::vector<std::shared_ptr<ConsoleCall>> calls_ GUARDED_BY(mutex_);
};

}  // namespace kestrune
