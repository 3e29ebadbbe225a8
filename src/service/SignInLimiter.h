// How often one address may try to sign in with a wrong token: ten times at once, then ten times a
// minute. Other addresses are not held up by it.
//
// What is counted is a network rather than a machine for IPv6, where each household has 2^64
// addresses. At most 10,000 addresses are remembered; beyond that the one that has recovered most is
// forgotten.
//
// Threads: callable from any thread.
#pragma once

#include <boost/asio/ip/address.hpp>
#include <chrono>
#include <string>
#include <unordered_map>

#include "platform/values/Mutex.h"

namespace kestrune::service {

class SignInLimiter {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr int kAtOnce = 10;
  static constexpr std::chrono::seconds kInterval{6};

  /// Takes one of the address's attempts. False if none is left; the token must not be looked at
  /// then.
  bool take(const boost::asio::ip::address& address, Clock::time_point now);
  /// Gives an attempt back: the token was right.
  void giveBack(const boost::asio::ip::address& address);

 private:
  void makeRoom(Clock::time_point now) REQUIRES_LOCK(mutex_);

  platform::Mutex mutex_;
  /// By network: when all attempts will be there again. Who has them all is not in it for long.
  std::unordered_map<std::string, Clock::time_point> recovered_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::service
