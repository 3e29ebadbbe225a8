// Counts how often a file is opened, to show that something is read anew each time, or not at all.
//
// Linux: inotify. The kernel queues an event before `open` returns, so nothing is missed and nothing comes late.
#pragma once

#include <cstddef>
#include <filesystem>

namespace kestrune::support {

class FileOpens {
 public:
  /// REQUIRES: `file` exists. A file that is put in its place later is another one.
  explicit FileOpens(const std::filesystem::path& file);
  ~FileOpens();
  FileOpens(const FileOpens&) = delete;
  FileOpens& operator=(const FileOpens&) = delete;

  /// How often it was opened since the last call, by whatever process. Two openings without a closing between them may
  /// count as one.
  std::size_t take();

 private:
  int descriptor_;
};

}  // namespace kestrune::support
