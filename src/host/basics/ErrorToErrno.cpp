#include "host/basics/ErrorToErrno.h"

#include <cerrno>
#include <charconv>
#include <optional>

#include "platform/file_provider/NSFileProviderError.h"

namespace kestrune::host {

namespace {

using platform::NSCocoaError;
using platform::NSError;
using platform::NSFileProviderError;

// Beyond this the kernel refuses an answer (its own internal codes begin at 512), and Linux defines none.
constexpr std::int64_t kLargestErrno = EHWPOISON;

int fromFileProvider(NSFileProviderError::Code code) {
  switch (code) {
    case NSFileProviderError::notAuthenticated:
      return EACCES;
    case NSFileProviderError::filenameCollision:
      return EEXIST;
    case NSFileProviderError::insufficientQuota:
      return EDQUOT;
    case NSFileProviderError::noSuchItem:
      return ENOENT;
    case NSFileProviderError::directoryNotEmpty:
      return ENOTEMPTY;
    case NSFileProviderError::versionNoLongerAvailable:
      return ESTALE;
    case NSFileProviderError::serverUnreachable:
    case NSFileProviderError::domainDisabled:
    case NSFileProviderError::providerDomainTemporarilyUnavailable:
      return EHOSTUNREACH;
    case NSFileProviderError::deletionRejected:
    case NSFileProviderError::excludedFromSync:
      return EPERM;
    case NSFileProviderError::nonEvictableChildren:
    case NSFileProviderError::unsyncedEdits:
    case NSFileProviderError::nonEvictable:
      return EBUSY;
    case NSFileProviderError::syncAnchorExpired:
    case NSFileProviderError::providerNotFound:
    case NSFileProviderError::providerTranslocated:
    case NSFileProviderError::olderExtensionVersionRunning:
    case NSFileProviderError::newerExtensionVersionFound:
    case NSFileProviderError::cannotSynchronize:
    case NSFileProviderError::providerDomainNotFound:
    case NSFileProviderError::applicationExtensionNotFound:
      return EIO;
  }
  return EIO;  // a code that the platform does not define
}

// NSURLErrorDomain's numbers (Apple's documentation of URL Loading System error codes).
int fromURLLoading(std::int64_t code) {
  switch (code) {
    case -999:
      return ECANCELED;
    case -1001:
      return ETIMEDOUT;
    case -1003:  // host not found
    case -1004:  // cannot connect
    case -1005:  // connection lost
    case -1006:  // name lookup failed
    case -1009:  // no network
    case -1018:  // roaming is off
    case -1020:  // no data allowed
      return EHOSTUNREACH;
    case -1100:
      return ENOENT;  // no such file
    case -1102:
      return EACCES;  // may not be read
    case -1103:
      return EFBIG;
    case -1012:  // authentication cancelled
    case -1013:  // authentication required
      return EACCES;
    default:
      // -1200 to -1206: no secure connection could be made. To a user the server cannot be reached.
      return code <= -1200 && code >= -1206 ? EHOSTUNREACH : EIO;
  }
}

int fromPOSIX(std::int64_t code) {
  return code > 0 && code <= kLargestErrno && code != ENOSYS ? static_cast<int>(code) : EIO;
}

int fromCocoa(std::int64_t code) {
  switch (code) {
    case NSCocoaError::fileNoSuchFile:
      return ENOENT;
    case NSCocoaError::userCancelled:
      return ECANCELED;
    case NSCocoaError::featureUnsupported:
      return EROFS;
    case NSCocoaError::xpcConnectionInterrupted:
      return EHOSTUNREACH;  // the extension died, again and again
    default:
      return EIO;
  }
}

std::optional<int> fromHTTPStatus(const NSError& error) {
  const auto found = error.userInfo().find(platform::kHTTPStatusCodeKey);
  if (found == error.userInfo().end()) return std::nullopt;
  const std::string& text = found->second;
  int status = 0;
  const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), status);
  if (problem != std::errc() || end != text.data() + text.size()) return std::nullopt;
  switch (status) {
    case 401:
    case 403:
      return EACCES;
    case 404:
    case 410:
      return ENOENT;
    case 408:
    case 504:
      return ETIMEDOUT;
    case 507:
      return ENOSPC;
    default:
      return EIO;
  }
}

}  // namespace

int errnoFor(const NSError& error) {
  if (const auto known = fromHTTPStatus(error)) return *known;
  if (error.domain() == platform::kNSFileProviderErrorDomain) {
    return fromFileProvider(static_cast<NSFileProviderError::Code>(error.code()));
  }
  if (error.domain() == platform::kNSURLErrorDomain) return fromURLLoading(error.code());
  if (error.domain() == platform::kNSPOSIXErrorDomain) return fromPOSIX(error.code());
  if (error.domain() == platform::kNSCocoaErrorDomain) return fromCocoa(error.code());
  return EIO;
}

bool isSignedOut(const NSError& error) {
  const auto status = error.userInfo().find(platform::kHTTPStatusCodeKey);
  if (status != error.userInfo().end()) return status->second == "401";
  return error.domain() == platform::kNSFileProviderErrorDomain &&
         error.code() == NSFileProviderError::notAuthenticated;
}

bool isForbidden(const NSError& error) {
  const auto status = error.userInfo().find(platform::kHTTPStatusCodeKey);
  return status != error.userInfo().end() && status->second == "403";
}

bool isUnreachable(const NSError& error) {
  switch (errnoFor(error)) {
    case EHOSTUNREACH:
    case ETIMEDOUT:
    case ENETDOWN:
      return true;
    case EACCES:
      return !isForbidden(error);
    default:
      return false;
  }
}

}  // namespace kestrune::host
