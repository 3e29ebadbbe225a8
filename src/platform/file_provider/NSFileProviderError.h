// The file-provider error domain (Apple's documentation of NSFileProviderError).
#pragma once

#include "platform/values/NSError.h"

namespace kestrune::platform {

class NSFileProviderError : public NSErrorOf<NSFileProviderError> {
 public:
  enum Code : std::int64_t {
    notAuthenticated = -1000,
    filenameCollision = -1001,
    syncAnchorExpired = -1002,  // also: page expired
    insufficientQuota = -1003,
    serverUnreachable = -1004,
    noSuchItem = -1005,
    deletionRejected = -1006,
    directoryNotEmpty = -1007,
    providerNotFound = -2001,
    providerTranslocated = -2002,
    olderExtensionVersionRunning = -2003,
    newerExtensionVersionFound = -2004,
    cannotSynchronize = -2005,
    nonEvictableChildren = -2006,
    unsyncedEdits = -2007,
    nonEvictable = -2008,
    versionNoLongerAvailable = -2009,
    excludedFromSync = -2010,
    domainDisabled = -2011,
    providerDomainTemporarilyUnavailable = -2012,
    providerDomainNotFound = -2013,
    applicationExtensionNotFound = -2014,
  };

  /// With the platform's general description of `code` and an empty user-info dictionary.
  explicit NSFileProviderError(Code code);
  /// With a description of its own: a manager names the item in it.
  NSFileProviderError(Code code, std::string localizedDescription);
};

}  // namespace kestrune::platform
