#include "platform/files/UTType.h"

#include <utility>

#include "platform/values/Mutex.h"

#if !defined(__APPLE__)
#include "platform/files/MimeDatabase.h"
#endif

namespace kestrune::platform {

namespace {

constexpr const char* kFolder = "folder";
constexpr const char* kData = "data";

struct Setting {
  Mutex mutex;
  UTType::Registry registry GUARDED_BY(mutex);
};

Setting& setting() {
  static auto* const instance = new Setting;  // outlives every thread that may still ask
  return *instance;
}

/// What the machine itself says.
std::optional<std::string> machinesOwnType(const std::string& filenameExtension) {
#if defined(__APPLE__)
  // Only the system's frameworks know; a program that has them sets a registry.
  static_cast<void>(filenameExtension);
  return std::nullopt;
#else
  return registeredMediaType(filenameExtension);
#endif
}

}  // namespace

UTType UTType::folder() { return UTType(kFolder); }

UTType UTType::data() { return UTType(kData); }

void UTType::setRegistry(Registry registry) {
  MutexLock lock(setting().mutex);
  setting().registry.swap(registry);
}

std::optional<UTType> UTType::typeForFilenameExtension(std::string_view filenameExtension) {
  const std::string extension(filenameExtension);
  Registry registry;
  {
    // Only to copy it: a registry may ask elsewhere, and take its time.
    MutexLock lock(setting().mutex);
    registry = setting().registry;
  }
  auto identifier = registry ? registry(extension) : machinesOwnType(extension);
  if (!identifier) return std::nullopt;
  return UTType(std::move(*identifier));
}

UTType UTType::named(std::string text) { return UTType(std::move(text)); }

}  // namespace kestrune::platform
