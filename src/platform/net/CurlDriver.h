// The driver thread of a session: the only code that calls libcurl's multi interface.
//
// Other threads hand it orders (add, cancel, resume reading, invalidate, stop), which its thread
// carries out between two turns. A turn moves what can be moved, ends what has ended, and lets idle
// clocks run out.
//
// Threads: the public operations may be called from any thread, also from sinks on the driver
// thread. Owns: the multi handle, and each transfer from `add` until its sink's didEnd has
// returned.
#pragma once

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

  explicit CurlDriver(const URLSessionConfiguration& configuration);
  void post(Command command);
  void run();
  /// False when the thread should end.
  bool carryOutCommands();
  void begin(const std::shared_ptr<Transfer>& transfer);
  void endAll();
  void collectEnded();
  void expireIdle();
  int pollMilliseconds() const;
  /// Takes `transfer` off the multi handle; false if it is not there any more.
  bool detach(Transfer* transfer);

  Mutex mutex_;
  std::vector<Command> commands_ GUARDED_BY(mutex_);
  bool invalidated_ GUARDED_BY(mutex_) = false;
  bool stopped_ GUARDED_BY(mutex_) = false;

  // Constant after construction; curl_multi_wakeup may be called on it from any thread.
  CURLM* const multi_;
  std::thread thread_;

  // Used by the driver thread alone.
  std::unordered_map<Transfer*, std::shared_ptr<Transfer>> active_;
};

}  // namespace kestrune::platform
