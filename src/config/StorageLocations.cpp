#include "config/StorageLocations.h"

#include <system_error>

#include "platform/files/Directories.h"

namespace kestrune::storage {

namespace {

std::filesystem::path withDirectory(std::filesystem::path directory) {
  std::error_code ignored;  // whoever uses the directory finds out
  if (std::filesystem::create_directories(directory, ignored)) {
    std::filesystem::permissions(directory, std::filesystem::perms::owner_all, ignored);
  }
  return directory;
}

std::filesystem::path sharedDirectoryName() {
  return platform::applicationSupportDirectory() / kDirectoryName;
}

}  // namespace

std::filesystem::path sharedDirectory() { return withDirectory(sharedDirectoryName()); }

std::filesystem::path listingCacheDirectory() {
  return withDirectory(sharedDirectory() / "listing-cache");
}

std::filesystem::path syncStatusFile() { return sharedDirectory() / "sync-status.json"; }

std::filesystem::path invalidationTokenFile() {
  return sharedDirectoryName() / "invalidation-token.txt";
}

}  // namespace kestrune::storage
