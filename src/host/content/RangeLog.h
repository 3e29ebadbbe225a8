// What happened to the bytes of a changed file that the database may not know yet, beside the file on the disk.
//
// A changed file that is not whole has two kinds of holes in what is known of it: bytes that must still be fetched, and
// bytes that were written and whose ranges are not committed yet. A host that is killed and then took the second for the
// first would fetch the store's bytes over the user's. So each range is noted here after its bytes are in the file and
// before the write is answered. Each cut below what the store's version still has is noted before and after it is made:
// whether it was is seen by the file's length.
//
//   log   = { line }
//   line  = "+" ranges "\n"    these bytes are here, as in Ranges::text
//         | "~" size "\n"      about to be cut to this length
//         | "=" size "\n"      cut to it: nothing beyond it can be fetched any more
//
// Lines count in their order; a torn last line is none. Repeating lines over a state that has them already changes nothing.
//
// Threads: one at a time. Fails: throws NSPOSIXError; nothing is noted then.
#pragma once

#include <cstdint>
#include <memory>

#include "host/content/ContentDirectory.h"
#include "host/content/ContentState.h"

namespace kestrune::host {

class RangeLog {
 public:
  RangeLog(std::shared_ptr<ContentDirectory> directory, ContentNumber number)
      : directory_(std::move(directory)), number_(number) {}

  void noteHere(ByteRange range);
  void noteCutting(std::int64_t sizeBytes);
  void noteCut(std::int64_t sizeBytes);
  /// How many lines were noted through this object.
  std::uint64_t noted() const { return noted_; }
  /// Empties it: the database knows all of it.
  void clear();
  /// Brings it to the disk.
  void flush();
  /// Applies what it says to `state`; the file is `lengthOnDisk` long.
  void replay(ContentState& state, std::int64_t lengthOnDisk);

 private:
  void append(const std::string& line);

  const std::shared_ptr<ContentDirectory> directory_;
  const ContentNumber number_;
  std::shared_ptr<Descriptor> file_;  // once something was noted
  std::uint64_t noted_ = 0;
};

}  // namespace kestrune::host
