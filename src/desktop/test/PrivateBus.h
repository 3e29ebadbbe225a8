// A message bus of the test's own, and a program that asks on it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "desktop/Bus.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::desktop::test {

enum class WhichBus { session, system };
sd_bus* openBus(WhichBus which);

/// The session's or the system's bus of this process, always at the same address.
class PrivateBus {
 public:
  /// Where this machine has no dbus-daemon.
  static bool isMissing();

  /// The environment says from now on where it is; it does not run. Nor does the other one, which is never the machine's own.
  explicit PrivateBus(WhichBus which = WhichBus::session);
  ~PrivateBus() { stop(); }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;
  /// Returns when it takes connections.
  void start();
  /// Kills it.
  void stop();

 private:
  const WhichBus which_;
  support::TemporaryDirectory directory_;
  pid_t process_ = 0;
};

/// Waits for each answer; throws where none comes in time.
class BusClient {
 public:
  explicit BusClient(WhichBus which = WhichBus::session);
  ~BusClient() = default;
  BusClient(const BusClient&) = delete;
  BusClient& operator=(const BusClient&) = delete;

  sd_bus* bus() { return bus_.get(); }
  /// The names of hosts on the bus.
  std::vector<std::string> hosts();
  /// Waits until there are so many.
  std::vector<std::string> waitForHosts(std::size_t count);

  /// Null with the error's name in `error`.
  MessagePtr call(const std::string& host, const char* method,
                  const std::function<void(sd_bus_message*)>& arguments, std::string& error);
  struct State {
    std::string word;
    bool isKept = false;
    bool operator==(const State&) const = default;
  };
  std::map<std::string, State> folderStates(const std::string& host, const std::string& folder);
  /// Of a method that takes paths and answers with errors.
  std::vector<std::string> act(const std::string& host, const char* method,
                               const std::vector<std::string>& paths);
  MessagePtr property(const std::string& host, const char* name, const char* type);

  /// Gathers signals of mounts from now on.
  void listen();
  /// Waits until `count` came that were not taken: "StatesChanged /docs", "PropertiesChanged PendingCount".
  std::vector<std::string> takeSignals(std::size_t count);
  /// Those that come within a while.
  std::vector<std::string> takeSignalsFor(std::chrono::milliseconds duration);

 private:
  static int signalled(sd_bus_message* message, void* data, sd_bus_error* error);

  BusPtr bus_;
  std::vector<std::string> signals_;
};

void appendPaths(sd_bus_message* message, const std::vector<std::string>& paths);

}  // namespace kestrune::desktop::test
