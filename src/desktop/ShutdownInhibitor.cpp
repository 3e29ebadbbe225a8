#include "desktop/ShutdownInhibitor.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace kestrune::desktop {

namespace {

constexpr const char* kService = "org.freedesktop.login1";
constexpr const char* kObject = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";

std::string whyText(std::uint64_t changes, const std::string& mountPoint) {
  return std::to_string(changes) + (changes == 1 ? " change in " : " changes in ") +
         text(mountPoint) + (changes == 1 ? " is" : " are") + " on this machine alone";
}

}  // namespace

void ShutdownDelay::setWaiting(std::uint64_t changes) {
  waiting_ = changes;
  if (changes == 0) descriptor_.reset();
}

void ShutdownDelay::hold(std::unique_ptr<const host::Descriptor> descriptor) {
  isMissingNoted_ = false;
  if (waiting_ > 0) descriptor_ = std::move(descriptor);
}

bool ShutdownDelay::noteMissing() { return !std::exchange(isMissingNoted_, true); }

struct ShutdownInhibitor::Handlers {
  static int answered(sd_bus_message* answer, void* data, sd_bus_error*) {
    auto& self = *static_cast<ShutdownInhibitor*>(data);
    self.call_.reset();
    int descriptor = -1;
    if (sd_bus_message_is_method_error(answer, nullptr) > 0) {
      const char* reason = sd_bus_message_get_error(answer)->message;
      self.refused(reason != nullptr ? reason : "it gives no reason");
    } else if (sd_bus_message_read(answer, "h", &descriptor) < 0) {
      self.refused("its answer is of another form");
    } else {
      self.granted(descriptor);
    }
    return 1;
  }

  static int prepared(sd_bus_message* signal, void* data, sd_bus_error*) {
    auto& self = *static_cast<ShutdownInhibitor*>(data);
    int isGoingDown = 0;
    if (sd_bus_message_read(signal, "b", &isGoingDown) < 0) return 0;
    self.isGoingDown_ = isGoingDown != 0;
    self.setting_.goingDown(self.isGoingDown_);
    return 0;
  }

  // Another logind may know nothing of what this one gave.
  static int owned(sd_bus_message* signal, void* data, sd_bus_error*) {
    if (!hasOwner(signal)) return 0;
    auto& self = *static_cast<ShutdownInhibitor*>(data);
    self.isCurrent_ = false;
    self.isRefused_ = false;
    self.isGoingDown_ = false;
    return 0;
  }
};

ShutdownInhibitor::ShutdownInhibitor(sd_bus* bus, Setting setting)
    : bus_(bus), setting_(std::move(setting)) {
  sd_bus_slot* slot = nullptr;
  check(sd_bus_match_signal_async(bus_, &slot, kService, kObject, kManager, "PrepareForShutdown",
                                  &Handlers::prepared, nullptr, this),
        "listen for shutdowns");
  prepares_.reset(slot);
  owners_ = listenForOwners(bus_, kService, &Handlers::owned, this);
}

std::optional<ShutdownInhibitor::Clock::time_point> ShutdownInhibitor::tick(Clock::time_point now) {
  const ShutdownDelay& delay = setting_.delay;
  // logind gives nothing any more once it goes down.
  if (delay.waiting() == 0 || isGoingDown_ || call_) return std::nullopt;
  const bool isGood = delay.isHeld() && isCurrent_;
  if (isGood && told_ == delay.waiting()) return std::nullopt;
  const auto notBefore = isRefused_ ? asked_ + kRetry : isGood ? asked_ + kRenew : now;
  if (now < notBefore) return notBefore;
  asked_ = now;
  ask();
  return std::nullopt;
}

void ShutdownInhibitor::ask() {
  told_ = setting_.delay.waiting();
  sd_bus_slot* slot = nullptr;
  check(sd_bus_call_method_async(bus_, &slot, kService, kObject, kManager, "Inhibit",
                                 &Handlers::answered, this, "ssss", "shutdown", "Kestrune",
                                 whyText(told_, setting_.mountPoint).c_str(), "delay"),
        "ask logind");
  call_.reset(slot);
}

void ShutdownInhibitor::granted(int descriptor) {
  // The message closes its own.
  const int kept = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
  if (kept < 0) return refused(std::strerror(errno));
  isRefused_ = false;
  isCurrent_ = true;
  setting_.delay.hold(std::make_unique<const host::Descriptor>(kept));
}

void ShutdownInhibitor::refused(const char* reason) {
  isRefused_ = true;
  if (!setting_.delay.isHeld() && setting_.delay.noteMissing())
    log_.write(platform::LogLevel::info,
               "A shutdown does not wait for changes that are on this machine alone: %{public}s",
               text(reason).c_str());
}

}  // namespace kestrune::desktop
