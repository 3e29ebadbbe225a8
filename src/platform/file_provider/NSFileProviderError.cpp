#include "platform/file_provider/NSFileProviderError.h"

namespace kestrune::platform {

namespace {

std::string generalDescription(NSFileProviderError::Code code) {
  switch (code) {
    case NSFileProviderError::notAuthenticated:
      return "The user is not signed in.";
    case NSFileProviderError::filenameCollision:
      return "An item with the same name exists already.";
    case NSFileProviderError::syncAnchorExpired:
      return "The sync anchor or page has expired.";
    case NSFileProviderError::insufficientQuota:
      return "There is not enough space on the server.";
    case NSFileProviderError::serverUnreachable:
      return "The server could not be reached.";
    case NSFileProviderError::noSuchItem:
      return "The file doesn\xE2\x80\x99t exist.";
    case NSFileProviderError::deletionRejected:
      return "The item may not be deleted.";
    case NSFileProviderError::directoryNotEmpty:
      return "The folder is not empty.";
    case NSFileProviderError::providerNotFound:
      return "The application that provides these files is missing.";
    case NSFileProviderError::providerTranslocated:
      return "The application must be moved before it can be used.";
    case NSFileProviderError::olderExtensionVersionRunning:
      return "An older version of the extension is running.";
    case NSFileProviderError::newerExtensionVersionFound:
      return "A newer version of the extension was found.";
    case NSFileProviderError::cannotSynchronize:
      return "The item cannot be synchronized.";
    case NSFileProviderError::nonEvictableChildren:
      return "The folder holds items that cannot be evicted.";
    case NSFileProviderError::unsyncedEdits:
      return "The item has changes that are not uploaded yet.";
    case NSFileProviderError::nonEvictable:
      return "The item cannot be evicted.";
    case NSFileProviderError::versionNoLongerAvailable:
      return "The requested version is no longer available.";
    case NSFileProviderError::excludedFromSync:
      return "The item is excluded from synchronization.";
    case NSFileProviderError::domainDisabled:
      return "The domain is disabled.";
    case NSFileProviderError::providerDomainTemporarilyUnavailable:
      return "The domain is unavailable for now.";
    case NSFileProviderError::providerDomainNotFound:
      return "The domain does not exist.";
    case NSFileProviderError::applicationExtensionNotFound:
      return "The extension does not exist.";
  }
  return "File provider error " + std::to_string(static_cast<std::int64_t>(code));
}

}  // namespace

NSFileProviderError::NSFileProviderError(Code code)
    : NSFileProviderError(code, generalDescription(code)) {}

NSFileProviderError::NSFileProviderError(Code code, std::string localizedDescription)
    : NSErrorOf(kNSFileProviderErrorDomain, code, std::move(localizedDescription)) {}

}  // namespace kestrune::platform
