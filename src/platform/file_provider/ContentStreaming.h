// A protocol beside the platform's, between an extension and a host of ours: bytes of a file as they arrive.
//
// The platform's partial fetching hands over a file when a whole range is in it, and the extension decides how long the
// range is, because on the platform only the extension sees a pattern in what is asked for. A host that sees every read
// itself asks for what it wants, gets the bytes while they come, and puts them where they belong. An extension may
// implement both; a host asks with dynamic_cast.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "platform/file_provider/NSFileProviderReplicatedExtension.h"

namespace kestrune::platform {

class ContentStreaming {
 public:
  /// Takes the bytes that follow those of the call before, the first ones those at the range's start. False: no more are
  /// wanted. One call at a time; the bytes are the caller's again when it returns, and no more are read from the network
  /// than fit the caller's buffers meanwhile. Must not throw.
  using BytesHandler = std::function<bool(std::int64_t offset, std::string_view bytes)>;
  /// After the last bytes. The error, if not all were handed over that were wanted; with NSFileProviderError
  /// versionNoLongerAvailable the item as it is now.
  using EndHandler = std::function<void(NSFileProviderItemPtr item, NSErrorPtr error)>;

  virtual ~ContentStreaming() = default;

  /// Exactly the bytes of `range`, which lies within the file and is not empty, of no other version of the contents than
  /// the requested one. Ends early, without an error, when the progress is cancelled.
  virtual NSProgressPtr streamContents(NSFileProviderItemIdentifier itemIdentifier,
                                       NSFileProviderItemVersion requestedVersion,
                                       NSFileProviderRequest request, NSRange range,
                                       BytesHandler bytes, EndHandler completionHandler) = 0;
};

}  // namespace kestrune::platform
