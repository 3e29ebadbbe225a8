// What is fetched next: for whom, how much, and what comes already.
#include <algorithm>
#include <cstdlib>
#include <limits>

#include "host/content/ContentReads.h"

namespace kestrune::host {

namespace {

constexpr std::int64_t kEndOfAll = std::numeric_limits<std::int64_t>::max();
// The kernel reads ahead in several requests at once, which arrive in any order.
constexpr std::int64_t kDisorder = 2LL << 20;
// Of a piece that is longer, the last quarter of so much counts: that is as much as is asked for at once, twice.
constexpr std::int64_t kLongestPiece = 2 * ContentReads::kMostAsked;

ByteRange aligned(ByteRange range, std::int64_t unit) {
  const std::int64_t start = range.start / unit * unit;
  const std::int64_t end = std::min(range.end, start + ContentReads::kMostAsked);
  return {start, end > kEndOfAll - unit ? end : (end + unit - 1) / unit * unit};
}

}  // namespace

// What a fetch brings beyond what it was asked for. Of a small file it may turn out to be all.
std::int64_t ContentReads::expectedAhead() const {
  return streams() && content_->sizeBytes() > kWholeFetchBytes ? 0 : kExpectedAhead;
}

// The fetch that brings the byte; null if there is none.
ContentReads::RunningPtr ContentReads::coming(std::int64_t offset) const {
  const std::int64_t ahead = expectedAhead();
  for (const auto& running : running_) {
    const std::int64_t start = std::max(running->asked.start, running->reached);
    const bool brings =
        running->isWhole || (start <= offset && offset - ahead < running->asked.end);
    if (!running->isCancelled && brings) return running;
  }
  return nullptr;
}

// Whether a byte that is missed is awaited from a fetch that runs. A stream that would reach it much later does not go on to
// it.
bool ContentReads::waitsFor(std::int64_t offset) {
  const RunningPtr running = coming(offset);
  if (!running) return false;
  if (running->isWhole || expectedAhead() > 0) return true;
  const std::int64_t reached = std::max(running->asked.start, running->reached);
  if (offset - reached <= kStreamPatience) return true;
  running->asked.end = offset / kStreamUnit * kStreamUnit;
  return false;
}

ContentReads::RunningPtr ContentReads::plan(ByteRange missing) {
  auto running = std::make_shared<Running>();
  running->asked = streams() ? exactly(missing) : aligned(missing, ContentFetch::kAlignment);
  running_.push_back(running);
  return running;
}

// What a stream is asked for: whole units, but no byte that is here or that another one brings.
ByteRange ContentReads::exactly(ByteRange missing) const {
  ByteRange range = aligned(missing, kStreamUnit);
  for (const auto& running : running_) {
    if (!running->isCancelled && running->asked.start > missing.start)
      range.end = std::min(range.end, running->asked.start);
  }
  if (content_->hasNothing()) return range;
  ByteRange stretch = content_->firstMissing(range);
  while (!stretch.isEmpty() && stretch.end <= missing.start)
    stretch = content_->firstMissing({stretch.end, range.end});
  return stretch.isEmpty() ? range : stretch;
}

// For a reader who came to bytes that nothing brings yet: as much more as was read in order before.
ContentReads::RunningPtr ContentReads::planFor(const Waiter& waiter, ByteRange missing) {
  if (streams() && waiter.inOrder) {
    const ByteRange before = content_->around(missing.start - 1);
    const std::int64_t most = std::clamp(before.length(), ContentFetch::kAlignment, kMostAsked);
    if (missing.start < kEndOfAll - most) missing.end = std::max(missing.end, missing.start + most);
  }
  return plan(missing);
}

// Where what comes, or is here, in one piece from `offset` on ends.
std::int64_t ContentReads::endOfComing(std::int64_t offset) const {
  for (;;) {
    const ByteRange here = content_->around(offset);
    const RunningPtr running = here.isEmpty() ? coming(offset) : nullptr;
    const std::int64_t end = running ? running->asked.end : here.end;
    if (running && running->isWhole) return kEndOfAll;
    if (end <= offset) return offset;
    offset = end;
  }
}

// What is here, or comes, in one piece around a byte; empty if it neither is nor does.
ByteRange ContentReads::known(std::int64_t offset) const {
  ByteRange piece = content_->around(offset);
  if (!streams()) return piece;
  if (const RunningPtr running = piece.isEmpty() ? coming(offset) : nullptr) {
    const std::int64_t reached = std::max(running->asked.start, running->reached);
    const ByteRange before = content_->around(reached - 1);
    piece = {before.isEmpty() ? reached : before.start, offset + 1};
  }
  if (!piece.isEmpty()) piece.end = endOfComing(piece.end);
  return piece;
}

// The next range for a reader in order who is in the last quarter of what is known. As much as that piece, so that requests
// grow with what is read in order.
ContentReads::RunningPtr ContentReads::planAhead(ByteRange read) {
  if (isAbandoned_ || failureHolds()) return nullptr;
  const ByteRange piece = known(read.start);
  const std::int64_t lead = std::min(piece.length(), kLongestPiece) / 4;
  if (piece.isEmpty() || read.end < piece.end - lead) return nullptr;
  const std::int64_t most = std::clamp(piece.length(), ContentFetch::kAlignment, kMostAsked);
  if (piece.end > kEndOfAll - most) return nullptr;
  const ByteRange next = content_->firstMissing({piece.end, piece.end + most});
  if (next.isEmpty() || next.start != piece.end || coming(next.start)) return nullptr;
  return plan(next);
}

bool ContentReads::goesOn(ByteRange read) {
  for (auto& end : readEnds_) {
    if (end < 0 || std::abs(read.start - end) > kDisorder) continue;
    end = read.end;
    return true;
  }
  readEnds_[nextReader_++ % readEnds_.size()] = read.end;
  return false;
}

}  // namespace kestrune::host
