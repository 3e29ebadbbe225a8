// The kernel's requests that are answered later than they are received for, until they are answered: what a host that is
// replaced must wait for, or leave to its successor.
//
// Requests that only look, or that may be done twice, are kept as they came, so that they can be begun anew. All others change something:
// whether that has happened already only their answer tells.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/values/Mutex.h"

namespace kestrune::host {

class UnansweredRequests {
 public:
  UnansweredRequests() = default;
  UnansweredRequests(const UnansweredRequests&) = delete;
  UnansweredRequests& operator=(const UnansweredRequests&) = delete;

  /// `request` as the kernel sent it; it has not been answered.
  void add(std::span<const char> request);

  /// Something came for the thread that waits for `unique`; ignored if that was not added or has been answered. The kernel tells so once, hence a
  /// successor is told too.
  void interrupted(std::uint64_t unique);

  /// Around giving the answer of `unique`, whether it was added or not. False: it must not be given, since the request
  /// was handed over.
  bool beginAnswer(std::uint64_t unique);
  void endAnswer(std::uint64_t unique);

  /// All of them, each followed by the kernel's word that it was interrupted, if it was; none is answered from now on. Nothing if one changes
  /// something. Waits for answers that are being given.
  std::optional<std::vector<std::string>> handOver();
  /// They may be answered again, and must be begun anew: their answers may have been lost.
  void takeBack();

 private:
  struct Request {
    bool mayRepeat = false;
    bool isBeingAnswered = false;
    bool isInterrupted = false;
    std::string bytes;  // if it may be repeated
  };

  std::atomic<std::size_t> count_ = 0;  // so that most answers need no lock
  platform::Mutex mutex_;
  std::condition_variable answered_;
  bool isHandedOver_ GUARDED_BY(mutex_) = false;
  std::unordered_map<std::uint64_t, Request> requests_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
