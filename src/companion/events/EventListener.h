// Notices changes on the store while a folder is mounted: listens to the service's events ("GET /events", server-sent) and
// writes a new invalidation token for them, by which the extension and its host learn that they must look.
//
//     asking ──► connected      each event wants a token, and so does the beginning: something may have been missed
//        ▲           │ the connection ends, fails, or is silent for longer than the service ever is
//        ├─ a pause of 1 s, 2 s … 60 s ◄┘ or nobody could be reached
//        └─ a few minutes ◄── the service answers, but not with events: tokens are wanted every `refresh` meanwhile
//
// The pause begins at 1 s again after a connection that lasted longer than the longest pause: one that is closed at once,
// again and again, must not have everything listed again every second.
//
// Threads: one of its own (`kes-events`) besides the TokenWriter's and the URL session's.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <thread>

#include "companion/events/TokenWriter.h"
#include "platform/net/URLSession.h"
#include "platform/tasks/Task.h"
#include "platform/values/Mutex.h"

namespace kestrune {

struct EventListenerOptions {
  /// How often tokens are written where the service has no events.
  std::chrono::milliseconds refresh = std::chrono::seconds(30);
  std::chrono::milliseconds leastTokenInterval{200};
  std::chrono::milliseconds firstPause = std::chrono::seconds(1);
  std::chrono::milliseconds longestPause = std::chrono::seconds(60);
  /// Six of the service's heartbeats.
  std::chrono::milliseconds silence = std::chrono::seconds(90);
  std::chrono::milliseconds askAgain = std::chrono::minutes(5);
};

class EventListener {
 public:
  /// Begins to listen. `writeToken` may throw CommandError.
  EventListener(EventListenerOptions options, std::function<void()> writeToken);
  /// Ends at once, whatever it waits for. REQUIRES: not called on an executor thread.
  ~EventListener();
  EventListener(const EventListener&) = delete;
  EventListener& operator=(const EventListener&) = delete;

 private:
  enum class End {
    /// Nobody answered, or the stream is over.
    lost,
    /// There is an answer, and it is no stream of events.
    noEvents,
    /// As before: the token is not accepted.
    refused,
  };

  void run();
  /// Asks once and reads to the end.
  platform::Task<void> listen(End* end);
  void connected();
  /// What to do until the service is asked again.
  std::chrono::milliseconds pauseAfter(End end);
  /// False when the listener is to end.
  bool pause(std::chrono::milliseconds duration);

  const EventListenerOptions options_;
  TokenWriter tokens_;
  platform::URLSession session_;
  // Used by the thread and the task that it waits for.
  std::chrono::milliseconds nextPause_;
  bool lastedLong_ = false;
  bool saidRefused_ = false;
  bool saidLost_ = false;

  platform::Mutex mutex_;
  std::condition_variable changed_;
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace kestrune
