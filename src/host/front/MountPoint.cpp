#include "host/front/MountPoint.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "platform/values/NSError.h"

namespace kestrune::host {

namespace {

namespace fs = std::filesystem;
using platform::NSPOSIXError;

constexpr std::string_view kFileSystemType = "fuse.kestrune";

struct MountEntry {
  std::string device;  // "major:minor"
  std::string type;
};

// Blanks and the like are written as three octal digits after a backslash (proc(5)).
std::string unescaped(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned value = 0;
    if (text[i] == '\\' && i + 3 < text.size() &&
        std::from_chars(text.data() + i + 1, text.data() + i + 4, value, 8).ptr ==
            text.data() + i + 4) {
      plain += static_cast<char>(value);
      i += 3;
    } else {
      plain += text[i];
    }
  }
  return plain;
}

// The uppermost mount at exactly this place. It is read from the kernel's table: asking the mount itself might wait for
// its host.
std::optional<MountEntry> mountAt(const fs::path& directory) {
  std::ifstream table("/proc/self/mountinfo");
  std::optional<MountEntry> found;
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string id;
    std::string parent;
    std::string root;
    std::string place;
    MountEntry entry;
    fields >> id >> parent >> entry.device >> root >> place;
    if (unescaped(place) != directory) continue;
    for (std::string field; fields >> field && field != "-";) {
    }
    fields >> entry.type;
    found = entry;
  }
  return found;
}

// Asked in the one way that the kernel never answers from its own memory.
bool lostItsHost(const fs::path& directory) {
  struct statvfs status = {};
  return ::statvfs(directory.c_str(), &status) != 0 && errno == ENOTCONN;
}

bool isEmptyFolder(const fs::path& directory) {
  std::error_code error;
  const bool empty = fs::directory_iterator(directory, error) == fs::directory_iterator();
  if (error) throw NSPOSIXError(error.value(), "mount on '" + directory.string() + "'");
  return empty;
}

bool contains(const fs::path& outer, const fs::path& inner) {
  const fs::path relative = inner.lexically_relative(outer);
  return !relative.empty() && *relative.begin() != "..";
}

}  // namespace

fs::path absolutePlace(const fs::path& directory) {
  fs::path plain = fs::absolute(directory).lexically_normal();
  if (!plain.has_filename()) plain = plain.parent_path();
  std::error_code error;
  const fs::path parent = fs::canonical(plain.parent_path(), error);
  return error ? plain : parent / plain.filename();
}

void prepareMountPoint(const fs::path& directory) {
  const fs::path place = absolutePlace(directory);
  // Without a kernel table to read, what has lost its host can only be cleared by trying.
  const auto mount = mountAt(place);
  const bool isOurs = !mount || mount->type == kFileSystemType;
  if (isOurs && lostItsHost(place)) {
    detachMount(place);
  } else if (mount && isOurs) {
    throw NSPOSIXError(EBUSY, "mount on '" + directory.string() + "', which is mounted already");
  }
  if (!isEmptyFolder(place)) throw NSPOSIXError(ENOTEMPTY, "mount on '" + directory.string() + "'");
}

void requireApart(const fs::path& mountPoint, const fs::path& local) {
  std::error_code error;
  const fs::path outer = absolutePlace(mountPoint);
  const fs::path inner = fs::weakly_canonical(fs::absolute(local), error);
  if (contains(outer, inner) || contains(inner, outer)) {
    throw NSPOSIXError(EINVAL, "keep files in '" + local.string() + "' for the mount '" +
                                   mountPoint.string() + "'");
  }
}

void detachMount(const fs::path& directory) {
  if (::umount2(directory.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0) return;
  if (errno != EPERM) throw NSPOSIXError(errno, "unmount '" + directory.string() + "'");
  std::string program = "fusermount3";
  std::string options = "-uzq";
  std::string end = "--";
  std::string place = directory.string();
  const std::array<char*, 5> arguments = {program.data(), options.data(), end.data(), place.data(),
                                          nullptr};
  pid_t child = 0;
  const int error =
      ::posix_spawnp(&child, program.c_str(), nullptr, nullptr, arguments.data(), environ);
  if (error != 0) throw NSPOSIXError(error, "run fusermount3");
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (status != 0) throw NSPOSIXError(EPERM, "unmount '" + place + "'");
}

void raiseReadAhead(const fs::path& directory, std::size_t bytes) {
  const auto mount = mountAt(absolutePlace(directory));
  if (!mount) return;
  std::ofstream setting("/sys/class/bdi/" + mount->device + "/read_ahead_kb");
  setting << bytes / 1024;
}

}  // namespace kestrune::host
