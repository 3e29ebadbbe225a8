// `kestrune mount`: the extension as a folder, until somebody ends it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "host/front/InheritedMount.h"

namespace kestrune {

struct MountOptions {
  /// An empty folder.
  std::filesystem::path mountPoint;
  /// Where fetched contents are kept; empty: "replica" and the domain's identifier in the shared
  /// directory.
  std::filesystem::path replicaDirectory;
  std::string domainIdentifier = "main";
  /// Whether users other than the one who mounts may look inside (needs user_allow_other in
  /// /etc/fuse.conf where not root).
  bool allowOtherUsers = false;
  /// How often the store is looked at for changes where its service has no events to tell of them.
  std::int64_t refreshSeconds = 30;
  /// How many bytes contents may take here; none: no limit.
  std::optional<std::uint64_t> cacheBytes;
  /// How much of the disk is to stay free; none: a twentieth, 10 GiB at most.
  std::optional<std::uint64_t> keepFreeBytes;
  /// Whether the extension runs within the host instead of in a confined process of its own.
  bool inOneProcess = false;
  /// Whether the line that tells of the mount is for programs: {"mountPoint":"…","process":7}.
  bool asJson = false;
  /// As HostOptions has them.
  std::string version;
  host::ProgramStart program;
  host::InheritedMount* inherited = nullptr;
};

/// The program with the extension: it lies beside this one, by the path that this one was started by or by what that leads to.
/// Throws CommandError.
std::filesystem::path extensionProgram(const host::ProgramStart& own);

/// Where the replica of a domain lies that nobody chose a place for.
std::filesystem::path defaultReplica(const std::string& domainIdentifier);

/// Prints where the folder is once it can be used, and returns after SIGINT, SIGTERM, SIGHUP or an
/// unmount from outside. Throws CommandError if nothing can be mounted.
/// REQUIRES: called on the main thread before any other thread runs.
void runMount(const MountOptions& options);

}  // namespace kestrune
