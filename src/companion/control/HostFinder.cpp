#include "companion/control/HostFinder.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <ranges>
#include <system_error>
#include <utility>

#include "companion/configuration/CommandError.h"
#include "companion/control/MountTable.h"
#include "config/StorageLocations.h"
#include "host/basics/ItemName.h"
#include "platform/log/Log.h"
#include "platform/values/NSError.h"

namespace kestrune {

namespace fs = std::filesystem;
using host::ControlClient;
using platform::Json;

namespace {

constexpr std::string_view kEnding = ".sock";
/// A host says who it is without asking anybody; one that does not is stopped or broken.
constexpr std::chrono::seconds kPatience{5};

std::string inQuotes(const fs::path& path) {
  return "'" + platform::escapeForDisplay(path.native()) + "'";
}

std::string socketName(const std::string& domainIdentifier) {
  std::string name = domainIdentifier + std::string(kEnding);
  if (domainIdentifier.empty() || host::whyNotAFileName(name + ".lock") != nullptr) {
    throw CommandError("The domain's identifier '" + platform::escapeForDisplay(domainIdentifier) +
                       "' cannot be part of a file name. Choose a short one without slashes.");
  }
  return name;
}

/// Null where nobody listens.
std::unique_ptr<ControlClient> clientAt(const fs::path& file) {
  try {
    return std::make_unique<ControlClient>(file);
  } catch (const platform::NSPOSIXError& error) {
    if (error.code() == ENOENT || error.code() == ECONNREFUSED || error.code() == ENOTDIR) {
      return nullptr;
    }
    throw CommandError("Cannot ask the host: " + error.localizedDescription() +
                       ". Only the user who mounted may; kestrune doctor tells more.");
  }
}

bool isAt(ControlClient& client, const fs::path& mountPoint) {
  try {
    const Json about = client.ask(host::ControlRequest(), nullptr, kPatience);
    return host::pathFromJson(about.value("mountPoint", Json(""))) == mountPoint;
  } catch (const platform::NSError&) {
    return false;  // stopped or dying: if it is the one that is looked for, it could not answer the rest either
  } catch (const host::ControlRefusal&) {
    return false;
  } catch (const host::InvalidRequest&) {
    return false;
  }
}

/// Absolute, without "." and slashes too many. Links are left alone where nothing depends on them.
fs::path normal(const fs::path& path) {
  const fs::path whole = fs::absolute(path);
  const bool goesUp = std::find(whole.begin(), whole.end(), "..") != whole.end();
  fs::path plain = goesUp ? fs::weakly_canonical(whole) : whole.lexically_normal();
  return plain.has_filename() || plain == plain.root_path() ? plain : plain.parent_path();
}

}  // namespace

std::vector<fs::path> controlSocketFiles(const std::string& domainIdentifier) {
  const std::string name = socketName(domainIdentifier);
  std::vector<fs::path> files = controlFolders();
  for (fs::path& file : files) file /= name;
  return files;
}

std::vector<fs::path> controlFolders() {
  std::vector<fs::path> folders;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && fs::path(runtime).is_absolute()) {
    folders.push_back(fs::path(runtime) / "kestrune");
  }
  folders.push_back(storage::sharedDirectory() / "control");
  return folders;
}

HostFinder HostFinder::here() { return {controlFolders(), presentMountTable()}; }

PlaceInMount HostFinder::place(const std::string& path) const {
  std::error_code error;
  fs::path whole;
  try {
    whole = normal(path);
  } catch (const fs::filesystem_error& failure) {
    throw CommandError("Cannot find " + inQuotes(path) + ": " + failure.code().message() + ".");
  }
  auto mountPoint = mountPointAround(mountTable_, whole);
  if (!mountPoint) {
    const fs::path resolved = fs::weakly_canonical(whole, error);
    if (!error) whole = resolved;
    mountPoint = mountPointAround(mountTable_, whole);
  }
  if (!mountPoint) {
    throw CommandError(inQuotes(path) +
                       " does not lie in a folder that Kestrune has mounted. Where one is, "
                       "kestrune status tells; kestrune mount FOLDER makes one.");
  }
  PlaceInMount place{*mountPoint, {}};
  for (const fs::path& part : whole.lexically_relative(*mountPoint)) {
    if (part != ".") place.path += "/" + part.native();
  }
  if (place.path.empty()) place.path = "/";
  return place;
}

std::unique_ptr<ControlClient> HostFinder::ofDomain(const std::string& domainIdentifier) const {
  const std::string name = socketName(domainIdentifier);
  for (const fs::path& folder : std::views::reverse(folders_)) {
    if (auto client = clientAt(folder / name)) return client;
  }
  throw CommandError("No host of the domain '" + platform::escapeForDisplay(domainIdentifier) +
                     "' is running. Start one with: kestrune mount FOLDER");
}

std::unique_ptr<ControlClient> HostFinder::of(const std::string& path,
                                              const std::string& domainIdentifier) const {
  return path.empty() ? ofDomain(domainIdentifier) : ofMount(place(path).mountPoint);
}

std::unique_ptr<ControlClient> HostFinder::ofMount(const fs::path& mountPoint) const {
  for (const fs::path& folder : folders_) {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
      if (entry.path().extension() != kEnding) continue;
      auto client = clientAt(entry.path());
      if (client && isAt(*client, mountPoint)) return client;
    }
  }
  throw CommandError("The host of " + inQuotes(mountPoint) +
                     " does not answer. If it has died, run: fusermount3 -u " +
                     inQuotes(mountPoint));
}

}  // namespace kestrune
