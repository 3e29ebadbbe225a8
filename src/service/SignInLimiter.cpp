#include "service/SignInLimiter.h"

#include <algorithm>
#include <boost/asio/ip/network_v6.hpp>

namespace kestrune::service {
namespace {

constexpr std::size_t kMaxRemembered = 10'000;

std::string networkOf(const boost::asio::ip::address& address) {
  using namespace boost::asio::ip;
  if (address.is_v4()) return address.to_string();
  const address_v6 v6 = address.to_v6();
  if (v6.is_v4_mapped()) return make_address_v4(v4_mapped, v6).to_string();
  constexpr unsigned short kHousehold = 64;
  return make_network_v6(v6, kHousehold).canonical().to_string();
}

}  // namespace

bool SignInLimiter::take(const boost::asio::ip::address& address, Clock::time_point now) {
  const std::string network = networkOf(address);
  const platform::MutexLock lock(mutex_);
  const auto known = recovered_.find(network);
  const Clock::time_point from = known == recovered_.end() ? now : std::max(known->second, now);
  if (from - now > (kAtOnce - 1) * kInterval) return false;
  if (known == recovered_.end()) makeRoom(now);
  recovered_[network] = from + kInterval;
  return true;
}

void SignInLimiter::giveBack(const boost::asio::ip::address& address) {
  const platform::MutexLock lock(mutex_);
  const auto known = recovered_.find(networkOf(address));
  if (known != recovered_.end()) known->second -= kInterval;
}

void SignInLimiter::makeRoom(Clock::time_point now) {
  if (recovered_.size() < kMaxRemembered) return;
  std::erase_if(recovered_, [now](const auto& known) { return known.second <= now; });
  if (recovered_.size() < kMaxRemembered) return;
  recovered_.erase(std::min_element(
      recovered_.begin(), recovered_.end(),
      [](const auto& one, const auto& other) { return one.second < other.second; }));
}

}  // namespace kestrune::service
