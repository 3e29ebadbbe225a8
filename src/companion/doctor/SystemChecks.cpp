#include "companion/doctor/SystemChecks.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>

#include "config/StorageLocations.h"
#include "platform/log/Log.h"
#include "platform/values/NSError.h"
#include "sandbox/BubblewrapTrial.h"
#include "sandbox/Landlock.h"

namespace kestrune {

namespace fs = std::filesystem;

namespace {

constexpr const char* kHelper = "fusermount3";
/// An open file of the mount takes a descriptor; programs that scan folders hold some hundreds.
constexpr rlim_t kEnoughDescriptors = 4096;

std::string inQuotes(const fs::path& path) {
  return "'" + platform::escapeForDisplay(path.native()) + "'";
}

Finding checkDevice(const SystemPlaces& places) {
  constexpr const char* kAbout = "fuse-device";
  const std::string shown = inQuotes(places.fuseDevice);
  const int descriptor = ::open(places.fuseDevice.c_str(), O_RDWR | O_CLOEXEC);
  if (descriptor >= 0) {
    ::close(descriptor);
    return fine(kAbout, shown + " can be opened.");
  }
  const int error = errno;
  const std::string text = shown + " cannot be opened: " + platform::errnoText(error) + ".";
  if (error == ENOENT || error == ENODEV || error == ENXIO) {
    return problem(kAbout, text,
                   "Nothing can be mounted. Load the kernel's module (modprobe fuse), or give the "
                   "container the device (--device /dev/fuse). kestrune ls and cat work without.");
  }
  return problem(kAbout, text,
                 "Nothing can be mounted. Its mode should be 0666; in a container, it must be "
                 "allowed to use the device.");
}

Finding checkHelper(const SystemPlaces& places) {
  for (const fs::path& folder : places.programFolders) {
    struct stat status {};
    const fs::path file = folder / kHelper;
    if (::stat(file.c_str(), &status) != 0) continue;
    const bool mayMount = (status.st_mode & S_ISUID) != 0 && status.st_uid == 0;
    if (places.user == 0 || mayMount) return fine(kHelper, inQuotes(file) + " is there.");
    return problem(kHelper, inQuotes(file) + " may not mount for users.",
                   "Install the package fuse3 anew; the file belongs to root with mode 4755.");
  }
  if (places.user == 0) return fine(kHelper, "It is not installed, and root needs none.");
  return problem(kHelper, "It is not installed.", "Install the package fuse3: users mount by it.");
}

/// Directories like those of a host, for the trial.
class TrialPlaces {
 public:
  TrialPlaces() {
    std::string name = (fs::temp_directory_path() / "kestrune-doctor-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr)
      throw platform::NSPOSIXError(errno, "make '" + name + "'");
    top_ = name;
    fs::create_directory(top_ / "temporary");
    fs::create_directory(top_ / "outgoing");
  }
  ~TrialPlaces() {
    std::error_code ignored;
    fs::remove_all(top_, ignored);
  }
  TrialPlaces(const TrialPlaces&) = delete;
  TrialPlaces& operator=(const TrialPlaces&) = delete;
  const fs::path& top() const { return top_; }

 private:
  fs::path top_;
};

std::optional<std::string> whyNoSandbox(const fs::path& program) {
  const TrialPlaces trial;
  sandbox::SandboxPaths paths;
  paths.shared = fs::canonical(storage::sharedDirectory());
  paths.temporary = trial.top() / "temporary";
  paths.outgoing = trial.top() / "outgoing";
  paths.program = program;
  if (const char* certificates = std::getenv("SSL_CERT_FILE")) paths.certificates = certificates;
  return sandbox::whyNoBubblewrap(sandbox::rulesFor(paths));
}

Finding checkBubblewrap(const fs::path& program) {
  constexpr const char* kAbout = "bubblewrap";
  std::string why;
  try {
    const auto told = whyNoSandbox(program);
    if (!told) return fine(kAbout, "The extension can be given name spaces of its own.");
    why = *told;
  } catch (const platform::NSError& error) {
    why = error.localizedDescription();
  } catch (const fs::filesystem_error& error) {
    why = error.what();
  }
  return warning(kAbout, "The extension cannot be given name spaces of its own: " + why,
                 "Mounts work, with less around the part that talks to the network. Install the "
                 "package bubblewrap; where that is there, the system must allow user name spaces "
                 "(sysctl user.max_user_namespaces, kernel.unprivileged_userns_clone).");
}

Finding checkLandlock() {
  constexpr const char* kAbout = "landlock";
  const int version = sandbox::landlockVersion();
  if (version > 0) return fine(kAbout, "The kernel has version " + std::to_string(version) + ".");
  return warning(
      kAbout, "The kernel does not confine files by Landlock.",
      "Mounts work. A kernel from 5.13 on has it, unless the parameter lsm= leaves it out.");
}

Finding checkDescriptors() {
  constexpr const char* kAbout = "descriptors";
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return warning(kAbout, "The limit of open files cannot be read: " + platform::errnoText(errno),
                   "See ulimit -Hn.");
  }
  if (limit.rlim_max == RLIM_INFINITY || limit.rlim_max >= kEnoughDescriptors) {
    return fine(kAbout, "A host may open " +
                            (limit.rlim_max == RLIM_INFINITY ? "any number of"
                                                             : std::to_string(limit.rlim_max)) +
                            " files.");
  }
  return warning(kAbout,
                 "A host may open " + std::to_string(limit.rlim_max) +
                     " files only; each open file of the folder takes one.",
                 "Raise the hard limit (ulimit -Hn, LimitNOFILE=) to 4096 or more.");
}

Finding checkInotify() {
  constexpr const char* kAbout = "inotify";
  const int descriptor = ::inotify_init1(IN_CLOEXEC);
  const int made = descriptor < 0 ? errno : 0;
  const int watch = descriptor < 0 ? -1 : ::inotify_add_watch(descriptor, "/", IN_CREATE);
  const int watched = watch < 0 ? errno : 0;
  if (descriptor >= 0) ::close(descriptor);
  if (made == 0 && watched == 0) return fine(kAbout, "Files can be watched.");
  const bool isInstance = made != 0;
  return problem(
      kAbout, "No file can be watched: " + platform::errnoText(isInstance ? made : watched) + ".",
      std::string("Changes elsewhere are not noticed. Raise fs.inotify.") +
          (isInstance ? "max_user_instances" : "max_user_watches") + " (sysctl).");
}

}  // namespace

SystemPlaces SystemPlaces::here() {
  SystemPlaces places;
  places.user = ::geteuid();
  return places;
}

Findings checkMounting(const SystemPlaces& places) {
  return {checkDevice(places), checkHelper(places)};
}

Findings checkSandbox(const fs::path& program) {
  return {checkBubblewrap(program), checkLandlock()};
}

Findings checkLimits() { return {checkDescriptors(), checkInotify()}; }

}  // namespace kestrune
