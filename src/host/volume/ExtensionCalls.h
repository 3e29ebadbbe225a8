// The calls by which changes are sent through an extension, as tasks.
//
// Each ends when the extension answers, or when it drops its handler; there is no other bound, since only the extension knows
// how long its transfers may take. A cancelled `Calls::stop` asks what runs to end.
//
// Threads: tasks of the shared executor. Fails: the error is the answer; nothing is thrown.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "host/basics/Answer.h"
#include "host/in/Enumeration.h"
#include "host/in/ItemRecord.h"
#include "platform/tasks/Task.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

/// An item as it is to be.
struct OutgoingTemplate {
  platform::NSFileProviderItemIdentifier identifier;  // empty for a new one
  platform::NSFileProviderItemIdentifier parentIdentifier;
  std::string name;
  bool isFolder = false;
  std::int64_t sizeBytes = 0;
  platform::Date modified{};
};

class ExtensionCalls : public std::enable_shared_from_this<ExtensionCalls> {
 public:
  explicit ExtensionCalls(ExtensionPtr extension) : extension_(std::move(extension)) {}

  /// None: the store has no such item.
  platform::Task<Answer<std::optional<ItemRecord>>> item(
      platform::NSFileProviderItemIdentifier identifier);
  platform::Task<Answer<ItemRecord>> create(OutgoingTemplate item,
                                            std::optional<std::filesystem::path> contents);
  platform::Task<Answer<ItemRecord>> modify(OutgoingTemplate item,
                                            platform::NSFileProviderItemVersion base,
                                            platform::NSFileProviderItemFields fields,
                                            std::optional<std::filesystem::path> contents);
  platform::Task<Answer<Done>> remove(platform::NSFileProviderItemIdentifier identifier,
                                      platform::NSFileProviderItemVersion base);
  platform::Task<Answer<Done>> perform(std::string action,
                                       std::vector<platform::NSFileProviderItemIdentifier> items);

  /// How many are under way.
  std::size_t count();
  /// Cancels what is under way.
  void stop();

 private:
  /// Remembers the call's progress while `answer` is awaited.
  class Running;
  void begin(std::uint64_t number, const platform::NSProgressPtr& progress);
  void end(std::uint64_t number);

  const ExtensionPtr extension_;
  platform::Mutex mutex_;
  std::uint64_t next_ GUARDED_BY(mutex_) = 1;
  bool stopped_ GUARDED_BY(mutex_) = false;
  std::map<std::uint64_t, platform::NSProgressPtr> running_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
