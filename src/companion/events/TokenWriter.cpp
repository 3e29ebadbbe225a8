#include "companion/events/TokenWriter.h"

#include <pthread.h>

#include <algorithm>
#include <utility>

#include "companion/configuration/CommandError.h"
#include "companion/events/EventsLog.h"

namespace kestrune {

using platform::MutexLock;

TokenWriter::TokenWriter(std::function<void()> write, std::chrono::milliseconds leastInterval)
    : write_(std::move(write)), leastInterval_(leastInterval), thread_([this] { run(); }) {}

TokenWriter::~TokenWriter() {
  {
    MutexLock lock(mutex_);
    stopping_ = true;
    repeat_.reset();
    changed_.notify_all();
  }
  thread_.join();
}

void TokenWriter::want() {
  MutexLock lock(mutex_);
  wanted_ = true;
  changed_.notify_all();
}

void TokenWriter::repeatEvery(std::optional<std::chrono::milliseconds> interval) {
  MutexLock lock(mutex_);
  if (!repeat_) repeatsSince_ = Clock::now();
  repeat_ = interval;
  changed_.notify_all();
}

std::optional<TokenWriter::Clock::time_point> TokenWriter::due() const {
  if (wanted_) return last_ && !stopping_ ? *last_ + leastInterval_ : Clock::time_point();
  if (repeat_) return std::max(last_.value_or(repeatsSince_), repeatsSince_) + *repeat_;
  return std::nullopt;
}

void TokenWriter::run() {
  ::pthread_setname_np(::pthread_self(), "kes-token");
  while (waitUntilDue()) writeOne();
}

bool TokenWriter::waitUntilDue() {
  MutexLock lock(mutex_);
  for (auto at = due(); !at || *at > Clock::now(); at = due()) {
    if (stopping_) return false;
    if (at) {
      static_cast<void>(lock.waitUntil(changed_, *at));
    } else {
      lock.wait(changed_);
    }
  }
  wanted_ = false;  // what is wished for from now on may have happened after this token
  last_ = Clock::now();
  return true;
}

void TokenWriter::writeOne() {
  try {
    write_();
    failedBefore_ = false;
  } catch (const CommandError& error) {
    if (!failedBefore_) eventsLog().write(platform::LogLevel::error, "%{public}s", error.what());
    failedBefore_ = true;
  }
}

}  // namespace kestrune
