// One call that is made again where the extension dies before it answers, with the caller seeing one progress and one completion.
//
// Calls that only ask are repeated. A change is not: whether it happened must be looked up first, which is the sender's business.
#pragma once

#include <functional>
#include <memory>

#include "boundary/Messages.h"
#include "host/launch/ExtensionSource.h"
#include "platform/progress/NSProgress.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class RepeatedCall : public std::enable_shared_from_this<RepeatedCall> {
 public:
  using Extension = platform::NSFileProviderReplicatedExtension;
  using Done = std::function<void(boundary::Completed)>;
  /// Makes the call. `done` is called once, or let go.
  using Start = std::function<platform::NSProgressPtr(Extension& extension, Done done)>;
  enum class Kind { question, change };

  /// How often a question is asked that kills whoever is asked.
  static constexpr int kMostInterruptions = 20;

  /// Makes the call, now; `handler` is called once, or let go, on any thread.
  static platform::NSProgressPtr make(std::shared_ptr<ExtensionSource> source, Kind kind,
                                      Start start, Done handler);

  RepeatedCall(std::shared_ptr<ExtensionSource> source, Kind kind, Start start, Done handler)
      : source_(std::move(source)),
        kind_(kind),
        start_(std::move(start)),
        handler_(std::move(handler)) {}

 private:
  void begin();
  void startWith(const RunningExtensionPtr& running);
  void completed(const boundary::Completed& completed);
  using Snapshot = platform::NSProgress::Snapshot;
  void follow(const platform::NSProgressPtr& inner, int attempt);
  static void show(const Snapshot& counts, bool isRepeated, platform::NSProgress& shown);
  void cancel();

  const std::shared_ptr<ExtensionSource> source_;
  const Kind kind_;
  const Start start_;
  const Done handler_;
  std::weak_ptr<platform::NSProgress> outer_;
  platform::Mutex mutex_;
  platform::NSProgressPtr inner_ GUARDED_BY(mutex_);
  bool isCancelled_ GUARDED_BY(mutex_) = false;
  int interruptions_ GUARDED_BY(mutex_) = 0;
};

}  // namespace kestrune::host
