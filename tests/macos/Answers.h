// What a test keeps of the platform's calls: answers that came through blocks, observers that listen,
// and the texts of things for comparison.
//
// Threads: blocks and observers may be called on any thread; the tests read after waiting.
#pragma once

#import <FileProvider/FileProvider.h>
#import <Foundation/Foundation.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/values/Mutex.h"

namespace kestrune::macos {

/// An error as a test compares it.
struct ErrorText {
  std::string domain;
  long code = 0;
  std::string description;
  std::size_t userInfoCount = 0;
};

/// An item, all its properties read when it arrived.
struct ItemText {
  std::string identifier;
  std::string parent;
  std::string filename;
  std::string type;
  unsigned long capabilities = 0;
  std::optional<long long> size;
  double modified = 0;
  double created = 0;
  long policy = 0;
  std::string version;
  std::string metadataVersion;
};

/// What one call brought.
struct Answer {
  std::atomic<int> calls = 0;
  std::optional<ErrorText> error;
  std::optional<ItemText> item;
  std::optional<std::string> path;
  unsigned long stillPending = 77;
  bool shouldFetch = true;
  unsigned long location = 77;
  unsigned long length = 77;
  unsigned long flags = 77;
};
using AnswerPtr = std::shared_ptr<Answer>;

std::optional<ErrorText> textOf(NSError* error);
std::optional<ItemText> textOf(NSFileProviderItem item);
NSString* string(const std::string& text);

/// Waits until the call has been answered, and a moment longer for a second answer; how often it was.
int answersOf(const AnswerPtr& answer);

}  // namespace kestrune::macos

/// Listens to both kinds of enumerations.
@interface ListeningObserver
    : NSObject <NSFileProviderEnumerationObserver, NSFileProviderChangeObserver> {
 @public
  kestrune::platform::Mutex mutex;
  std::vector<kestrune::macos::ItemText> items;
  std::vector<std::string> deleted;
  int batches;
  int finishes;
  bool moreComing;
  std::optional<std::string> anchor;
  bool hadPage;
  std::optional<kestrune::macos::ErrorText> error;
}
- (BOOL)hasFinished;
@end

/// An item of the system's, as it comes with a creation or a change, without any optional property.
@interface BareItem : NSObject <NSFileProviderItem> {
 @public
  NSString* identifier;
  NSString* parent;
  NSString* name;
}
@end

/// The same with a type, and a size that is answered to with nil.
@interface TemplateItem : BareItem {
 @public
  UTType* type;
}
@end
