// The system's side of the extension: kestrune-service over a tree, the configuration that leads there,
// the principal class made by name, and each call of the protocols with blocks that note the answer.
#pragma once

#import <FileProvider/FileProvider.h>

#include <string>

#include "tests/console/WholePrograms.h"
#include "tests/macos/Answers.h"

namespace kestrune::macos {

struct SystemTest : WholePrograms {
  SystemTest();
  ~SystemTest() override;

  // The remote tree and the configuration.
  void write(const std::string& relative, const std::string& contents) const;
  void setTime(const std::string& relative, std::int64_t secondsSince1970) const;
  void useToken(const std::string& token) const;
  void stopService();
  const std::string& address() const { return WholePrograms::address; }

  // The calls.
  NSProgress* lookUp(NSString* identifier, AnswerPtr answer) const;
  NSProgress* fetch(NSString* identifier, AnswerPtr answer) const;
  NSProgress* fetchPartially(NSString* identifier, NSRange range, AnswerPtr answer,
                             NSUInteger alignment = 4096) const;
  NSProgress* create(NSString* parent, NSString* name, UTType* type, NSString* localPath,
                     AnswerPtr answer) const;
  NSProgress* createFrom(NSFileProviderItem item, NSString* localPath, AnswerPtr answer) const;
  NSProgress* modify(NSString* identifier, NSString* parent, NSString* name,
                     NSFileProviderItemFields fields, NSString* localPath, AnswerPtr answer) const;
  NSProgress* remove(NSString* identifier, AnswerPtr answer) const;
  NSProgress* act(NSString* action, NSArray* identifiers, AnswerPtr answer) const;

  void enumerateItemsFor(ListeningObserver* observer, NSString* container) const;
  /// Each waits for the finish call.
  ListeningObserver* enumerateItems(NSString* container) const;
  ListeningObserver* enumerateChanges(NSString* container, const std::string& anchor) const;
  std::string currentAnchor(NSString* container) const;

  void releaseExtension();

  NSAutoreleasePool* pool;
  id extension = nil;
  NSFileProviderRequest* request = nil;

 private:
  id<NSFileProviderEnumerator> enumerator(NSString* container) const;
};

}  // namespace kestrune::macos
