#include "sandbox/Landlock.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "platform/values/NSError.h"
#include "sandbox/Descriptor.h"

namespace kestrune::sandbox {

namespace {

// What Linux 6.1's headers do not have; the version of Landlock that has it.
constexpr std::uint64_t kTruncate = 1ULL << 14U;             // 3
constexpr std::uint64_t kDeviceControl = 1ULL << 15U;        // 5
constexpr std::uint64_t kBindTCP = 1ULL << 0U;               // 4
constexpr std::uint64_t kScopeAbstractSockets = 1ULL << 0U;  // 6
constexpr std::uint64_t kScopeSignals = 1ULL << 1U;          // 6

/// The kernel's landlock_ruleset_attr of version 6. Older ones take it as long as what they do not know is 0.
struct RulesetAttributes {
  std::uint64_t files = 0;
  std::uint64_t network = 0;
  std::uint64_t scopes = 0;
};

constexpr std::uint64_t kReading = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
constexpr std::uint64_t kWriting = LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_MAKE_REG |
                                   LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_REMOVE_FILE |
                                   LANDLOCK_ACCESS_FS_REMOVE_DIR | LANDLOCK_ACCESS_FS_REFER |
                                   kTruncate;
// Granted nowhere.
constexpr std::uint64_t kRefused = LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_MAKE_CHAR |
                                   LANDLOCK_ACCESS_FS_MAKE_BLOCK | LANDLOCK_ACCESS_FS_MAKE_SOCK |
                                   LANDLOCK_ACCESS_FS_MAKE_FIFO | LANDLOCK_ACCESS_FS_MAKE_SYM |
                                   kDeviceControl;
// What can be granted of a place that is no directory.
constexpr std::uint64_t kOfFiles =
    LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_WRITE_FILE | kTruncate;

Descriptor opened(long number, const std::string& what) {
  if (number < 0) throw platform::NSPOSIXError(errno, what);
  return Descriptor(static_cast<int>(number));
}

std::uint64_t granted(Access access) {
  switch (access) {
    case Access::read:
    case Access::processes:
      return kReading;
    case Access::readWrite:
      return kReading | kWriting;
    case Access::device:
      return LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_WRITE_FILE;
  }
}

/// All that this version can refuse.
RulesetAttributes attributesOf(int version) {
  RulesetAttributes attributes;
  attributes.files = kReading | kWriting | kRefused;
  if (version < 2) attributes.files &= ~LANDLOCK_ACCESS_FS_REFER;
  if (version < 3) attributes.files &= ~kTruncate;
  if (version < 5) attributes.files &= ~kDeviceControl;
  if (version >= 4) attributes.network = kBindTCP;
  if (version >= 6) attributes.scopes = kScopeAbstractSockets | kScopeSignals;
  return attributes;
}

void grant(const Descriptor& ruleset, const Place& place, std::uint64_t known) {
  const std::string what = "confine to '" + place.path.string() + "'";
  const Descriptor at = opened(::open(place.path.c_str(), O_PATH | O_CLOEXEC | O_NOFOLLOW), what);
  struct stat status {};
  if (::fstat(at.number(), &status) != 0) throw platform::NSPOSIXError(errno, what);
  landlock_path_beneath_attr rule{};
  rule.allowed_access = granted(place.access) & known;
  if (!S_ISDIR(status.st_mode)) rule.allowed_access &= kOfFiles;
  rule.parent_fd = at.number();
  if (::syscall(SYS_landlock_add_rule, ruleset.number(), LANDLOCK_RULE_PATH_BENEATH, &rule, 0) != 0)
    throw platform::NSPOSIXError(errno, what);
}

}  // namespace

int landlockVersion() {
  const long version =
      ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  return version > 0 ? static_cast<int>(version) : 0;
}

void applyLandlock(const SandboxRules& rules) {
  const RulesetAttributes attributes = attributesOf(landlockVersion());
  const Descriptor ruleset =
      opened(::syscall(SYS_landlock_create_ruleset, &attributes, sizeof attributes, 0),
             "make a Landlock ruleset");
  for (const Place& place : rules.places) grant(ruleset, place, attributes.files);
  if (::syscall(SYS_landlock_restrict_self, ruleset.number(), 0) != 0)
    throw platform::NSPOSIXError(errno, "confine by Landlock");
}

}  // namespace kestrune::sandbox
