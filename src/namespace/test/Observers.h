// Observers that write down what they are told, for tests of enumerators.
//
// Threads: called from any thread, asked from the test's.
#pragma once

#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/file_provider/NSFileProviderEnumerator.h"
#include "platform/values/Mutex.h"

namespace kestrune {

/// What both kinds of observers share: each call leaves a word, in order.
class CallRecord {
 public:
  std::vector<std::string> calls() const {
    platform::MutexLock lock(mutex_);
    return calls_;
  }
  /// Whether every call came on the thread that made this object.
  bool onMyThread() const {
    platform::MutexLock lock(mutex_);
    return onMyThread_;
  }

 protected:
  void note(std::string call) {
    platform::MutexLock lock(mutex_);
    calls_.push_back(std::move(call));
    onMyThread_ = onMyThread_ && std::this_thread::get_id() == maker_;
  }
  mutable platform::Mutex mutex_;

 private:
  const std::thread::id maker_ = std::this_thread::get_id();
  std::vector<std::string> calls_ GUARDED_BY(mutex_);
  bool onMyThread_ GUARDED_BY(mutex_) = true;
};

using Items = std::vector<platform::NSFileProviderItemPtr>;

inline std::vector<std::string> identifiersOf(const Items& items) {
  std::vector<std::string> identifiers;
  identifiers.reserve(items.size());
  for (const auto& item : items) identifiers.push_back(item->itemIdentifier());
  return identifiers;
}

/// Calls: "items", "finish", "error".
class EnumerationRecorder final : public platform::NSFileProviderEnumerationObserver,
                                  public CallRecord {
 public:
  void didEnumerateItems(Items updatedItems) override {
    note("items");
    platform::MutexLock lock(mutex_);
    items_ = std::move(updatedItems);
  }
  void finishEnumeratingUpToPage(std::optional<platform::NSFileProviderPage> nextPage) override {
    note(nextPage ? "next page" : "finish");
  }
  void finishEnumeratingWithError(platform::NSErrorPtr error) override {
    note("error");
    platform::MutexLock lock(mutex_);
    error_ = std::move(error);
  }

  Items items() const {
    platform::MutexLock lock(mutex_);
    return items_;
  }
  std::vector<std::string> identifiers() const { return identifiersOf(items()); }
  platform::NSErrorPtr error() const {
    platform::MutexLock lock(mutex_);
    return error_;
  }

 private:
  Items items_ GUARDED_BY(mutex_);
  platform::NSErrorPtr error_ GUARDED_BY(mutex_);
};

/// Calls: "deleted", "updated", "finish", "more coming", "error".
class ChangeRecorder final : public platform::NSFileProviderChangeObserver, public CallRecord {
 public:
  void didUpdateItems(Items updatedItems) override {
    note("updated");
    platform::MutexLock lock(mutex_);
    updated_ = std::move(updatedItems);
  }
  void didDeleteItemsWithIdentifiers(
      std::vector<platform::NSFileProviderItemIdentifier> identifiers) override {
    note("deleted");
    platform::MutexLock lock(mutex_);
    deleted_ = std::move(identifiers);
  }
  void finishEnumeratingChangesUpToSyncAnchor(platform::NSFileProviderSyncAnchor anchor,
                                              bool moreComing) override {
    note(moreComing ? "more coming" : "finish");
    platform::MutexLock lock(mutex_);
    anchor_ = std::move(anchor);
  }
  void finishEnumeratingWithError(platform::NSErrorPtr) override { note("error"); }

  std::vector<std::string> updated() const {
    platform::MutexLock lock(mutex_);
    return identifiersOf(updated_);
  }
  Items updatedItems() const {
    platform::MutexLock lock(mutex_);
    return updated_;
  }
  std::vector<std::string> deleted() const {
    platform::MutexLock lock(mutex_);
    return deleted_;
  }
  std::string anchor() const {
    platform::MutexLock lock(mutex_);
    return anchor_;
  }

 private:
  Items updated_ GUARDED_BY(mutex_);
  std::vector<std::string> deleted_ GUARDED_BY(mutex_);
  std::string anchor_ GUARDED_BY(mutex_);
};

}  // namespace kestrune
