#include "extension/DeleteItem.h"

#include <utility>

#include "api/KestruneAPI.h"
#include "config/Loggers.h"

namespace kestrune {

using platform::NSErrorPtr;
using platform::Task;

namespace {

Task<void> sendDeletion(std::string path) {
  platform::URLRequest request = KestruneAPI::makeRequest("DELETE", KestruneAPI::filesPath(path));
  co_await KestruneAPI::checkedResponse(std::move(request));
}

bool saysAlreadyGone(const std::string& description) {
  return description.find("404") != std::string::npos ||
         description.find("not found") != std::string::npos;
}

}  // namespace

Task<void> runDeletion(std::string path, platform::NSProgressPtr progress,
                       platform::NSFileProviderReplicatedExtension::DoneHandler completionHandler) {
  NSErrorPtr failure;
  try {
    co_await sendDeletion(std::move(path));
  } catch (...) {
    failure = platform::currentError();
  }
  // Answered outside of the try: nothing that a handler does may bring it a second call.
  if (failure && !saysAlreadyGone(failure->localizedDescription())) {
    fpLog().write(platform::LogLevel::error, "deleteItem failed: %{public}s",
                  failure->localizedDescription());
    completionHandler(failure);
    co_return;
  }
  progress->setCompletedUnitCount(1);
  completionHandler(nullptr);
}

}  // namespace kestrune
