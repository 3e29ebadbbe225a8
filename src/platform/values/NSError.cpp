#include "platform/values/NSError.h"

#include <boost/asio/error.hpp>
#include <boost/system/system_error.hpp>
#include <system_error>

namespace kestrune::platform {

NSError::NSError(std::string domain, std::int64_t code, std::string localizedDescription,
                 UserInfo userInfo)
    : domain_(std::move(domain)),
      code_(code),
      description_(std::move(localizedDescription)),
      userInfo_(std::move(userInfo)) {}

NSErrorPtr NSError::share() const { return std::make_shared<NSError>(*this); }

void NSError::raise() const { throw NSError(*this); }

std::string errnoText(int errorNumber) { return std::generic_category().message(errorNumber); }

NSPOSIXError::NSPOSIXError(int errorNumber, const std::string& context)
    : NSErrorOf(kNSPOSIXErrorDomain, errorNumber, context + ": " + errnoText(errorNumber)) {}

NSCocoaError::NSCocoaError(Code code, std::string localizedDescription)
    : NSErrorOf(kNSCocoaErrorDomain, code, std::move(localizedDescription)) {}

bool isInterruption(const NSError& error) {
  return error.domain() == kNSCocoaErrorDomain &&
         error.code() == NSCocoaError::xpcConnectionInterrupted;
}

CancellationError::CancellationError()
    : NSErrorOf(kNSCocoaErrorDomain, NSCocoaError::userCancelled, "The operation was cancelled.") {}

namespace {

NSErrorPtr withTextOf(const std::exception& error) {
  return std::make_shared<NSCocoaError>(NSCocoaError::fileReadUnknown, error.what());
}

}  // namespace

NSErrorPtr currentError() {
  try {
    throw;
  } catch (const NSError& error) {
    return error.share();
  } catch (const boost::system::system_error& error) {
    if (error.code() == boost::asio::error::operation_aborted) return CancellationError().share();
    const auto& category = error.code().category();
    if (category == boost::system::generic_category() ||
        category == boost::system::system_category()) {
      return std::make_shared<NSPOSIXError>(error.code().value(), "system call");
    }
    return withTextOf(error);
  } catch (const std::system_error& error) {
    const auto& category = error.code().category();
    if (category == std::generic_category() || category == std::system_category()) {
      return std::make_shared<NSPOSIXError>(error.code().value(), "system call");
    }
    return withTextOf(error);
  } catch (const std::exception& error) {
    return withTextOf(error);
  } catch (...) {
    // On macOS an Objective-C exception arrives here.
    return std::make_shared<NSCocoaError>(NSCocoaError::fileReadUnknown,
                                          "An exception of an unknown kind was thrown.");
  }
}

NSErrorPtr errorFrom(const std::exception_ptr& exception) {
  if (!exception) return nullptr;
  try {
    std::rethrow_exception(exception);
  } catch (...) {
    return currentError();
  }
}

}  // namespace kestrune::platform
