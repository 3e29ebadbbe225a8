#include "macos/app/Domain.h"

#import <FileProvider/FileProvider.h>

#include <chrono>
#include <condition_variable>
#include <memory>

#include "macos/Errors.h"
#include "macos/Retained.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/values/Mutex.h"

namespace kestrune::macos {

namespace {

constexpr std::chrono::seconds kPatience{30};

using Answer = void (^)(::NSError*);

/// One answer of the system that somebody waits for. It may come when nobody waits any more.
class Awaited {
 public:
  void answer(::NSError* error) {
    const platform::NSErrorPtr ours = errorFrom(error);
    platform::MutexLock lock(mutex_);
    error_ = ours;
    answered_ = true;
    changed_.notify_all();
  }

  platform::NSErrorPtr wait() {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    platform::MutexLock lock(mutex_);
    while (!answered_) {
      if (lock.waitUntil(changed_, deadline) || answered_) continue;
      return platform::NSCocoaError(platform::NSCocoaError::featureUnsupported,
                                    "The system's File Provider service has not answered yet; it "
                                    "may still do what was asked.")
          .share();
    }
    return error_;
  }

 private:
  platform::Mutex mutex_;
  std::condition_variable changed_;
  bool answered_ GUARDED_BY(mutex_) = false;
  platform::NSErrorPtr error_ GUARDED_BY(mutex_);
};

/// What `ask`, which takes a completion handler, is answered with.
template <class Ask>
platform::NSErrorPtr answerOf(const Ask& ask) {
  @autoreleasepool {
    const auto awaited = std::make_shared<Awaited>();
    const RetainedBlock<Answer> handler(^(::NSError* error) {
      @autoreleasepool {
        awaited->answer(error);
      }
    });
    ask(handler.get());
    return awaited->wait();
  }
}

::NSFileProviderDomain* theDomain() {
  return [[[::NSFileProviderDomain alloc] initWithIdentifier:@"main"
                                                 displayName:@"Kestrune"] autorelease];
}

}  // namespace

platform::NSErrorPtr addDomain() {
  return answerOf([](Answer handler) {
    [::NSFileProviderManager addDomain:theDomain() completionHandler:handler];
  });
}

platform::NSErrorPtr removeDomain() {
  return answerOf([](Answer handler) {
    [::NSFileProviderManager removeDomain:theDomain() completionHandler:handler];
  });
}

platform::NSErrorPtr signalWorkingSet() {
  @autoreleasepool {
    ::NSFileProviderManager* const manager = [::NSFileProviderManager managerForDomain:theDomain()];
    if (manager == nil) {
      return platform::NSFileProviderError(platform::NSFileProviderError::providerDomainNotFound)
          .share();
    }
    return answerOf([manager](Answer handler) {
      [manager signalEnumeratorForContainerItemIdentifier:
                   ::NSFileProviderWorkingSetContainerItemIdentifier
                                        completionHandler:handler];
    });
  }
}

}  // namespace kestrune::macos
