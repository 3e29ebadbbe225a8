#include "platform/pasteboard/NSPasteboard.h"

#include <utility>

#include "platform/values/Mutex.h"

#if defined(__APPLE__)
#include "platform/values/NSError.h"
#else
#include "platform/pasteboard/SessionPasteboard.h"
#endif

namespace kestrune::platform {

namespace {

#if defined(__APPLE__)
/// The session's is AppKit's, which only the program around this library reaches.
class SessionPasteboard final : public NSPasteboard {
 public:
  void replaceContents(const std::string&) override {
    throw NSCocoaError(NSCocoaError::featureUnsupported,
                       "The text could not be copied to the clipboard: this program has none.");
  }
};
#endif

struct General {
  Mutex mutex;
  std::shared_ptr<NSPasteboard> pasteboard GUARDED_BY(mutex) =
      std::make_shared<SessionPasteboard>();
};

General& theGeneral() {
  static auto* const instance = new General;  // outlives every thread that may still ask
  return *instance;
}

}  // namespace

std::shared_ptr<NSPasteboard> NSPasteboard::general() {
  MutexLock lock(theGeneral().mutex);
  return theGeneral().pasteboard;
}

void NSPasteboard::setGeneral(std::shared_ptr<NSPasteboard> pasteboard) {
  if (!pasteboard) pasteboard = std::make_shared<SessionPasteboard>();
  MutexLock lock(theGeneral().mutex);
  theGeneral().pasteboard = std::move(pasteboard);
}

}  // namespace kestrune::platform
