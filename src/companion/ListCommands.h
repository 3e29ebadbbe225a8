// `kestrune ls` and `kestrune cat`: folders and files of the remote store without a mount.
//
// A path is resolved folder by folder from the root, by names as they are listed: identifiers stay
// the extension's business.
#pragma once

#include <cstddef>
#include <functional>
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
  /// For programs: {"name":"…","folder":false,"sizeBytes":5,"modified":"…"}, an object a line.
  bool asJson = false;
};

/// The lines of `kestrune ls`: one name a line in byte order, folders with a "/" behind; for a file
/// its own name. With `isLong` the size in bytes and the time in UTC stand before the name. Names
/// that cannot be file names are left out, as in the mounted folder. Throws CommandError, also where
/// there is no such path.
std::string listing(const ExtensionPtr& extension, const ListOptions& options);

/// How much of a file has come, of how much.
using FetchProgress = std::function<void(double fraction)>;

/// Fetches a file whole and writes it to `descriptor`; the local copy is removed. Throws
/// CommandError; a reader that has gone away (EPIPE) ends it quietly. `progress`: told now and then
/// while it comes; null: nobody wants to know.
void copyContents(const ExtensionPtr& extension, const std::string& path, int descriptor,
                  const FetchProgress& progress = nullptr);

/// What can follow `word`, which begins a remote path, each on a line: for shells to complete. At most
/// kMostCompletions; nothing where the store does not tell.
inline constexpr std::size_t kMostCompletions = 1000;
std::string completions(const ExtensionPtr& extension, const std::string& word);

/// Prints them. Never takes more than a second, and says nothing on errors: a shell calls it while
/// somebody types.
void runCompletePath(const std::string& word);

/// `listing` and `copyContents` with the real extension on this process's standard output, in a
/// temporary directory of their own that goes with them, also on Ctrl-C.
/// REQUIRES: called on the main thread before any other thread runs.
void runList(const ListOptions& options);
void runCat(const std::string& path);

}  // namespace kestrune
