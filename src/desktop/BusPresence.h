// One connection to a message bus that may come and go, and what shows itself there while it can: a party, which is made when the
// bus has greeted and goes with the connection. A bus that is not there is looked for after a second, then less and less often.
//
//     waiting ── a bus is there ──► greeting ── named ──► the party is there
//        ▲───────── gone or refused ───┴─────────────────────┘
//
// Threads: all of it on the thread that polls. Nothing here waits: what sd-bus would wait for is polled for.
#pragma once

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "desktop/Bus.h"

namespace kestrune::desktop {

template <class Party>
class BusPresence {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kFirstPause{1};
  static constexpr std::chrono::seconds kLongestPause{60};

  struct Setting {
    /// As sd_bus_open_user.
    int (*open)(sd_bus** bus);
    /// May throw std::system_error, as all that the party does: the connection ends with it.
    std::function<std::unique_ptr<Party>(sd_bus* bus)> make;
    /// Told when the bus is gone (`wasThere`), and each time that it is not found.
    std::function<void(const std::system_error& error, bool wasThere)> lost;
  };
  explicit BusPresence(Setting setting) : setting_(std::move(setting)) {}
  BusPresence(const BusPresence&) = delete;
  BusPresence& operator=(const BusPresence&) = delete;

  /// Does what there is to do. To be called when the descriptor is ready, or it is due.
  void serve(Clock::time_point now) {
    if (!bus_ && now < nextTry_) return;
    guarded([this] {
      if (!bus_) open();
      process();
      // Only then is it known how the bus calls this connection; asking before would wait.
      if (!party_ && check(sd_bus_is_ready(bus_.get()), "greet the bus") > 0) {
        party_ = setting_.make(bus_.get());
        pause_ = kFirstPause;
        process();
      }
    });
  }
  bool isThere() const { return party_ != nullptr; }
  /// Has the party do `work`, if it is there.
  template <class Work>
  void use(Work&& work) {
    if (party_) guarded([&] { work(*party_); });
  }
  /// As `use`, of what may be the party's, if it is anybody's.
  template <class Work>
  void guard(Work&& work) {
    guarded(work);
  }
  pollfd toPoll() const {
    if (!bus_) return {-1, 0, 0};
    const int events = std::max(sd_bus_get_events(bus_.get()), 0);
    return {sd_bus_get_fd(bus_.get()), static_cast<short>(events), 0};
  }
  /// When there is something to do without that: a bus is looked for, or sd-bus waits for an answer no longer.
  std::optional<Clock::time_point> due() const {
    if (!bus_) return nextTry_;
    std::uint64_t at = 0;
    // A connection that fails here is ended by `serve`, at once.
    if (sd_bus_get_timeout(bus_.get(), &at) >= 0 && at == UINT64_MAX) return std::nullopt;
    return Clock::time_point(std::chrono::microseconds(at));
  }
  void end() {
    party_.reset();
    bus_.reset();
  }

 private:
  void open() {
    sd_bus* opened = nullptr;
    check(setting_.open(&opened), "reach the bus");
    bus_.reset(opened);
  }
  void process() {
    while (check(sd_bus_process(bus_.get(), nullptr), "serve the bus") > 0) {
    }
  }
  template <class Work>
  void guarded(Work&& work) {
    try {
      work();
    } catch (const std::system_error& error) {
      setting_.lost(error, bus_ != nullptr);
      end();
      nextTry_ = Clock::now() + pause_;
      pause_ = std::min(pause_ * 2, kLongestPause);
    }
  }

  const Setting setting_;
  Clock::time_point nextTry_{};
  std::chrono::seconds pause_ = kFirstPause;
  BusPtr bus_;
  std::unique_ptr<Party> party_;  // last: it goes before its connection
};

}  // namespace kestrune::desktop
