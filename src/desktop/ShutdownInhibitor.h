// Has the machine wait a moment with going down while something exists here alone, and uses that moment to send it.
//
// logind lets every user delay a shutdown, for as long as it is set to at most (5 s where nobody has set it otherwise). It is not
// blocked: that takes privileges for some, and a store that cannot be reached would keep a machine from going down. Sleep is not
// delayed: the host sleeps too, and goes on where it was.
//
//     nothing waits ── a change waits ──► asked ── granted ──► held ── nothing waits, or the end ──► let go
//                                           └── refused ──► asked again after kRetry, while something waits
//
// When the machine goes down everything is tried at once. The delay is over when nothing waits any more, or when logind's patience
// ends, of which nobody tells: what is held then means nothing.
//
// Threads: all of it on the thread of the bus.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "desktop/Bus.h"
#include "host/basics/LocalFile.h"
#include "platform/log/Log.h"

namespace kestrune::desktop {

/// What is held of logind: outlives a connection to the bus, since logind looks at the descriptor alone.
class ShutdownDelay {
 public:
  /// So many changes are on this machine alone.
  void setWaiting(std::uint64_t changes);
  std::uint64_t waiting() const { return waiting_; }
  bool isHeld() const { return descriptor_ != nullptr; }
  /// In the place of what was held before. Dropped at once where nothing waits by now.
  void hold(std::unique_ptr<const host::Descriptor> descriptor);
  /// Whether that there is none is new: it is told once, until one is held again.
  bool noteMissing();

 private:
  std::uint64_t waiting_ = 0;
  bool isMissingNoted_ = false;
  std::unique_ptr<const host::Descriptor> descriptor_;
};

/// One connection to the system's bus.
class ShutdownInhibitor {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kRetry{60};
  /// How old the count may get that administrators are shown.
  static constexpr std::chrono::seconds kRenew{60};

  struct Setting {
    /// Outlives the object.
    ShutdownDelay& delay;
    std::string mountPoint;
    /// Told that the machine goes down, or that it does not after all.
    std::function<void(bool isGoingDown)> goingDown;
  };
  /// Throws std::system_error where the connection has gone.
  ShutdownInhibitor(sd_bus* bus, Setting setting);
  ShutdownInhibitor(const ShutdownInhibitor&) = delete;
  ShutdownInhibitor& operator=(const ShutdownInhibitor&) = delete;

  /// Asks logind for what is needed now. When to call again, if it is not called for another reason before.
  std::optional<Clock::time_point> tick(Clock::time_point now);

 private:
  struct Handlers;
  void ask();
  void granted(int descriptor);
  void refused(const char* reason);

  sd_bus* const bus_;
  const Setting setting_;
  const platform::Logger log_{"com.orvanta.kestrune.host", "desktop"};
  bool isGoingDown_ = false;
  /// What is held was given on this connection, by the logind that runs.
  bool isCurrent_ = false;
  /// The count that it was given for.
  std::uint64_t told_ = 0;
  Clock::time_point asked_{};
  bool isRefused_ = false;
  SlotPtr call_;
  SlotPtr prepares_;
  SlotPtr owners_;
};

}  // namespace kestrune::desktop
