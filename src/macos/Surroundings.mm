#include "macos/Surroundings.h"

#import <AppKit/AppKit.h>
#import <FileProvider/FileProvider.h>
#import <UniformTypeIdentifiers/UniformTypeIdentifiers.h>

#include <dispatch/dispatch.h>

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "macos/Errors.h"
#include "macos/Retained.h"
#include "macos/UnifiedLog.h"
#include "macos/Values.h"
#include "platform/file_provider/NSFileProviderManager.h"
#include "platform/files/UTType.h"
#include "platform/log/Log.h"
#include "platform/pasteboard/NSPasteboard.h"
#include "platform/tasks/MainQueue.h"

namespace kestrune::macos {

namespace {

class Manager final : public platform::NSFileProviderManager {
 public:
  explicit Manager(::NSFileProviderManager* manager) : manager_(manager) {}

  void evictItem(platform::NSFileProviderItemIdentifier identifier,
                 Handler completionHandler) override {
    @autoreleasepool {
      [manager_.get() evictItemWithIdentifier:identifierToPlatform(identifier)
                            completionHandler:answering(std::move(completionHandler)).get()];
    }
  }

  void requestDownloadForItem(platform::NSFileProviderItemIdentifier identifier,
                              std::optional<platform::NSRange> range,
                              Handler completionHandler) override {
    @autoreleasepool {
      // "Not found" asks for the whole item.
      const ::NSRange asked = range ? toPlatform(*range) : NSMakeRange(NSNotFound, 0);
      [manager_.get()
          requestDownloadForItemWithIdentifier:identifierToPlatform(identifier)
                                requestedRange:asked
                             completionHandler:answering(std::move(completionHandler)).get()];
    }
  }

  void signalEnumerator(platform::NSFileProviderItemIdentifier container,
                        Handler completionHandler) override {
    @autoreleasepool {
      [manager_.get()
          signalEnumeratorForContainerItemIdentifier:identifierToPlatform(container)
                                   completionHandler:answering(std::move(completionHandler)).get()];
    }
  }

 private:
  using Answer = void (^)(::NSError*);
  static RetainedBlock<Answer> answering(Handler handler) {
    return RetainedBlock<Answer>(^(::NSError* error) {
      @autoreleasepool {
        handler(errorFrom(error));
      }
    });
  }

  const Retained<::NSFileProviderManager*> manager_;
};

std::shared_ptr<platform::NSFileProviderManager> managerOf(
    const platform::NSFileProviderDomain& domain) {
  @autoreleasepool {
    ::NSFileProviderDomain* const platformDomain = [[[::NSFileProviderDomain alloc]
        initWithIdentifier:toPlatform(domain.identifier())
               displayName:toPlatform(domain.displayName())] autorelease];
    ::NSFileProviderManager* const manager =
        [::NSFileProviderManager managerForDomain:platformDomain];
    return manager != nil ? std::make_shared<Manager>(manager) : nullptr;
  }
}

class Pasteboard final : public platform::NSPasteboard {
 public:
  void replaceContents(const std::string& text) override {
    @autoreleasepool {
      ::NSPasteboard* const general = [::NSPasteboard generalPasteboard];
      [general clearContents];
      [general setString:toPlatform(text) forType:NSPasteboardTypeString];
    }
  }
};

std::optional<std::string> registeredType(const std::string& filenameExtension) {
  @autoreleasepool {
    ::UTType* const type = [::UTType typeWithFilenameExtension:toPlatform(filenameExtension)
                                              conformingToType:UTTypeData];
    // For an extension that nobody registered the platform makes up a type.
    if (type == nil || [type isDynamic]) return std::nullopt;
    return textFrom([type identifier]);
  }
}

void runOnMainThread(std::function<void()> work) {
  dispatch_async_f(dispatch_get_main_queue(), new std::function<void()>(std::move(work)),
                   [](void* context) {
                     const std::unique_ptr<std::function<void()>> owned(
                         static_cast<std::function<void()>*>(context));
                     (*owned)();
                   });
}

}  // namespace

void installSurroundings() {
  static std::once_flag installed;
  std::call_once(installed, [] {
    platform::setLogSink(unifiedLog());
    platform::NSPasteboard::setGeneral(std::make_shared<Pasteboard>());
    platform::UTType::setRegistry(registeredType);
    platform::MainQueue::shared().setDispatcher(runOnMainThread);
    platform::NSFileProviderManager::setProvider(managerOf);
  });
}

}  // namespace kestrune::macos
