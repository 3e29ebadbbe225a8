#include "platform/file_provider/NSFileProviderManager.h"

#include <utility>

#include "platform/values/Mutex.h"

namespace kestrune::platform {

namespace {

struct Registry {
  Mutex mutex;
  NSFileProviderManager::Provider provider GUARDED_BY(mutex);
};

Registry& registry() {
  static auto* const instance = new Registry;  // outlives every thread that may still ask
  return *instance;
}

}  // namespace

std::shared_ptr<NSFileProviderManager> NSFileProviderManager::forDomain(
    const NSFileProviderDomain& domain) {
  Provider provider;
  {
    MutexLock lock(registry().mutex);
    provider = registry().provider;
  }
  return provider ? provider(domain) : nullptr;
}

void NSFileProviderManager::setProvider(Provider provider) {
  MutexLock lock(registry().mutex);
  registry().provider = std::move(provider);
}

}  // namespace kestrune::platform
