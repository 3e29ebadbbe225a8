// The local disk below the mount: one private folder with the contents that were fetched, each a file named by its
// node's number, and the temporary folder from which they are taken over by a rename.
//
//   <directory>/lock        held while a host uses the directory
//   <directory>/contents/   files named by number, mode 0600
//   <directory>/tmp/        the temporary directory of the process
//
// Node numbers mean nothing to the next host, so contents do not outlive the process: what lies here at the start is
// removed. Names from the remote side never reach this directory, and everything in it is used through descriptors of
// its folders without following links.
//
// Threads: every operation may be called from any thread. Blocks for local file work only.
// Fails: throws NSPOSIXError.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>

#include "host/basics/LocalFile.h"
#include "host/basics/NodeId.h"

namespace kestrune::host {

class Replica {
 public:
  /// Makes the directory with mode 0700, or takes it over: it must belong to this user and be no symbolic link. Throws
  /// EBUSY if another host uses it.
  explicit Replica(const std::filesystem::path& directory);

  const std::filesystem::path& temporaryDirectory() const { return temporary_; }

  /// Makes the file at `path` the contents of `node`. It must be a regular file on the replica's file system; whatever
  /// happens, it is not there any more afterwards.
  LocalFilePtr takeOver(const std::filesystem::path& path, NodeId node);
  /// Opens the file at `path` and removes its name: it lasts as long as somebody has it open.
  LocalFilePtr takeUnnamed(const std::filesystem::path& path);
  /// The contents of `node` again; null if they are not here.
  LocalFilePtr open(NodeId node) const;
  /// Drops the contents of `node`, if any. Who has them open keeps them.
  void remove(NodeId node) noexcept;

 private:
  void clear();

  std::filesystem::path temporary_;
  std::unique_ptr<Descriptor> directory_;
  std::unique_ptr<Descriptor> lock_;
  std::unique_ptr<Descriptor> contents_;
};

}  // namespace kestrune::host
