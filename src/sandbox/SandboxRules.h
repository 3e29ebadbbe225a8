// What the extension's program may reach: one table, made from a few paths. The host makes the sandbox from it, the
// program confines itself by it, and the tests try what is not in it.
//
// Everything that is not named is out of reach: the home, other programs' files, sockets and processes, devices. The
// network is open, because the extension is a client of a service whose address the user chooses.
//
// A table is a value. Each place is held by its inode, by the name space of mounts as by Landlock: when a file is
// replaced by another of its name (resolv.conf, as the machine changes its network), a running program keeps the old
// one or none. Whoever started the program therefore makes the table anew before it wakes it, and starts it afresh where
// the two differ.
//
// Threads: pure functions of the file system; callable from any thread. They touch the paths that they are given, what
// leads to these, and the system's own places; no mount that lies elsewhere.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <vector>

namespace kestrune::sandbox {

/// All absolute and without ".."; symbolic links may lead to them. None of the first three lies in another, but that
/// `temporary` and `outgoing` may both lie in a folder of `shared`.
struct SandboxPaths {
  /// Configuration, pins, caches and the status record: read and written.
  std::filesystem::path shared;
  /// Where contents are put that the host takes over: read and written.
  std::filesystem::path temporary;
  /// Where the host puts contents that are to be sent: read.
  std::filesystem::path outgoing;
  /// The program that is confined.
  std::filesystem::path program;
  /// A store of certificates of the user's own (SSL_CERT_FILE); empty: the system's alone.
  std::filesystem::path certificates;
};

enum class Access {
  read,
  /// Also making, replacing and removing files and folders in it; no links, sockets or devices.
  readWrite,
  /// A device, read and written.
  device,
  /// The kernel's list of processes: in a name space of its own where there is one. Sanitized builds alone.
  processes,
};

/// A directory with everything below it, or one file.
struct Place {
  std::filesystem::path path;  // no part of it is a symbolic link
  Access access;
  dev_t device;
  ino_t inode;

  bool operator==(const Place&) const = default;
};

/// A symbolic link on the way to a place, by whose name the place is known.
struct Link {
  std::filesystem::path path;
  std::filesystem::path target;  // absolute

  bool operator==(const Link&) const = default;
};

struct SandboxRules {
  /// One that lies in another comes after it.
  std::vector<Place> places;
  std::vector<Link> links;
  /// Directories within a place that are out of reach all the same, but for the places in them: the replica, where it
  /// lies in the shared directory. Only a name space of mounts can do that.
  std::vector<std::filesystem::path> covered;
  std::filesystem::path program;  // no part of it is a symbolic link

  bool operator==(const SandboxRules&) const = default;
};

/// Throws NSPOSIXError where one of the paths is not there or is not as SandboxPaths says. What the system does not have
/// is left out of the table.
SandboxRules rulesFor(const SandboxPaths& paths);

/// Whether `path` is `directory` or lies below it, by their texts.
bool isWithin(const std::filesystem::path& path, const std::filesystem::path& directory);

}  // namespace kestrune::sandbox
