#include "host/content/DiskThreads.h"

#include <boost/asio/thread_pool.hpp>

namespace kestrune::host {

namespace {

// They wait rather than compute: one hanging flush must not hold back the next file's.
constexpr std::size_t kThreads = 8;

}  // namespace

boost::asio::any_io_executor diskExecutor() {
  // Never destroyed: work may run until the process ends.
  static auto* const pool = new boost::asio::thread_pool(kThreads);
  return pool->get_executor();
}

}  // namespace kestrune::host
