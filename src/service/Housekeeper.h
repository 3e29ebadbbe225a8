// The thread that clears up: the trash as soon as something is in it, abandoned uploads every hour.
//
// Threads: `wake` from any thread.
// Owns: its thread; the destructor ends and joins it, without
// waiting for a long removal.
#pragma once

#include <chrono>
#include <condition_variable>
#include <thread>

#include "platform/values/Mutex.h"
#include "service/MultipartUploads.h"
#include "service/Staging.h"

namespace kestrune::service {

class Housekeeper {
 public:
  /// Begins with both at once. `staging` and `uploads` outlive this object.
  Housekeeper(const Staging& staging, MultipartUploads& uploads);
  ~Housekeeper();
  Housekeeper(const Housekeeper&) = delete;
  Housekeeper& operator=(const Housekeeper&) = delete;

  /// There is something in the trash.
  void wake();

 private:
  void run();
  bool goesOn();
  /// Waits until there is something to do; false at the end.
  bool waitForWork(std::chrono::steady_clock::time_point nextSweep);

  const Staging& staging_;
  MultipartUploads& uploads_;
  platform::Mutex mutex_;
  std::condition_variable changed_;
  bool woken_ GUARDED_BY(mutex_) = true;
  bool ending_ GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace kestrune::service
