// A directory of a test's own, with everything in it removed at the end.
//
// Threads: const operations may be called from any thread.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace kestrune::support {

class TemporaryDirectory {
 public:
  /// Makes an empty directory, mode 0700, below $TMPDIR or /tmp.
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }

  /// Writes a file (and the folders above it) and returns its path.
  std::filesystem::path write(const std::filesystem::path& relative,
                              std::string_view contents) const;
  /// How many entries lie directly in it.
  std::size_t entryCount() const;

 private:
  std::filesystem::path path_;
};

/// The whole contents of a file; throws std::runtime_error if it cannot be read.
std::string contentsOf(const std::filesystem::path& file);

}  // namespace kestrune::support
