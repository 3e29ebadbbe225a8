#include "transfer/PieceQueue.h"

#include <cassert>
#include <utility>

namespace kestrune {

using platform::ByteBuffer;

namespace {

// A piece that is smaller is copied to the one before: a system call takes few pieces at a time.
constexpr std::size_t kJoinedBytes = 64U << 10U;

}  // namespace

void PieceQueue::push(ByteBuffer piece) {
  size_ += piece.size();
  const bool joins =
      !pieces_.empty() && (pieces_.back().size() < kJoinedBytes || piece.size() < kJoinedBytes);
  if (joins) {
    pieces_.back().append(piece);
    keepUsed(std::move(piece));
  } else if (!piece.empty()) {
    pieces_.push_back(std::move(piece));
  }
}

std::vector<std::string_view> PieceQueue::front(std::size_t count) const {
  assert(count <= size_);
  std::vector<std::string_view> views;
  std::size_t skipped = gone_;
  for (const ByteBuffer& piece : pieces_) {
    if (count == 0) break;
    const auto view = piece.bytes().substr(skipped, count);
    skipped = 0;
    count -= view.size();
    views.push_back(view);
  }
  return views;
}

void PieceQueue::drop(std::size_t count) {
  assert(count <= size_);
  size_ -= count;
  gone_ += count;
  while (!pieces_.empty() && gone_ >= pieces_.front().size()) {
    gone_ -= pieces_.front().size();
    keepUsed(std::move(pieces_.front()));
    pieces_.pop_front();
  }
}

void PieceQueue::clear() { drop(size_); }

ByteBuffer PieceQueue::takeUsed() { return std::exchange(used_, {}); }

void PieceQueue::keepUsed(ByteBuffer piece) {
  piece.clear();
  if (piece.capacity() > used_.capacity()) used_ = std::move(piece);
}

}  // namespace kestrune
