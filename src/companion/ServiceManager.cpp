#include "companion/ServiceManager.h"

#include <systemd/sd-daemon.h>

#include <chrono>
#include <cstdint>

#include "platform/tasks/Task.h"
#include "platform/values/Mutex.h"

namespace kestrune {

struct ServiceManager::Pings : std::enable_shared_from_this<Pings> {
  explicit Pings(std::chrono::microseconds every)
      : interval(every), timer(platform::sharedExecutor()) {}

  void ping() {
    platform::MutexLock lock(mutex);
    if (isStopped) return;
    ::sd_notify(0, "WATCHDOG=1");
    timer.expires_after(interval);
    timer.async_wait([self = shared_from_this()](const auto&) { self->ping(); });
  }
  void stop() {
    platform::MutexLock lock(mutex);
    isStopped = true;
    timer.cancel();
  }

  const std::chrono::microseconds interval;
  platform::Mutex mutex;
  boost::asio::steady_timer timer GUARDED_BY(mutex);
  bool isStopped GUARDED_BY(mutex) = false;
};

ServiceManager::ServiceManager(const std::string& mountPoint) {
  // Paths may hold line breaks, which would end the field.
  std::string status = "Mounted at " + mountPoint;
  for (char& byte : status)
    if (byte == '\n') byte = '?';
  ::sd_notify(0, ("READY=1\nSTATUS=" + status).c_str());
  std::uint64_t within = 0;
  if (::sd_watchdog_enabled(0, &within) <= 0) return;
  pings_ = std::make_shared<Pings>(std::chrono::microseconds(within / 2));
  pings_->ping();
}

ServiceManager::~ServiceManager() {
  if (pings_) pings_->stop();
  ::sd_notify(0, "STOPPING=1\nSTATUS=Ending");
}

}  // namespace kestrune
