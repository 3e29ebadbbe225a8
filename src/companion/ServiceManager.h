// What the service manager that started a mount hears of it: that the folder can be used, that the host lives, that it ends.
//
// By systemd's protocol (sd_notify(3)); where no such manager started this program, nothing is said. The descriptor of a program that
// replaces this one in place is inherited with the environment, and the process stays the one that the manager knows.
//
// Threads: one object on one thread; the pings come from the shared executor, so that one whose threads all hang is noticed.
#pragma once

#include <boost/asio/steady_timer.hpp>

#include <memory>
#include <string>

namespace kestrune {

class ServiceManager {
 public:
  /// The folder at `mountPoint` can be used. From here on the manager is told regularly that the host lives, if it wants that.
  explicit ServiceManager(const std::string& mountPoint);
  /// The folder is not served any more.
  ~ServiceManager();
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;

 private:
  struct Pings;
  std::shared_ptr<Pings> pings_;  // none where nobody wants them
};

}  // namespace kestrune
