#include "companion/configuration/InvalidateCommand.h"

#include "companion/configuration/CommandError.h"
#include "config/StorageLocations.h"
#include "platform/files/AtomicFile.h"
#include "platform/log/Log.h"
#include "platform/values/Json.h"
#include "platform/values/NSError.h"
#include "platform/values/UUID.h"

namespace kestrune {

std::string writeInvalidationToken(bool asJson) {
  storage::sharedDirectory();  // makes it
  const auto file = storage::invalidationTokenFile();
  const std::string token = platform::newUUIDString();
  try {
    platform::replaceFile(file, token + "\n", platform::Durability::atomic);
  } catch (const platform::NSError& error) {
    throw CommandError(
        "Cannot write the invalidation token: " + error.localizedDescription() +
        ". Folders are not listed again until it can be written: check the disk and the "
        "directory's owner.");
  }
  if (asJson) {
    return platform::encodeJson(
        {{"token", token}, {"file", platform::escapeForDisplay(file.string())}});
  }
  return "Wrote the invalidation token " + token + " to '" +
         platform::escapeForDisplay(file.string()) +
         "'. Folders are listed again when their changes are asked for.";
}

}  // namespace kestrune
