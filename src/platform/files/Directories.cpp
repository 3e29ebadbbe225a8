#include "platform/files/Directories.h"

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <vector>

#include "platform/values/Mutex.h"

namespace kestrune::platform {

namespace {

struct HostSetting {
  Mutex mutex;
  std::optional<std::filesystem::path> temporaryDirectory GUARDED_BY(mutex);
};

HostSetting& hostSetting() {
  static auto* const instance = new HostSetting;  // outlives every thread that may still ask
  return *instance;
}

/// The value of an environment variable where it is an absolute path.
std::optional<std::filesystem::path> absolutePathFromEnvironment(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || value[0] != '/') return std::nullopt;
  return value;
}

std::optional<std::filesystem::path> homeOfAccount() {
  std::vector<char> buffer(1024);
  passwd entry{};
  passwd* found = nullptr;
  int failure = ERANGE;
  while (failure == ERANGE) {
    buffer.resize(buffer.size() * 2);
    failure = getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found);
  }
  if (failure != 0 || found == nullptr || found->pw_dir == nullptr || found->pw_dir[0] != '/')
    return std::nullopt;
  return found->pw_dir;
}

[[noreturn]] void endWithoutHome(const char* remedy) {
  std::fprintf(stderr, "kestrune: this user has no home directory%s\n", remedy);
  std::abort();
}

}  // namespace

#if defined(__APPLE__)

std::filesystem::path applicationSupportDirectory() {
  const auto home = homeOfAccount();
  if (!home) endWithoutHome("");
  return *home / "Library" / "Application Support";
}

namespace {

/// The account's own, which a sandbox lets through; /tmp it does not.
std::filesystem::path standardTemporaryDirectory() {
  std::array<char, PATH_MAX> buffer{};
  const std::size_t size = confstr(_CS_DARWIN_USER_TEMP_DIR, buffer.data(), buffer.size());
  return size > 0 && size <= buffer.size() ? buffer.data() : "/tmp";
}

}  // namespace

#else

std::filesystem::path applicationSupportDirectory() {
  if (auto data = absolutePathFromEnvironment("XDG_DATA_HOME")) return *data;
  auto home = absolutePathFromEnvironment("HOME");
  if (!home) home = homeOfAccount();
  if (!home) endWithoutHome(": set HOME or XDG_DATA_HOME");
  return *home / ".local" / "share";
}

namespace {

std::filesystem::path standardTemporaryDirectory() { return "/tmp"; }

}  // namespace

#endif

std::filesystem::path temporaryDirectory() {
  {
    HostSetting& setting = hostSetting();
    MutexLock lock(setting.mutex);
    if (setting.temporaryDirectory) return *setting.temporaryDirectory;
  }
  return absolutePathFromEnvironment("TMPDIR").value_or(standardTemporaryDirectory());
}

void setTemporaryDirectory(std::filesystem::path directory) {
  HostSetting& setting = hostSetting();
  MutexLock lock(setting.mutex);
  setting.temporaryDirectory = std::move(directory);
}

}  // namespace kestrune::platform
