#include "host/basics/Timers.h"

#include <boost/asio/steady_timer.hpp>
#include <unordered_map>
#include <utility>

#include "platform/tasks/Task.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

namespace {

using platform::Mutex;
using platform::MutexLock;

class SystemTimers final : public Timers, public std::enable_shared_from_this<SystemTimers> {
 public:
  Token after(std::chrono::nanoseconds delay, std::function<void()> work) override {
    auto timer = std::make_shared<boost::asio::steady_timer>(platform::sharedExecutor(), delay);
    MutexLock lock(mutex_);
    const Token token = next_++;
    timers_.emplace(token, timer);
    // Begun under the lock: `cancel` must not touch the timer at the same time.
    timer->async_wait([self = shared_from_this(), token,
                       work = std::move(work)](const boost::system::error_code&) {
      if (self->take(token)) work();
    });
    return token;
  }

  void cancel(Token token) override {
    if (auto timer = take(token)) timer->cancel();
  }

  std::chrono::nanoseconds now() const override {
    return std::chrono::steady_clock::now().time_since_epoch();
  }

 private:
  std::shared_ptr<boost::asio::steady_timer> take(Token token) {
    MutexLock lock(mutex_);
    auto node = timers_.extract(token);
    return node.empty() ? nullptr : std::move(node.mapped());
  }

  Mutex mutex_;
  Token next_ GUARDED_BY(mutex_) = 1;
  std::unordered_map<Token, std::shared_ptr<boost::asio::steady_timer>> timers_ GUARDED_BY(mutex_);
};

}  // namespace

std::shared_ptr<Timers> systemTimers() { return std::make_shared<SystemTimers>(); }

}  // namespace kestrune::host
