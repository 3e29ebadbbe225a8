// Bytes that arrive in pieces of any size and leave in amounts of another, without being copied:
// pieces are kept as they came, only small ones are joined. Their memory can be used again.
//
// Threads: belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <deque>
#include <string_view>
#include <vector>

#include "platform/values/ByteBuffer.h"

namespace kestrune {

class PieceQueue {
 public:
  std::size_t size() const { return size_; }

  void push(platform::ByteBuffer piece);
  /// The first `count` bytes, in order; valid until the next change. REQUIRES: there are so many.
  std::vector<std::string_view> front(std::size_t count) const;
  /// Forgets the first `count` bytes. REQUIRES: there are so many.
  void drop(std::size_t count);
  void clear();

  /// The memory of a piece that has gone, without contents; empty if none has since the last call.
  platform::ByteBuffer takeUsed();

 private:
  void keepUsed(platform::ByteBuffer piece);

  std::deque<platform::ByteBuffer> pieces_;
  std::size_t gone_ = 0;  // bytes of the first piece
  std::size_t size_ = 0;
  platform::ByteBuffer used_;
};

}  // namespace kestrune
