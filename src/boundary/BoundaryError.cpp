#include "boundary/BoundaryError.h"

#include "platform/file_provider/NSFileProviderError.h"

namespace kestrune::boundary {

using platform::NSCocoaError;
using platform::NSErrorPtr;
using platform::NSFileProviderError;

NSErrorPtr interrupted() {
  return NSCocoaError(NSCocoaError::xpcConnectionInterrupted,
                      "the extension ended before it answered")
      .share();
}

NSErrorPtr wrongAnswer(const std::string& what) {
  return NSCocoaError(NSCocoaError::xpcConnectionReplyInvalid,
                      "the extension answered wrongly: " + what)
      .share();
}

NSErrorPtr errorFrom(const kj::Exception& exception) {
  if (exception.getType() == kj::Exception::Type::DISCONNECTED) return interrupted();
  return wrongAnswer(exception.getDescription().cStr());
}

NSErrorPtr versionMismatch(std::uint32_t ours, std::uint32_t theirs) {
  const bool isOlder = theirs < ours;
  return NSFileProviderError(isOlder ? NSFileProviderError::olderExtensionVersionRunning
                                     : NSFileProviderError::newerExtensionVersionFound,
                             "the extension's program speaks version " + std::to_string(theirs) +
                                 " of the protocol and the host version " + std::to_string(ours) +
                                 ": the " + (isOlder ? "extension" : "host") +
                                 " is older; install both from one release")
      .share();
}

}  // namespace kestrune::boundary
