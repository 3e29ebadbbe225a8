// An Application Support directory and a temporary directory of a test's own, in the place of the user's, for the time
// of a scope.
//
//     IsolatedStorage storage;
//     storage.writeShared("config.json", "{}");
//
// It sets XDG_DATA_HOME and TMPDIR, so it is made before anything of the project runs, and outlives all tasks that
// look for files.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::support {

class IsolatedStorage {
 public:
  IsolatedStorage();

  std::filesystem::path applicationSupport() const { return root_.path() / "data"; }
  /// "Kestrune" in there; nobody has made it yet.
  std::filesystem::path shared() const { return applicationSupport() / "Kestrune"; }
  /// It exists and is empty.
  std::filesystem::path temporary() const { return root_.path() / "tmp"; }

  /// Writes a file below `shared()`, with the folders above it, and returns its path.
  std::filesystem::path writeShared(const std::filesystem::path& relative,
                                    std::string_view contents) const;

  /// Puts something that is no ordinary file in the place of a file below `shared()`.
  void makeSharedDirectory(const std::filesystem::path& relative) const;
  void makeSharedPipe(const std::filesystem::path& relative) const;
  /// A file of so many bytes that takes no room on the disk.
  void makeSharedHugeFile(const std::filesystem::path& relative, std::uint64_t bytes) const;

  /// Makes "Kestrune" a file, so that nothing can be made or written below it, whoever the user is.
  void blockShared() const;

  /// The names of what lies in the temporary directory.
  std::vector<std::string> temporaryNames() const;

 private:
  std::filesystem::path placeFor(const std::filesystem::path& relative) const;

  TemporaryDirectory root_;
  ScopedEnvironment dataHome_;
  ScopedEnvironment temporaryVariable_;
};

}  // namespace kestrune::support
