// The host's replies on their way to the thread that writes them to clients.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "host/basics/LocalFile.h"
#include "host/control/HostControl.h"
#include "platform/values/Json.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class ControlMailbox {
 public:
  using ClientId = std::uint64_t;

  /// The result of a request, or what a waiting "sync" has seen. JSON is made where the reply comes, not on the one
  /// thread of all clients.
  struct Letter {
    ClientId client = 0;
    Answer<platform::Json> answer;
    /// Of what is pending: how much is left.
    std::uint64_t left = 0;
  };

  /// Throws NSPOSIXError where the process has no descriptor left.
  ControlMailbox();

  void put(Letter letter);
  /// Ends the reader's work.
  void stop();

  /// Readable when something was put or it was stopped.
  int descriptor() const { return wake_.number(); }
  struct Delivery {
    std::vector<Letter> letters;
    bool isStopped = false;
  };
  Delivery take();

 private:
  void wake();

  const Descriptor wake_;
  platform::Mutex mutex_;
  std::vector<Letter> letters_ GUARDED_BY(mutex_);
  bool stopped_ GUARDED_BY(mutex_) = false;
};

}  // namespace kestrune::host
