// Whole files, read and replaced: the one way in which the project writes a file that others read
// or that must survive.
//
// Threads: callable from any thread. Two replacements of one path race to a complete file: one of
// the two.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace kestrune::platform {

/// Whether a replacement waits for the disk.
enum class Durability {
  /// Readers see the old or the new contents, never a mixture. After a power cut the file may be
  /// the
  /// older one; on file systems that do not write data before a rename (XFS) it may also be empty.
  atomic,
  /// The same, and the new contents are on the disk when the call returns (file first, then its
  /// folder).
  durable,
};

/// Replaces `path` by `contents`, mode 0600: writes a new file beside it, then renames. On failure
/// the old file stays as it was, nothing is left beside it, and NSPOSIXError is thrown with the
/// path in its description. Two exceptions: when only the folder cannot be flushed, the new file is
/// in place already; a process that is killed meanwhile leaves a ".kestrune-….tmp" behind. A
/// symbolic link at `path` is replaced, not followed.
void replaceFile(const std::filesystem::path& path, std::string_view contents,
                 Durability durability);

/// Removes from `folder` what replacements of processes that were killed left behind, if it was not written to for
/// `age`: younger ones may be at work. What cannot be removed, or a folder that is not there, is left as it is.
void removeAbandonedReplacements(const std::filesystem::path& folder, std::chrono::seconds age);

/// Replaces one file again and again, in bursts. A file that is replaced is freed, and on ext4 a new
/// one takes the longer to make the more were freed in the last seconds. So this keeps the file that
/// it has replaced, beside the target, and writes the next contents into it; unless a reader still
/// has it open, for whom it must stay as it is. Only Linux tells whether one has; elsewhere each
/// replacement is a new file.
///
/// Readers see the old or the new contents, never a mixture. A power cut may leave anything: for
/// files that nobody reads after a restart.
///
/// Threads: one at a time. Owns: the spare file, which is there from a replacement until `rest` or
/// the destructor.
class FileReplacer {
 public:
  FileReplacer() = default;
  ~FileReplacer() { rest(); }
  FileReplacer(const FileReplacer&) = delete;
  FileReplacer& operator=(const FileReplacer&) = delete;

  /// Like replaceFile.
  void replace(const std::filesystem::path& path, std::string_view contents);
  /// Removes the spare file, if there is one: nothing follows for a while.
  void rest();

 private:
  std::filesystem::path spare_;  // empty: none
};

/// The whole contents of a regular file. Throws NSPOSIXError if it cannot be read, is no regular
/// file (it never waits for a named pipe), or is or becomes larger than `limitBytes` (EFBIG): what
/// lies in a shared directory is never trusted to be small.
std::string readFile(const std::filesystem::path& path, std::uint64_t limitBytes = 64ULL << 20U);

}  // namespace kestrune::platform
