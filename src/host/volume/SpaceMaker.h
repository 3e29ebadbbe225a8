// Makes room: drops the contents that were not used for the longest time, when there is too much of them or too little left
// of the disk. What is open, changed, unsent, or to be kept here never goes.
//
// It looks only while contents change, at most every kInterval.
//
// Threads: every operation may be called from any thread and returns at once. The work runs on the disk's threads.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include "host/basics/Timers.h"
#include "host/volume/Contents.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

struct SpaceLimits {
  /// How much contents may take on the disk; none: no limit.
  std::optional<std::uint64_t> cacheBytes;
  /// How much of the disk is to stay free; none: a twentieth of it, at most kMostKeptFree.
  std::optional<std::uint64_t> keepFreeBytes;
};

class SpaceMaker : public std::enable_shared_from_this<SpaceMaker> {
 public:
  static constexpr std::chrono::seconds kInterval{10};
  static constexpr std::uint64_t kMostKeptFree = 10ULL << 30U;

  SpaceMaker(std::shared_ptr<Volume> volume, std::shared_ptr<Contents> contents, SpaceLimits limits)
      : volume_(std::move(volume)), contents_(std::move(contents)), limits_(limits) {}

  /// Looks once, soon.
  void begin();
  /// Contents came or went.
  void changed();
  /// Looks now. Blocks for the local disk.
  void makeRoom();
  void stop();

 private:
  std::uint64_t excess();

  const std::shared_ptr<Volume> volume_;
  const std::shared_ptr<Contents> contents_;
  const SpaceLimits limits_;
  platform::Mutex mutex_;
  bool stopped_ GUARDED_BY(mutex_) = false;
  bool waiting_ GUARDED_BY(mutex_) = false;
};

}  // namespace kestrune::host
