#include "desktop/DesktopService.h"

#include <poll.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <optional>
#include <system_error>
#include <utility>

#include "desktop/BusPresence.h"
#include "desktop/HostFollower.h"
#include "desktop/MountList.h"
#include "desktop/ShutdownInhibitor.h"
#include "platform/log/Log.h"

namespace kestrune::desktop {

namespace {

using Clock = std::chrono::steady_clock;
using Moment = std::optional<Clock::time_point>;

Moment earlier(Moment a, Moment b) { return a && b ? std::min(*a, *b) : a ? a : b; }

/// What is shown on one connection to the session's bus.
class MountOnBus {
 public:
  MountOnBus(sd_bus* bus, host::HostControl& control, std::shared_ptr<Mailbox> mailbox,
             const MountFacts& facts, std::function<void()> look)
      : object_(std::make_shared<MountObject>(bus, control, std::move(mailbox), facts,
                                              std::move(look))) {
    const char* unique = nullptr;
    check(sd_bus_get_unique_name(bus, &unique), "greet the session's bus");
    const std::string name = MountList::nameFor(unique);
    object_->begin();
    list_.emplace(bus, name, facts.mountPoint);
    check(sd_bus_request_name_async(bus, nullptr, name.c_str(), 0, &named, nullptr), "take a name");
    check(sd_bus_request_name_async(bus, nullptr, kBusName, SD_BUS_NAME_QUEUE, &named, nullptr),
          "take a name");
  }
  ~MountOnBus() = default;
  MountOnBus(const MountOnBus&) = delete;
  MountOnBus& operator=(const MountOnBus&) = delete;

  MountObject& object() { return *object_; }

 private:
  // The connection's own name is free by its form. The common one may be another host's for now, and is passed on by the bus.
  static int named(sd_bus_message*, void*, sd_bus_error*) { return 1; }

  const std::shared_ptr<MountObject> object_;
  std::optional<MountList> list_;
};

}  // namespace

class DesktopService::Loop {
 public:
  Loop(MountFacts facts, host::HostControl& control, std::shared_ptr<Mailbox> mailbox)
      : facts_(std::move(facts)), control_(control), mailbox_(std::move(mailbox)) {}

  void run() {
    ::pthread_setname_np(::pthread_self(), "kes-desktop");
    while (wait(serve())) {
    }
    follower_.reset();
    session_.end();
    system_.end();
  }

 private:
  BusPresence<MountOnBus>::Setting sessionSetting() {
    return {&sd_bus_open_user,
            [this](sd_bus* bus) {
              isOverviewDue_ = true;
              return std::make_unique<MountOnBus>(bus, control_, mailbox_, facts_,
                                                  [this] { isOverviewDue_ = true; });
            },
            // Machines without a desktop are no trouble to speak of.
            [this](const std::system_error& error, bool wasThere) {
              if (wasThere)
                log_.write(platform::LogLevel::info, "The session's bus is gone: %{public}s",
                           error.what());
            }};
  }
  BusPresence<ShutdownInhibitor>::Setting systemSetting() {
    return {&sd_bus_open_system,
            [this](sd_bus* bus) {
              isOverviewDue_ = true;
              return std::make_unique<ShutdownInhibitor>(
                  bus,
                  ShutdownInhibitor::Setting{delay_, facts_.mountPoint,
                                             [this](bool isGoingDown) { prepare(isGoingDown); }});
            },
            [this](const std::system_error& error, bool) {
              if (!delay_.isHeld() && delay_.noteMissing())
                log_.write(platform::LogLevel::info,
                           "There is no system bus here, so a shutdown will not wait for changes "
                           "that are not sent yet: %{public}s",
                           error.what());
            }};
  }

  /// Does what there is to do. When there is more than the buses', if that is known.
  Moment serve() {
    const auto now = Clock::now();
    session_.serve(now);
    system_.serve(now);
    follow();
    Moment next = follower_ ? follower_->tick(now) : std::nullopt;
    system_.use([&](ShutdownInhibitor& inhibitor) { next = earlier(next, inhibitor.tick(now)); });
    return next;
  }

  /// The host is followed while anybody wants to know, or something is to be let go in time.
  void follow() {
    if (!session_.isThere() && !system_.isThere() && !delay_.isHeld()) return follower_.reset();
    if (!follower_) {
      follower_ = std::make_shared<HostFollower>(
          control_, mailbox_,
          HostFollower::Told{
              [this](const host::HostChanges& changes) {
                session_.use([&](MountOnBus& mount) { mount.object().changed(changes); });
              },
              [this](const host::HostCondition& condition, const host::PendingChanges& pending) {
                delay_.setWaiting(pending.count);
                session_.use(
                    [&](MountOnBus& mount) { mount.object().overview(condition, pending); });
              }});
      follower_->begin();
    }
    if (std::exchange(isOverviewDue_, false)) follower_->look();
  }

  void prepare(bool isGoingDown) {
    if (follower_) follower_->setHurried(isGoingDown);
    if (!isGoingDown || delay_.waiting() == 0) return;
    log_.write(platform::LogLevel::info,
               "The machine is going down. Changes that are here alone and are sent now, as far as "
               "there is time: %lld",
               static_cast<long long>(delay_.waiting()));
    // Those that fail are tried again by the next mount.
    control_.tryNow("/", [](const host::Answer<host::Done>&) {});
  }

  /// False at the end.
  bool wait(Moment next) {
    std::array<pollfd, 3> polled = {pollfd{mailbox_->descriptor(), POLLIN, 0}, session_.toPoll(),
                                    system_.toPoll()};
    next = earlier(next, earlier(session_.due(), system_.due()));
    int timeout = -1;
    if (next) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(*next - Clock::now());
      timeout = static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 3'600'000));
    }
    if (::poll(polled.data(), polled.size(), timeout) < 0 && errno != EINTR)
      throw std::system_error(errno, std::generic_category(), "poll");
    const Mailbox::Delivery delivery = mailbox_->take();
    // Answers to who asked on the session's bus; what the follower is told keeps its errors apart.
    for (const auto& work : delivery.letters) session_.guard(work);
    return !delivery.isStopped;
  }

  const platform::Logger log_{"com.orvanta.kestrune.host", "desktop"};
  const MountFacts facts_;
  host::HostControl& control_;
  const std::shared_ptr<Mailbox> mailbox_;
  ShutdownDelay delay_;
  std::shared_ptr<HostFollower> follower_;
  /// Somebody is there who has seen none, or asks.
  bool isOverviewDue_ = false;
  BusPresence<MountOnBus> session_{sessionSetting()};
  BusPresence<ShutdownInhibitor> system_{systemSetting()};
};

DesktopService::DesktopService(MountFacts facts, host::HostControl& control)
    : mailbox_(std::make_shared<Mailbox>()),
      loop_(std::make_unique<Loop>(std::move(facts), control, mailbox_)),
      thread_([this] { loop_->run(); }) {}

DesktopService::~DesktopService() {
  mailbox_->stop();
  thread_.join();
}

}  // namespace kestrune::desktop
