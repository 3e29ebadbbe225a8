// The domain's manager as the console plays it: it evicts and downloads nothing, prints what it was
// asked, and answers as the writer of the calls has ordered.
//
// Threads: any. Completion handlers run on an executor thread.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "companion/console/ConsoleWriter.h"
#include "platform/file_provider/NSFileProviderManager.h"
#include "platform/values/Mutex.h"

namespace kestrune {

class ConsoleManager : public platform::NSFileProviderManager {
 public:
  /// What to change; what is not set stays as it is.
  struct Orders {
    std::optional<bool> isPresent;
    std::optional<std::vector<platform::NSFileProviderItemIdentifier>> failingEvictions;
    std::optional<std::vector<platform::NSFileProviderItemIdentifier>> failingDownloads;
  };

  /// It is present and fails nothing.
  explicit ConsoleManager(std::shared_ptr<ConsoleWriter> writer) : writer_(std::move(writer)) {}

  void follow(const Orders& orders);
  /// Whether the domain has a manager at all.
  bool isPresent() const;

  void evictItem(platform::NSFileProviderItemIdentifier identifier,
                 Handler completionHandler) override;
  void requestDownloadForItem(platform::NSFileProviderItemIdentifier identifier,
                              std::optional<platform::NSRange> range,
                              Handler completionHandler) override;
  /// Nobody waits for changes here: answered without an error, nothing is printed.
  void signalEnumerator(platform::NSFileProviderItemIdentifier container,
                        Handler completionHandler) override;

 private:
  using Identifiers = std::set<platform::NSFileProviderItemIdentifier>;

  const std::shared_ptr<ConsoleWriter> writer_;
  mutable platform::Mutex mutex_;
  bool isPresent_ GUARDED_BY(mutex_) = true;
  Identifiers failingEvictions_ GUARDED_BY(mutex_);
  Identifiers failingDownloads_ GUARDED_BY(mutex_);
};

}  // namespace kestrune
