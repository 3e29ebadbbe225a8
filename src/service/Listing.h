// One folder's listing as JSON text, made piece by piece while the folder is read: a listing of any
// length needs one piece of memory.
//
//     {"path":"/Docs","entries":[{"name":"a.pdf","type":"file","size":1,
//      "modified_at":"2024-05-01T12:30:45.123Z",
//      "mime_type":"application/pdf"},...]}
//
// Entries come in the folder's own order. Left out, and counted: what is neither a regular file nor
// a folder, and names that the service would not accept back (isAcceptableName). What vanishes
// while the folder is read is left out as well. A change during the reading may be seen or not, as
// with any reading of a folder.
//
// Threads: one at a time. Blocks on the disk.
// Fails: ServiceError; the text so far is then
// incomplete and must not be finished.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "service/FileDescriptor.h"
#include "service/MimeTypes.h"
#include "service/RemotePath.h"
#include "service/Tree.h"

namespace kestrune::service {

class Listing {
 public:
  /// `folder` is open for reading and lies at `path`. `types` outlives this object.
  Listing(FileDescriptor folder, const RemotePath& path, MimeTypes& types);

  /// Appends the next part of the text to `out`: at least `enough` bytes unless the end comes
  /// first. False when that was the end.
  bool next(std::string& out, std::size_t enough);

  /// The folder that is read.
  const FileDescriptor& folder() const { return folder_; }
  /// How many names were left out so far because the service would not accept them.
  std::uint64_t refusedNames() const { return refusedNames_; }

 private:
  bool refill();
  void append(std::string& out, const char* name, unsigned char kindHint);

  FileDescriptor folder_;
  MimeTypes& types_;
  /// The kernel's directory records that are not converted yet: [position_, filled_).
  std::vector<char> records_;
  std::size_t position_ = 0;
  std::size_t filled_ = 0;
  std::string opening_;
  bool first_ = true;
  std::uint64_t refusedNames_ = 0;
};

/// Appends `text` as a JSON string with its quotes.
/// REQUIRES: valid UTF-8.
void appendJsonString(std::string& out, std::string_view text);

/// Appends `time` as "2024-05-01T12:30:45.123Z"; finer parts are cut. Times outside the years 0 to
/// 9999, which the form cannot name, become the first or last second of that span.
void appendTimestamp(std::string& out, FileTime time);

}  // namespace kestrune::service
