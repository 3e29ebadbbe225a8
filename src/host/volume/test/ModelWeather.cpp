#include "host/volume/test/ModelWeather.h"

#include <array>
#include <cerrno>

#include "platform/file_provider/NSFileProviderError.h"

namespace kestrune::host::test {

using platform::MutexLock;
using platform::NSErrorPtr;
using platform::NSFileProviderError;
using Kind = FakeRemote::Treatment::Kind;

void ModelCounts::add(const std::string& what) {
  MutexLock lock(mutex_);
  ++counts_[what];
}

int ModelCounts::of(const std::string& what) const {
  MutexLock lock(mutex_);
  const auto found = counts_.find(what);
  return found == counts_.end() ? 0 : found->second;
}

std::string ModelCounts::text() const {
  MutexLock lock(mutex_);
  std::string text;
  for (const auto& [what, count] : counts_)
    text += (text.empty() ? "" : ", ") + what + " " + std::to_string(count);
  return text;
}

const char* nameOf(ModelWeather::Sky sky) {
  static constexpr std::array kNames = {"fair", "unreachable", "flaky", "lossy",
                                        "slow", "wild",        "frozen"};
  return kNames.at(static_cast<std::size_t>(sky));
}

bool isOfWeather(int error) {
  return error == EHOSTUNREACH || error == EIO || error == EACCES || error == EDQUOT ||
         error == ETIMEDOUT;
}

void ModelWeather::set(Sky sky) {
  MutexLock lock(mutex_);
  sky_ = sky;
}

bool ModelWeather::isFair() const {
  MutexLock lock(mutex_);
  return sky_ == Sky::fair;
}

std::size_t ModelWeather::below(std::size_t bound) {
  return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random_);
}

NSErrorPtr ModelWeather::someError() {
  constexpr std::array kCodes = {
      NSFileProviderError::serverUnreachable, NSFileProviderError::serverUnreachable,
      NSFileProviderError::cannotSynchronize, NSFileProviderError::notAuthenticated,
      NSFileProviderError::insufficientQuota};
  const std::size_t which = below(kCodes.size() + 1);
  if (which == kCodes.size()) return platform::NSPOSIXError(ETIMEDOUT, "answer in time").share();
  return NSFileProviderError(kCodes.at(which)).share();
}

FakeRemote::Treatment ModelWeather::choose(Ask ask) {
  const bool isChange = ask == Ask::create || ask == Ask::modify || ask == Ask::remove;
  const std::size_t chance = below(100);
  const Kind waits = below(2) == 0 ? Kind::held : Kind::late;
  switch (sky_) {
    case Sky::fair:
      break;
    case Sky::frozen:
      return {Kind::held, nullptr};
    case Sky::unreachable:
      return {Kind::refused, NSFileProviderError(NSFileProviderError::serverUnreachable).share()};
    case Sky::flaky:
      if (chance < 40) return {Kind::refused, someError()};
      break;
    case Sky::lossy:
      if (isChange && chance < 50) return {Kind::lost, someError()};
      if (chance < 10) return {Kind::refused, someError()};
      break;
    case Sky::slow:
      if (chance < 60) return {waits, nullptr};
      break;
    case Sky::wild:
      if (chance < 20) return {waits, nullptr};
      if (chance < 35) return {Kind::refused, someError()};
      if (chance < 55) return {Kind::lost, someError()};
      break;
  }
  return {};
}

FakeRemote::Treatment ModelWeather::treat(Ask ask) {
  MutexLock lock(mutex_);
  FakeRemote::Treatment treatment = choose(ask);
  switch (treatment.kind) {
    case Kind::fair:
      break;
    case Kind::refused:
      counts_.add("refusals");
      break;
    case Kind::lost:
      counts_.add("lost answers");
      break;
    case Kind::held:
    case Kind::late:
      counts_.add("late answers");
  }
  return treatment;
}

}  // namespace kestrune::host::test
