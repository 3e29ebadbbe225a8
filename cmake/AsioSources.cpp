#include <boost/asio/impl/src.hpp>
#include <boost/beast/src.hpp>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
// Two reference counts whose last owner's delete ThreadSanitizer takes for a race: executors use an
// acquire fence (boost/asio/detail/atomic_count.hpp), which it does not know; exceptions are counted
// inside libstdc++ (libsupc++/eh_atomics.h, acquire-release), which is not instrumented. The end of
// a catch block leaves only the exception's destructor in the report.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "race:boost::asio::execution::detail::shared_target_executor\n"
         "race:std::__exception_ptr::exception_ptr::_M_release\n"
         "race:std::runtime_error::~runtime_error\n";
}
#endif
#endif
