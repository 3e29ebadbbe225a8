// An open file with a position, closed when its handle goes, and what the file system says of a
// file.
//
// Threads: a handle belongs to one thread at a time. Fails: NSPOSIXError with the path in its
// description.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

#include "platform/values/Date.h"

namespace kestrune::platform {

class FileHandle {
 public:
  /// An existing file, from its beginning.
  static FileHandle forReading(const std::filesystem::path& path);
  /// A new, empty file, readable for the user alone. Throws if there is something at `path`, be it
  /// a symbolic link.
  static FileHandle forWritingNew(const std::filesystem::path& path);

  FileHandle(FileHandle&& other) noexcept;
  FileHandle& operator=(FileHandle&&) = delete;
  /// Closes the file if it is open; what goes wrong then is dropped.
  ~FileHandle();

  /// Moves the position to `offset` bytes from the beginning; it may lie beyond the end.
  void seek(std::int64_t offset);
  /// Fills `destination` from the position on and moves on. Returns how many bytes there were: fewer
  /// than asked for only at the end of the file.
  std::size_t read(std::span<char> destination);
  /// Writes all of `bytes` at the position and moves on. After a failure some of them may be there.
  void write(std::string_view bytes);
  /// The same with bytes that lie in several places.
  void write(std::span<const std::string_view> pieces);
  /// Makes the file `size` bytes long. What this adds reads as zeros and takes no room on the disk.
  void truncate(std::int64_t size);
  /// Closes the file, once. Some file systems report only here that earlier bytes were not stored.
  /// REQUIRES: nothing else but the destructor follows.
  void close();

 private:
  FileHandle(std::string name, int descriptor) : name_(std::move(name)), descriptor_(descriptor) {}

  std::string name_;  // for errors
  int descriptor_;    // -1 once closed
};

/// What a program usually asks of a file before it is sent or handed over.
struct FileAttributes {
  std::int64_t size;
  Date modified;
};

/// Of the file at `path`, or of the one that a symbolic link there leads to.
FileAttributes attributesOfFile(const std::filesystem::path& path);

}  // namespace kestrune::platform
