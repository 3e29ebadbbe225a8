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

#include "desktop/MountList.h"
#include "platform/log/Log.h"

namespace kestrune::desktop {

namespace {

using Clock = MountObject::Clock;

constexpr std::chrono::seconds kFirstPause{1};
constexpr std::chrono::seconds kLongestPause{60};

/// One connection and what is shown on it.
class Session {
 public:
  Session(host::HostControl& control, std::shared_ptr<Mailbox> mailbox, const MountFacts& facts)
      : facts_(facts) {
    sd_bus* opened = nullptr;
    check(sd_bus_open_user(&opened), "reach the session's bus");
    bus_.reset(opened);
    object_ = std::make_shared<MountObject>(bus_.get(), control, std::move(mailbox), facts);
  }
  ~Session() = default;
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void process() {
    while (check(sd_bus_process(bus_.get(), nullptr), "serve the session's bus") > 0) {
    }
    // Only then is it known how the bus calls this connection; asking before would wait.
    if (!list_ && check(sd_bus_is_ready(bus_.get()), "greet the session's bus") > 0) serve();
  }
  bool isServing() const { return list_.has_value(); }
  std::optional<Clock::time_point> tick(Clock::time_point now) {
    return list_ ? object_->tick(now) : std::nullopt;
  }
  pollfd toPoll() const {
    const int events = check(sd_bus_get_events(bus_.get()), "serve the session's bus");
    return {sd_bus_get_fd(bus_.get()), static_cast<short>(events), 0};
  }
  /// When sd-bus has something to do by itself.
  std::optional<Clock::time_point> due() const {
    std::uint64_t at = 0;
    check(sd_bus_get_timeout(bus_.get(), &at), "serve the session's bus");
    if (at == UINT64_MAX) return std::nullopt;
    return Clock::time_point(std::chrono::microseconds(at));
  }

 private:
  // The connection's own name is free by its form. The common one may be another host's for now, and is passed on by the bus.
  static int named(sd_bus_message*, void*, sd_bus_error*) { return 1; }
  void serve() {
    const char* unique = nullptr;
    check(sd_bus_get_unique_name(bus_.get(), &unique), "greet the session's bus");
    const std::string name = MountList::nameFor(unique);
    object_->begin();
    list_.emplace(bus_.get(), name, facts_.mountPoint);
    check(sd_bus_request_name_async(bus_.get(), nullptr, name.c_str(), 0, &named, nullptr),
          "take a name");
    check(sd_bus_request_name_async(bus_.get(), nullptr, kBusName, SD_BUS_NAME_QUEUE, &named,
                                    nullptr),
          "take a name");
  }

  const MountFacts& facts_;
  BusPtr bus_;
  std::shared_ptr<MountObject> object_;
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
    session_.reset();
  }

 private:
  /// Does what there is to do. When there is more, if that is known.
  std::optional<Clock::time_point> serve() {
    const auto now = Clock::now();
    try {
      if (!session_ && now >= nextTry_) session_.emplace(control_, mailbox_, facts_);
      if (!session_) return nextTry_;
      session_->process();
      const auto next = session_->tick(now);
      session_->process();
      if (session_->isServing()) pause_ = kFirstPause;
      return next;
    } catch (const std::system_error& error) {
      return lost(error);
    }
  }

  std::optional<Clock::time_point> lost(const std::system_error& error) {
    // Machines without a desktop are no trouble to speak of.
    if (session_)
      log_.write(platform::LogLevel::info, "The session's bus is gone: %{public}s", error.what());
    session_.reset();
    nextTry_ = Clock::now() + pause_;
    pause_ = std::min(pause_ * 2, kLongestPause);
    return nextTry_;
  }

  /// False at the end.
  bool wait(std::optional<Clock::time_point> next) {
    std::array<pollfd, 2> polled = {pollfd{mailbox_->descriptor(), POLLIN, 0}, pollfd{-1, 0, 0}};
    if (session_) {
      polled[1] = session_->toPoll();
      if (const auto due = session_->due()) next = next ? std::min(*next, *due) : due;
    }
    int timeout = -1;
    if (next) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(*next - Clock::now());
      timeout = static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 3'600'000));
    }
    if (::poll(polled.data(), polled.size(), timeout) < 0 && errno != EINTR)
      throw std::system_error(errno, std::generic_category(), "poll");
    const Mailbox::Delivery delivery = mailbox_->take();
    try {
      for (const auto& work : delivery.letters) work();
    } catch (const std::system_error& error) {
      lost(error);
    }
    return !delivery.isStopped;
  }

  const platform::Logger log_{"com.orvanta.kestrune.host", "desktop"};
  const MountFacts facts_;
  host::HostControl& control_;
  const std::shared_ptr<Mailbox> mailbox_;
  Clock::time_point nextTry_{};
  std::chrono::seconds pause_ = kFirstPause;
  std::optional<Session> session_;
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
