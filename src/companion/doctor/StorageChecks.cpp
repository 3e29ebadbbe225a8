#include "companion/doctor/StorageChecks.h"

#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "host/volume/SpaceMaker.h"
#include "platform/log/Log.h"
#include "platform/values/NSError.h"

namespace kestrune {

namespace fs = std::filesystem;

namespace {

constexpr mode_t kOthersBits = 077;
/// Below this, not even the host's database can grow.
constexpr std::uint64_t kFull = std::uint64_t{50} << 20U;

std::string inQuotes(const fs::path& path) {
  return "'" + platform::escapeForDisplay(path.native()) + "'";
}

struct UnfitFileSystem {
  /// As statfs(2) lists them.
  std::uint32_t type;
  const char* name;
  const char* why;
};
constexpr const char* kRemote = "locks and memory maps do not hold there when the network goes";
constexpr std::array<UnfitFileSystem, 6> kUnfit = {{
    {0x6969, "NFS", kRemote},
    {0xFE534D42, "SMB", kRemote},
    {0xFF534D42, "SMB", kRemote},
    {0x65735546, "FUSE", "it may itself need a network, or wait for this host"},
    {0x01021994, "tmpfs", "what is not sent goes with a restart of the machine"},
    {0x4d44, "FAT", "nothing is private there, and large files do not fit"},
}};

// The nearest directory above that is there.
fs::path existing(fs::path directory) {
  std::error_code error;
  while (!fs::exists(directory, error) && directory.has_relative_path())
    directory = directory.parent_path();
  return directory;
}

}  // namespace

Finding checkSpace(const DiskSpace& space) {
  constexpr const char* kAbout = "disk";
  const std::string text = sizeText(space.available) + " of " + sizeText(space.capacity) +
                           " are free where contents are kept.";
  if (space.available < kFull) {
    return problem(kAbout, text, "Make room: new contents and changes cannot be kept.");
  }
  if (space.available < std::min(space.capacity / 20, host::SpaceMaker::kMostKeptFree)) {
    return warning(kAbout, text,
                   "The host keeps this much free by letting contents go that were not used for "
                   "long. Make room, or mount with a smaller --keep-free.");
  }
  return fine(kAbout, text);
}

Finding checkDirectory(const std::string& about, const fs::path& directory) {
  const std::string shown = inQuotes(directory);
  struct stat status {};
  if (::stat(directory.c_str(), &status) != 0) {
    const int error = errno;
    if (error == ENOENT) return fine(about, shown + " is not there yet.");
    return problem(about, shown + " cannot be looked at: " + platform::errnoText(error) + ".",
                   "Check the directories above it.");
  }
  if (!S_ISDIR(status.st_mode)) return problem(about, shown + " is no directory.", "Move it away.");
  if (status.st_uid != ::geteuid())
    return problem(about, shown + " belongs to another user.",
                   "Run: chown -R " + std::to_string(::geteuid()) + " " + shown);
  if ((status.st_mode & S_IRWXU) != S_IRWXU)
    return problem(about, shown + " cannot be used by its owner.", "Run: chmod 700 " + shown);
  if ((status.st_mode & kOthersBits) != 0)
    return warning(about, "Others may look into " + shown + ".", "Run: chmod 700 " + shown);
  struct statfs system {};
  if (::statfs(directory.c_str(), &system) == 0) {
    for (const UnfitFileSystem& unfit : kUnfit) {
      if (static_cast<std::uint32_t>(system.f_type) != unfit.type) continue;
      return warning(about, shown + " lies on " + unfit.name + ": " + unfit.why + ".",
                     "Choose another place, by --replica or XDG_DATA_HOME.");
    }
  }
  return fine(about, shown + " is private.");
}

Findings checkStorage(const fs::path& shared, const std::vector<fs::path>& replicas) {
  Findings findings{checkDirectory("shared", shared)};
  for (const fs::path& replica : replicas) {
    findings.push_back(checkDirectory("replica", replica));
    std::error_code error;
    const auto space = fs::space(existing(replica), error);
    if (error) {
      findings.push_back(
          warning("disk", "How full it is cannot be told: " + error.message() + ".", "See df."));
    } else {
      findings.push_back(checkSpace({space.capacity, space.available}));
    }
  }
  return findings;
}

}  // namespace kestrune
