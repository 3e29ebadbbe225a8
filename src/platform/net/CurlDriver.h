// The driver thread of a session: the only code that calls libcurl's multi interface.
//
// Other threads hand it orders (add, cancel, resume reading, invalidate, stop), which its thread
// carries out between two turns. A turn moves what can be moved, ends what has ended, and lets idle
// clocks run out.
//
// At most `httpMaximumConnectionsPerHost` transfers of one origin run at a time; the others wait here,
// first come, first served, and not in libcurl: its 7.88.1 forgets some of the transfers that wait
// for a connection, which then never end. (Where a redirect leads to another origin, the transfer
// still counts for the first.)
//
// Threads: the public operations may be called from any thread, also from sinks on the driver
// thread. Owns: the multi handle, and each transfer from `add` until its sink's didEnd has
// returned.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/net/Transfer.h"
#include "platform/values/Mutex.h"

namespace kestrune::platform {

class CurlDriver : public std::enable_shared_from_this<CurlDriver> {
 public:
  /// Starts the thread.
  static std::shared_ptr<CurlDriver> start(const URLSessionConfiguration& configuration);
  ~CurlDriver();
  CurlDriver(const CurlDriver&) = delete;
  CurlDriver& operator=(const CurlDriver&) = delete;

  /// Starts `transfer`. After `invalidate` it fails with URLError cancelled instead.
  void add(std::shared_ptr<Transfer> transfer);
  /// Ends `transfer` with URLError cancelled if it has not ended yet.
  void cancel(std::shared_ptr<Transfer> transfer);
  /// Lets a paused transfer go on.
  void resumeReading(std::shared_ptr<Transfer> transfer);
  /// Fails everything that runs and all that is added later.
  void invalidate();
  /// Invalidates and ends the thread; waits for it unless called on it.
  void stop();

 private:
  enum class Order { add, cancel, resumeReading, invalidate, stop };
  struct Command {
    Order order;
    std::shared_ptr<Transfer> transfer;
  };

  /// The transfers to one origin.
  struct Host {
    int running = 0;
    std::deque<std::shared_ptr<Transfer>> waiting;
  };

  explicit CurlDriver(const URLSessionConfiguration& configuration);
  void post(Command command);
  void run();
  /// False when the thread should end.
  bool carryOutCommands();
  /// Hands `transfer` to libcurl; false, and it has ended, if that cannot be done.
  bool start(const std::shared_ptr<Transfer>& transfer);
  /// Starts what waits for `origin`, as far as may run.
  void startWaiting(const std::string& origin);
  void endAll();
  void collectEnded();
  void expire();
  int pollMilliseconds() const;
  /// Takes `transfer` off the multi handle or out of its queue; false if it is not there any more.
  bool detach(Transfer* transfer);

  Mutex mutex_;
  std::vector<Command> commands_ GUARDED_BY(mutex_);
  bool invalidated_ GUARDED_BY(mutex_) = false;
  bool stopped_ GUARDED_BY(mutex_) = false;

  // Constant after construction; curl_multi_wakeup may be called on multi_ from any thread.
  CURLM* const multi_;
  const int maximumPerHost_;
  std::thread thread_;

  // Used by the driver thread alone.
  std::unordered_map<Transfer*, std::shared_ptr<Transfer>> active_;
  std::unordered_map<std::string, Host> hosts_;  // by origin; only those with a transfer
};

}  // namespace kestrune::platform
