// What a mounted folder is doing at the moment, for whoever asks how it is.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <cerrno>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "host/basics/ErrorToErrno.h"
#include "platform/values/Date.h"
#include "platform/values/Mutex.h"
#include "platform/values/NSError.h"

namespace kestrune::host {

class Activity {
 public:
  struct Facts {
    std::uint64_t downloads = 0;
    std::uint64_t uploads = 0;
    /// What the last request failed with; empty if it was answered, nothing if none was made.
    std::optional<std::string> storeError;
    /// It was that the user is not known.
    bool isSignedOut = false;
    std::optional<platform::Date> lastSignal;
  };

  /// `changed` is told, without a lock held, when the store can be reached now and could not before, or the other way round. Set
  /// once, before the store is asked.
  void setChanged(std::function<void()> changed) { changed_ = std::move(changed); }

  void downloading(int step) {
    platform::MutexLock lock(mutex_);
    facts_.downloads += static_cast<std::uint64_t>(step);
  }
  void uploading(int step) {
    platform::MutexLock lock(mutex_);
    facts_.uploads += static_cast<std::uint64_t>(step);
  }
  /// The store answered (null), or this came instead. That one item is missing is an answer.
  void reached(const platform::NSErrorPtr& error) {
    const bool isAnswer = !error || errnoFor(*error) == ENOENT;
    const bool signedOut = error && host::isSignedOut(*error);
    bool isNew = false;
    {
      platform::MutexLock lock(mutex_);
      isNew = facts_.storeError.has_value() && facts_.storeError->empty() != isAnswer;
      facts_.storeError = isAnswer ? std::string() : error->localizedDescription();
      isNew = isNew || facts_.isSignedOut != signedOut;
      facts_.isSignedOut = signedOut;
    }
    if (isNew && changed_) changed_();
  }
  void signalled(platform::Date at) {
    platform::MutexLock lock(mutex_);
    facts_.lastSignal = at;
  }
  Facts facts() {
    platform::MutexLock lock(mutex_);
    return facts_;
  }

 private:
  std::function<void()> changed_;
  platform::Mutex mutex_;
  Facts facts_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
