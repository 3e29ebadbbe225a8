#include "namespace/PinStore.h"

#include "config/StorageLocations.h"
#include "platform/files/AtomicFile.h"
#include "platform/files/DirectoryLock.h"
#include "platform/tasks/Queue.h"
#include "platform/values/Json.h"
#include "platform/values/NSError.h"

namespace kestrune {

using platform::Json;

namespace {

platform::ConcurrentQueue& pinQueue() {
  static auto* const queue =
      new platform::ConcurrentQueue("kestrune.pinstore");  // used until the process ends
  return *queue;
}

}  // namespace

std::filesystem::path PinStore::configDir() { return storage::sharedDirectory(); }

bool PinStore::isPinned(const std::string& path) {
  return pinQueue().sync([&path]() { return load().contains(path); });
}

void PinStore::setPinned(bool pinned, const std::string& path) {
  pinQueue().syncBarrier([pinned, &path]() {
    const platform::DirectoryLock lock(configDir());  // the host unpins, the extension pins
    std::set<std::string> paths = load();
    if (pinned) {
      paths.insert(path);
    } else {
      paths.erase(path);
    }
    save(paths);
  });
}

std::set<std::string> PinStore::load() {
  const std::filesystem::path file = configDir() / storage::kPinsFile;
  // Most users pin nothing, each item is asked for, and an exception costs far more than this look.
  std::error_code error;
  if (!std::filesystem::exists(file, error)) return {};
  try {
    const Json list = platform::decodeJson(platform::readFile(file));
    if (!list.is_array()) return {};
    std::set<std::string> paths;
    for (const Json& path : list) {
      if (!path.is_string()) return {};
      paths.insert(path.get<std::string>());
    }
    return paths;
  } catch (const platform::NSError&) {
    return {};  // missing or malformed: nothing is pinned
  }
}

void PinStore::save(const std::set<std::string>& paths) {
  try {
    const std::string text = platform::encodeJson(Json(paths));
    // A pin is what the user asked for, not a by-product: it is on the disk when the call returns.
    platform::replaceFile(configDir() / storage::kPinsFile, text, platform::Durability::durable);
  } catch (const platform::NSError&) {
    // The pin is lost; whoever asked sees it in the item's policy.
  }
}

}  // namespace kestrune
