// The files that the kernel holds open, by the numbers that it was given for them. Numbers and not addresses: they mean the
// same file to the program that is executed in the place of this one.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/front/Dispatcher.h"
#include "host/front/Passthrough.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

/// What the kernel holds of an open file.
struct OpenHandle {
  OpenFilePtr file;
  Passthrough::Way way = Passthrough::Way::requests;
};

class OpenHandles {
 public:
  using Number = std::uint64_t;

  /// Its number from now on; never given again.
  Number add(OpenHandle handle);
  /// REQUIRES of this and the next: `number` was added and not removed.
  OpenHandle at(Number number) const;
  OpenHandle remove(Number number);

  std::vector<std::pair<Number, OpenHandle>> all() const;
  Number next() const;
  /// Under the number that it has. REQUIRES: before the first request.
  void restore(Number number, OpenHandle handle);
  /// Numbers begin here. REQUIRES: as above.
  void beginAt(Number next);

 private:
  mutable platform::Mutex mutex_;
  Number next_ GUARDED_BY(mutex_) = 1;
  std::unordered_map<Number, OpenHandle> handles_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
