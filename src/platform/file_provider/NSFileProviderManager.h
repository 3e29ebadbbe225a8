// A domain (one account's tree in the file manager) and its manager, through which an extension
// asks the host to act.
//
// On macOS the system makes managers. Here the host does: it registers one provider for the
// process, and NSFileProviderManager::forDomain asks it.
//
// Threads: all functions may be called from any thread; completion handlers run on any thread,
// exactly once.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/file_provider/NSFileProviderTypes.h"
#include "platform/values/NSError.h"

namespace kestrune::platform {

class NSFileProviderDomain {
 public:
  NSFileProviderDomain(std::string identifier, std::string displayName)
      : identifier_(std::move(identifier)), displayName_(std::move(displayName)) {}
  const std::string& identifier() const { return identifier_; }
  const std::string& displayName() const { return displayName_; }

 private:
  std::string identifier_;
  std::string displayName_;
};

using NSFileProviderDomainPtr = std::shared_ptr<const NSFileProviderDomain>;

class NSFileProviderManager {
 public:
  using Handler = std::function<void(NSErrorPtr error)>;
  using Provider =
      std::function<std::shared_ptr<NSFileProviderManager>(const NSFileProviderDomain&)>;

  virtual ~NSFileProviderManager() = default;

  /// Drops the local contents of an item; its metadata stays. The error, if any, names the item.
  virtual void evictItem(NSFileProviderItemIdentifier identifier, Handler completionHandler) = 0;

  /// Asks for an item's contents to be made local: all of them, or the bytes of `range`.
  virtual void requestDownloadForItem(NSFileProviderItemIdentifier identifier,
                                      std::optional<NSRange> range, Handler completionHandler) = 0;

  /// Tells the host that a container has changes to be asked for.
  virtual void signalEnumerator(NSFileProviderItemIdentifier container,
                                Handler completionHandler) = 0;

  /// The manager of `domain`, or null where the process has none for it.
  static std::shared_ptr<NSFileProviderManager> forDomain(const NSFileProviderDomain& domain);

  /// Sets where managers come from; null takes it away. For hosts.
  static void setProvider(Provider provider);
};

}  // namespace kestrune::platform
