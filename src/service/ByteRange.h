// The Range header of a download (RFC 9110, section 14), for single ranges of bytes.
//
// Threads: pure functions.
#pragma once

#include <cstdint>
#include <string_view>

namespace kestrune::service {

/// What to answer: the whole, a part [offset, offset + length), or 416.
struct ByteRange {
  enum class Answer { whole, partial, unsatisfiable };
  Answer answer = Answer::whole;
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
};

/// The range that `header` asks of a file of `sizeBytes` bytes. Absent (empty), malformed, of
/// another unit, or several ranges at once: the whole, as the RFC permits. Nothing of the range
/// inside the file: unsatisfiable. An end beyond the file is cut, numbers of any length are
/// understood.
ByteRange parseByteRange(std::string_view header, std::uint64_t sizeBytes);

}  // namespace kestrune::service
