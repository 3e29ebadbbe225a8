// "mount.json" in the shared directory: what people set about mounted folders. It is written by hand and read when a folder
// is mounted; without it everything is as it is by itself.
//
//   {"programsWithoutDownloads": {"add": ["mysearchd"], "remove": ["clamscan"]}}
//
// Threads: callable from any thread.
#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <string_view>

namespace kestrune {

struct MountConfiguration {
  /// Names of executables beside the host's own list that read only what is here, and those of the list that may download.
  std::set<std::string> addedLookersOn;
  std::set<std::string> removedLookersOn;

  /// Throws CommandError, which names `file`, if the text is not such an object. A key that does not exist is refused: it
  /// is one that was meant to do something.
  static MountConfiguration decode(std::string_view text, const std::filesystem::path& file);
  /// Throws as `decode`, and if there is a file that cannot be read.
  static MountConfiguration read();

  /// The list with the additions, and without what was removed.
  std::set<std::string> lookersOn(std::set<std::string> list) const;
};

}  // namespace kestrune
