#include "macos/Errors.h"

#include "macos/Retained.h"
#include "macos/Values.h"

namespace kestrune::macos {

namespace {

/// An error of the platform on its way through the extension.
class PlatformError final : public platform::NSErrorOf<PlatformError> {
 public:
  explicit PlatformError(::NSError* error)
      : NSErrorOf(textFrom([error domain]), [error code], textFrom([error localizedDescription])),
        original_(error) {}
  ::NSError* original() const { return original_.get(); }

 private:
  Retained<::NSError*> original_;
};

}  // namespace

::NSError* toPlatform(const platform::NSErrorPtr& error) {
  if (!error) return nil;
  if (const auto* foreign = dynamic_cast<const PlatformError*>(error.get()))
    return [[foreign->original() retain] autorelease];
  NSMutableDictionary* const userInfo = [NSMutableDictionary dictionary];
  for (const auto& [key, value] : error->userInfo())
    [userInfo setObject:toPlatform(value) forKey:toPlatform(key)];
  if (error->domain() != platform::kNSFileProviderErrorDomain)
    [userInfo setObject:toPlatform(error->localizedDescription()) forKey:NSLocalizedDescriptionKey];
  return [::NSError errorWithDomain:toPlatform(error->domain())
                               code:static_cast<NSInteger>(error->code())
                           userInfo:userInfo];
}

platform::NSErrorPtr errorFrom(::NSError* error) {
  if (error == nil) return nullptr;
  return std::make_shared<PlatformError>(error);
}

}  // namespace kestrune::macos
