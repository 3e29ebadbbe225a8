#include "service/Changes.h"

#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <utility>

namespace kestrune::service {
namespace {

namespace asio = boost::asio;

/// Each holds a connection.
constexpr std::size_t kMaxListeners = 256;

}  // namespace

Changes::Listener::Listener(Changes& changes, const asio::any_io_executor& executor,
                            std::uint64_t seen)
    : changes_(changes), timer_(executor), seen_(seen) {}

Changes::Wake Changes::Listener::look() {
  const platform::MutexLock lock(changes_.mutex_);
  if (changes_.ended_) return Wake::ended;
  return std::exchange(seen_, changes_.count_) == changes_.count_ ? Wake::nothing : Wake::changed;
}

asio::awaitable<Changes::Wake> Changes::Listener::wait(std::chrono::milliseconds limit) {
  // The timer is set before looking: what happens after the look cancels it.
  timer_.expires_after(limit);
  const Wake already = look();
  if (already != Wake::nothing) co_return already;
  boost::system::error_code ignored;  // Woken early or late, the look tells why.
  co_await timer_.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
  co_return look();
}

std::shared_ptr<Changes::Listener> Changes::listen(const asio::any_io_executor& executor) {
  const platform::MutexLock lock(mutex_);
  if (present().size() >= kMaxListeners) return nullptr;
  std::shared_ptr<Listener> listener(new Listener(*this, executor, count_));
  listeners_.push_back(listener);
  return listener;
}

std::vector<std::shared_ptr<Changes::Listener>> Changes::present() {
  std::vector<std::shared_ptr<Listener>> alive;
  std::erase_if(listeners_, [&](const std::weak_ptr<Listener>& weak) {
    if (auto listener = weak.lock()) {
      alive.push_back(std::move(listener));
      return false;
    }
    return true;
  });
  return alive;
}

void Changes::wakeAll(std::vector<std::shared_ptr<Listener>> listeners) {
  for (auto& listener : listeners) {
    const auto executor = listener->timer_.get_executor();
    asio::post(executor, [listener = std::move(listener)] { listener->timer_.cancel(); });
  }
}

void Changes::announce() {
  std::vector<std::shared_ptr<Listener>> listeners;
  {
    const platform::MutexLock lock(mutex_);
    ++count_;
    listeners = present();
  }
  wakeAll(std::move(listeners));
}

void Changes::end() {
  std::vector<std::shared_ptr<Listener>> listeners;
  {
    const platform::MutexLock lock(mutex_);
    ended_ = true;
    listeners = present();
  }
  wakeAll(std::move(listeners));
}

}  // namespace kestrune::service
