// Who is signed in on the web page: the value of a cookie, which says that its holder once knew the
// token.
//
//     <seconds since 1970 when it ends>.<32 hexadecimal digits, random>.<64 hexadecimal digits>
//
// The last part is a keyed hash of the others. Its key is made of the service's signing key and of
// the token, so no value can be made or prolonged by others, the token cannot be found from it, and
// every session ends when the token or the signing key changes. Nothing is stored: sessions survive
// a restart. What is kept in memory are the sessions that were ended before their time, until that
// time; who restarts the service for the sake of a stolen cookie should change the token as well.
//
// Threads: callable from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/values/Mutex.h"
#include "platform/values/Secret.h"

namespace kestrune::service {

class WebSessions {
 public:
  /// A working day: who is signed in in the morning is not asked again before the evening.
  static constexpr std::chrono::seconds kLifetime = std::chrono::hours(12);

  WebSessions(const platform::Secret& signingKey, const platform::Secret& token);

  /// Cookies do not know of ports. The name has a part of the key in it, so that two services on one
  /// machine do not take each other's place.
  const std::string& cookieName() const { return cookieName_; }

  /// A new session's value. `now` is in seconds since 1970, here and below.
  std::string begin(std::int64_t now) const;
  /// Whether `value` is a session that has neither expired nor been ended.
  bool accepts(std::string_view value, std::int64_t now);
  /// Ends the session before its time; does nothing for another value.
  void end(std::string_view value, std::int64_t now);

  /// The value among those that the header "Cookie: `header`" holds that is a session; empty if none
  /// is. A name may occur several times, with others' values.
  std::string_view find(std::string_view header, std::int64_t now);

 private:
  std::string signatureOf(std::string_view text) const;

  const platform::Secret key_;
  std::string cookieName_;
  platform::Mutex mutex_;
  /// Ended sessions, and when each would have expired.
  std::unordered_map<std::string, std::int64_t> ended_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::service
