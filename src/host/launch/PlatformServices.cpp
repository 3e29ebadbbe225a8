#include "host/launch/PlatformServices.h"

#include <utility>

#include "platform/pasteboard/NSPasteboard.h"
#include "platform/tasks/MainQueue.h"
#include "platform/tasks/Task.h"

namespace kestrune::host {

namespace {

using platform::NSErrorPtr;
using Handler = platform::NSFileProviderManager::Handler;

platform::Task<void> copy(std::string text, Handler handler) {
  NSErrorPtr error;
  try {
    co_await platform::MainQueue::run(
        [&text] { platform::NSPasteboard::general()->replaceContents(text); });
  } catch (const platform::NSError& thrown) {
    error = thrown.share();
  }
  handler(error);
}

}  // namespace

boundary::HostServices platformServices(platform::NSFileProviderDomain domain) {
  return {
      [domain = std::move(domain)] { return platform::NSFileProviderManager::forDomain(domain); },
      [](std::string text, Handler handler) {
        platform::spawnDetached("copy for the extension",
                                copy(std::move(text), std::move(handler)));
      }};
}

}  // namespace kestrune::host
