#include <boost/asio/impl/src.hpp>
#include <boost/beast/src.hpp>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
// Executors count their references with an acquire fence (boost/asio/detail/atomic_count.hpp),
// which ThreadSanitizer does not know: it reports the last owner's delete as a race.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "race:boost::asio::execution::detail::shared_target_executor\n";
}
#endif
#endif
