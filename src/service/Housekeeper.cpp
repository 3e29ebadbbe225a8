#include "service/Housekeeper.h"

#include <chrono>
#include <exception>
#include <utility>

#include "service/ServiceLog.h"
#include "service/Time.h"

namespace kestrune::service {
namespace {

constexpr auto kSweepInterval = std::chrono::hours(1);

}  // namespace

Housekeeper::Housekeeper(const Staging& staging, MultipartUploads& uploads)
    : staging_(staging), uploads_(uploads), thread_([this] { run(); }) {}

Housekeeper::~Housekeeper() {
  {
    const platform::MutexLock lock(mutex_);
    ending_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void Housekeeper::wake() {
  const platform::MutexLock lock(mutex_);
  woken_ = true;
  changed_.notify_all();
}

bool Housekeeper::goesOn() {
  const platform::MutexLock lock(mutex_);
  return !ending_;
}

bool Housekeeper::waitForWork(std::chrono::steady_clock::time_point nextSweep) {
  platform::MutexLock lock(mutex_);
  while (!ending_ && !woken_ && std::chrono::steady_clock::now() < nextSweep)
    lock.waitUntil(changed_, nextSweep);
  woken_ = false;
  return !ending_;
}

void Housekeeper::run() {
  auto nextSweep = std::chrono::steady_clock::now();
  while (waitForWork(nextSweep)) {
    try {
      if (std::chrono::steady_clock::now() >= nextSweep) {
        nextSweep = std::chrono::steady_clock::now() + kSweepInterval;
        staging_.sweep(secondsNow());
        uploads_.sweep(secondsNow());
      }
      staging_.emptyTrash([this] { return goesOn(); });
    } catch (const std::exception& error) {
      // The staging directory may be unreadable for a while; the next round tries again.
      serviceLog().write(platform::LogLevel::error, "clearing up failed: %{public}s", error.what());
    }
  }
}

}  // namespace kestrune::service
