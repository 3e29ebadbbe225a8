// Finds the running host that a command is meant for: by its domain, or by a path in the folder that it has mounted.
//
// Threads: belongs to one thread, which it blocks. Fails: CommandError.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "host/control/ControlClient.h"

namespace kestrune {

/// Where the host of a domain listens: "kestrune/<domain>.sock" in the user's runtime directory ($XDG_RUNTIME_DIR), which
/// goes with the session. Without one, or where a host with another shared directory listens there, "control/<domain>.sock" in the
/// shared directory. Throws CommandError for a domain whose identifier cannot be part of a file name.
std::vector<std::filesystem::path> controlSocketFiles(const std::string& domainIdentifier);

/// The folders in which hosts of this user may listen: a mount may have been made with another environment.
std::vector<std::filesystem::path> controlFolders();

/// A path as the host knows it: from its mount point down.
struct PlaceInMount {
  std::filesystem::path mountPoint;
  std::string path;
};

class HostFinder {
 public:
  HostFinder(std::vector<std::filesystem::path> folders, std::string mountTable)
      : folders_(std::move(folders)), mountTable_(std::move(mountTable)) {}
  /// The process's own surroundings.
  static HostFinder here();

  /// `path` may be relative, and may lead through links that lie outside of the mount; it need not exist.
  PlaceInMount place(const std::string& path) const;

  /// Of several, the one with the shared directory of this process, if there is one in it.
  std::unique_ptr<host::ControlClient> ofDomain(const std::string& domainIdentifier) const;
  /// The host of the mount that `path` lies in; where it is empty, of the domain.
  std::unique_ptr<host::ControlClient> of(const std::string& path,
                                          const std::string& domainIdentifier) const;
  std::unique_ptr<host::ControlClient> ofMount(const std::filesystem::path& mountPoint) const;

 private:
  const std::vector<std::filesystem::path> folders_;
  const std::string mountTable_;
};

}  // namespace kestrune
