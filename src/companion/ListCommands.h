// `kestrune ls` and `kestrune cat`: folders and files of the remote store without a mount.
//
// A path is resolved folder by folder from the root, by names as they are listed: identifiers stay
// the extension's business.
#pragma once

#include <memory>
#include <string>

#include "platform/file_provider/NSFileProviderReplicatedExtension.h"

namespace kestrune {

using ExtensionPtr = std::shared_ptr<platform::NSFileProviderReplicatedExtension>;

struct ListOptions {
  std::string path = "/";
  /// Also sizes and times.
  bool isLong = false;
  /// Whether control characters in names are escaped: for terminals, which they could take over.
  bool escapesNames = false;
};

/// The lines of `kestrune ls`: one name a line in byte order, folders with a "/" behind; for a file
/// its own name. With `isLong` the size in bytes and the time in UTC stand before the name. Names
/// that cannot be file names are left out, as in the mounted folder. Throws CommandError, also where
/// there is no such path.
std::string listing(const ExtensionPtr& extension, const ListOptions& options);

/// Fetches a file whole and writes it to `descriptor`; the local copy is removed. Throws
/// CommandError; a reader that has gone away (EPIPE) ends it quietly.
void copyContents(const ExtensionPtr& extension, const std::string& path, int descriptor);

/// `listing` and `copyContents` with the real extension on this process's standard output, in a
/// temporary directory of their own that goes with them, also on Ctrl-C.
/// REQUIRES: called on the main thread before any other thread runs.
void runList(const ListOptions& options);
void runCat(const std::string& path);

}  // namespace kestrune
