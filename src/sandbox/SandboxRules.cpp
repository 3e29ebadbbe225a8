#include "sandbox/SandboxRules.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>
#include <system_error>

#include "platform/values/NSError.h"

namespace kestrune::sandbox {

namespace {

using std::filesystem::path;

// Of /etc only what says how names are resolved, whom to trust and what the time is. Not its folder: a program that runs
// as root could read the passwords in it, and the keys in /etc/ssl/private.
constexpr std::array kReadable = {
    "/usr",
    "/lib",
    "/lib32",
    "/lib64",
    "/libx32",
    "/etc/ld.so.cache",
    "/etc/ssl/certs",
    "/etc/ssl/openssl.cnf",
    "/etc/ca-certificates",
    "/etc/resolv.conf",
    "/etc/hosts",
    "/etc/host.conf",
    "/etc/nsswitch.conf",
    "/etc/gai.conf",
    "/etc/services",
    "/etc/protocols",
    "/etc/localtime",
    "/etc/timezone",
};

constexpr std::array kDevices = {"/dev/null", "/dev/zero", "/dev/urandom", "/dev/random"};

platform::NSPOSIXError invalid(const path& given) {
  return {EINVAL, "confine to '" + given.string() + "'"};
}

/// The path without trailing slashes; throws where it is not as SandboxPaths says.
path checked(const path& given) {
  const auto isUp = [](const path& part) { return part == ".."; };
  if (!given.is_absolute() || std::any_of(given.begin(), given.end(), isUp)) throw invalid(given);
  const path normal = given.lexically_normal();
  return normal.has_filename() ? normal : normal.parent_path();
}

path resolved(const path& given) {
  std::error_code failure;
  path real = std::filesystem::canonical(given, failure);
  if (failure) throw platform::NSPOSIXError(failure.value(), "confine to '" + given.string() + "'");
  return real;
}

class Table {
 public:
  /// What the system has: a place that another one reaches already needs no entry.
  void addIfThere(const path& given, Access access) {
    std::error_code unreadable;  // where we are not let in, the program would not be either
    if (!std::filesystem::exists(given, unreadable)) return;
    const path real = resolved(given);
    if (!isReached(real, access)) rules_.places.push_back(placeAt(real, access));
    addLink(given, real);
  }

  /// Throws where there is nothing at `given`.
  path add(const path& given, Access access) {
    path real = resolved(given);
    rules_.places.push_back(placeAt(real, access));
    addLink(given, real);
    return real;
  }

  /// Puts out of reach what lies beside `inner` in its folder of `shared`.
  void coverAround(const path& inner, const path& shared) {
    const path cover = shared / *inner.lexically_relative(shared).begin();
    if (cover == inner) throw invalid(inner);
    if (std::ranges::find(rules_.covered, cover) == rules_.covered.end())
      rules_.covered.push_back(cover);
  }

  SandboxRules take(const path& program) {
    rules_.program = resolved(program);
    addIfThere(program, Access::read);
    return std::move(rules_);
  }

 private:
  static Place placeAt(const path& real, Access access) {
    struct stat status {};
    if (::stat(real.c_str(), &status) != 0) {
      throw platform::NSPOSIXError(errno, "confine to '" + real.string() + "'");
    }
    return {real, access, status.st_dev, status.st_ino};
  }

  bool isReached(const path& wanted, Access access) const {
    return std::ranges::any_of(rules_.places, [&](const Place& place) {
      return isWithin(wanted, place.path) && place.access == access;
    });
  }

  /// A link that lies in a place, or on the way of another link, is seen there.
  void addLink(const path& given, const path& real) {
    const auto shows = [&](const auto& known) { return isWithin(given, known.path); };
    if (given == real || std::ranges::any_of(rules_.places, shows)) return;
    if (std::ranges::none_of(rules_.links, shows)) rules_.links.push_back({given, real});
  }

  SandboxRules rules_;
};

}  // namespace

bool isWithin(const path& inner, const path& directory) {
  const auto [end, unused] =
      std::mismatch(directory.begin(), directory.end(), inner.begin(), inner.end());
  return end == directory.end();
}

SandboxRules rulesFor(const SandboxPaths& paths) {
  Table table;
  for (const char* place : kReadable) table.addIfThere(place, Access::read);
  for (const char* device : kDevices) table.addIfThere(device, Access::device);
#ifdef KESTRUNE_SANITIZED
  table.addIfThere("/proc", Access::processes);  // the sanitizers read the list of mappings
#endif
  const path shared = table.add(checked(paths.shared), Access::readWrite);
  const path temporary = table.add(checked(paths.temporary), Access::readWrite);
  const path outgoing = table.add(checked(paths.outgoing), Access::read);
  for (const path& inner : {temporary, outgoing}) {
    if (isWithin(inner, shared)) table.coverAround(inner, shared);
    if (isWithin(shared, inner)) throw invalid(inner);
  }
  if (isWithin(outgoing, temporary) || isWithin(temporary, outgoing)) throw invalid(outgoing);
  if (!paths.certificates.empty()) table.addIfThere(checked(paths.certificates), Access::read);
  return table.take(checked(paths.program));
}

}  // namespace kestrune::sandbox
