// The threads that may block on the disk, and the way of a coroutine there and back.
//
// The threads of the network never wait for a disk: whatever opens, lists, renames, writes or syncs
// a file runs here. A task that copies or syncs a large file holds one thread for as long as it
// takes; there are enough of them that others go on.
//
// Threads: `run` may be awaited from any coroutine.
// Owns: its threads, joined by the destructor
// after what was begun has ended.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cstddef>
#include <exception>
#include <optional>
#include <type_traits>
#include <utility>

namespace kestrune::service {

class FileThreads {
 public:
  explicit FileThreads(std::size_t count) : pool_(count) {}
  ~FileThreads() { join(); }
  FileThreads(const FileThreads&) = delete;
  FileThreads& operator=(const FileThreads&) = delete;

  /// Runs `work` on a file thread and returns, or throws, what it does, back on the coroutine's own
  /// executor.
  /// REQUIRES: what `work` refers to lives until the awaiting coroutine goes on, which a
  /// frame of that coroutine does.
  template <class Work>
  boost::asio::awaitable<std::invoke_result_t<Work&>> run(Work work) {
    using Result = std::invoke_result_t<Work&>;
    std::exception_ptr failure;
    co_await boost::asio::post(
        boost::asio::bind_executor(pool_.get_executor(), boost::asio::use_awaitable));
    // Here the coroutine is on a file thread. It must come back before anything leaves it,
    // exceptions too.
    if constexpr (std::is_void_v<Result>) {
      try {
        work();
      } catch (...) {
        failure = std::current_exception();
      }
      co_await boost::asio::post(boost::asio::use_awaitable);
      if (failure) std::rethrow_exception(failure);
    } else {
      std::optional<Result> result;
      try {
        result.emplace(work());
      } catch (...) {
        failure = std::current_exception();
      }
      co_await boost::asio::post(boost::asio::use_awaitable);
      if (failure) std::rethrow_exception(failure);
      co_return std::move(*result);
    }
  }

  /// Ends the threads after what was begun has ended. A coroutine may have gone on, and even
  /// ended, while the file thread that it came from still lets go of its executor; that executor
  /// must not end before this returns. Nothing runs afterwards.
  void join() { pool_.join(); }

 private:
  boost::asio::thread_pool pool_;
};

}  // namespace kestrune::service
