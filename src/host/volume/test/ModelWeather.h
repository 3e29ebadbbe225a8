// How the store treats the host in a model test: fairly, or not at all, or now and then, with answers that are lost or come late.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <string>

#include "host/test/FakeRemote.h"
#include "platform/values/Mutex.h"

namespace kestrune::host::test {

/// How often something happened.
class ModelCounts {
 public:
  void add(const std::string& what);
  int of(const std::string& what) const;
  std::string text() const;

 private:
  mutable platform::Mutex mutex_;
  std::map<std::string, int> counts_ GUARDED_BY(mutex_);
};

class ModelWeather {
 public:
  enum class Sky { fair, unreachable, flaky, lossy, slow, wild, frozen };

  ModelWeather(std::uint64_t seed, ModelCounts& counts) : counts_(counts), random_(seed) {}

  void set(Sky sky);
  bool isFair() const;
  FakeRemote::Treatment treat(Ask ask);

 private:
  std::size_t below(std::size_t bound) REQUIRES_LOCK(mutex_);
  FakeRemote::Treatment choose(Ask ask) REQUIRES_LOCK(mutex_);
  platform::NSErrorPtr someError() REQUIRES_LOCK(mutex_);

  ModelCounts& counts_;
  mutable platform::Mutex mutex_;
  std::mt19937_64 random_ GUARDED_BY(mutex_);
  Sky sky_ GUARDED_BY(mutex_) = Sky::fair;
};

const char* nameOf(ModelWeather::Sky sky);
/// The errno of a failure that the weather brings.
bool isOfWeather(int error);

}  // namespace kestrune::host::test
