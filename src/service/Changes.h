// Tells those who listen that something in the tree has changed, without saying what.
//
// A listener that was busy learns of all changes since as of one.
//
// Threads: callable from any thread; a Listener waits on the executor it was made with.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/values/Mutex.h"

namespace kestrune::service {

class Changes {
 public:
  enum class Wake { changed, nothing, ended };

  /// REQUIRES: does not outlive the Changes that made it.
  class Listener {
   public:
    /// Waits for a change since the last call (or since the listener was made), but not longer than
    /// `limit`.
    /// REQUIRES: awaited on the listener's executor.
    boost::asio::awaitable<Wake> wait(std::chrono::milliseconds limit);

   private:
    friend class Changes;
    Listener(Changes& changes, const boost::asio::any_io_executor& executor, std::uint64_t seen);
    Wake look();

    Changes& changes_;
    boost::asio::steady_timer timer_;
    std::uint64_t seen_;
  };

  /// Null when there are too many already.
  std::shared_ptr<Listener> listen(const boost::asio::any_io_executor& executor);
  /// Something has changed.
  void announce();
  /// Every wait, present and future, ends with Wake::ended.
  void end();

 private:
  void wakeAll(std::vector<std::shared_ptr<Listener>> listeners);
  std::vector<std::shared_ptr<Listener>> present() REQUIRES_LOCK(mutex_);

  platform::Mutex mutex_;
  std::uint64_t count_ GUARDED_BY(mutex_) = 0;
  bool ended_ GUARDED_BY(mutex_) = false;
  std::vector<std::weak_ptr<Listener>> listeners_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::service
