#include "platform/pasteboard/NSPasteboard.h"

#include <utility>

#include "platform/pasteboard/SessionPasteboard.h"
#include "platform/values/Mutex.h"

namespace kestrune::platform {

namespace {

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
