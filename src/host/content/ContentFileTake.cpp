// What was fetched, taken into the file.
#include <algorithm>
#include <utility>
#include <vector>

#include "host/content/ContentFile.h"
#include "host/content/FileCopy.h"
#include "platform/values/NSError.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSPOSIXError;

// What is copied in before a write may come in between.
constexpr std::int64_t kPieceBytes = 4LL << 20;

}  // namespace

void ContentFile::checkLength(std::int64_t length, ByteRange range) const {
  MutexLock lock(mutex_);
  const bool isFresh = state_.number == 0 && !state_.isEdited;
  const bool reaches = range.start >= 0 && range.end <= length;
  // How long the store's version is, is known of an unchanged file only.
  const bool fits =
      isFresh || (state_.isEdited ? length >= state_.fetchableBytes : length == state_.sizeBytes);
  if (!reaches || !fits) {
    throw NSPOSIXError(EIO, "use a fetched file of " + std::to_string(length) +
                                " bytes, which is not as long as it should be");
  }
}

bool ContentFile::take(const std::filesystem::path& path, std::optional<ByteRange> range,
                       const std::string& version, ContentNumber fresh) {
  {
    MutexLock changing(changing_);
    if (hasNothing()) return fresh != 0 && takeWhole(path, range, version, fresh);
  }
  const LocalFilePtr source = directory_->takeUnnamed(path);
  const ByteRange all = range.value_or(ByteRange{0, source->sizeBytes()});
  checkLength(source->sizeBytes(), all);
  for (std::int64_t start = all.start; start < all.end; start += kPieceBytes) {
    const ByteRange piece{start, std::min(all.end, start + kPieceBytes)};
    const auto put = [&](int file, ByteRange part) { copyBytes(source->descriptor(), file, part); };
    if (!takePiece(piece, version, 0, put)) return false;
  }
  return true;
}

bool ContentFile::takeAlone(const std::filesystem::path& path, std::optional<ByteRange> range,
                            const std::string& version, ContentNumber fresh) {
  MutexLock changing(changing_);
  if (!hasNothing() || isEdited() || fresh == 0) {
    directory_->takeUnnamed(path);  // nobody wants it
    return false;
  }
  return takeWhole(path, range, version, fresh);
}

bool ContentFile::take(std::int64_t offset, std::span<const std::byte> bytes,
                       const std::string& version, ContentNumber fresh) {
  const ByteRange piece{offset, offset + static_cast<std::int64_t>(bytes.size())};
  return takePiece(piece, version, fresh, [&](int file, ByteRange part) {
    const auto skipped = static_cast<std::size_t>(part.start - offset);
    writeBytes(file, part.start, bytes.subspan(skipped, static_cast<std::size_t>(part.length())));
  });
}

bool ContentFile::takeWhole(const std::filesystem::path& path, std::optional<ByteRange> range,
                            const std::string& version, ContentNumber fresh) {
  {
    MutexLock lock(mutex_);
    if (isDiscarded_ || state_.version != version) return false;
  }
  const LocalFilePtr file = directory_->takeOver(path, fresh);
  const ByteRange here = range.value_or(ByteRange{0, file->sizeBytes()});
  try {
    checkLength(file->sizeBytes(), here);
  } catch (const NSPOSIXError&) {
    directory_->remove(fresh);
    throw;
  }
  log_ = std::make_unique<RangeLog>(directory_, fresh);
  MutexLock lock(mutex_);
  state_.number = fresh;
  state_.sizeBytes = file->sizeBytes();
  state_.fetchableBytes = file->sizeBytes();
  state_.present = {};
  state_.present.add(here);
  stored_ = -1;
  if (isOpen_) file_ = file;
  if (isDiscarded_) directory_->remove(fresh);
  return true;
}

// `fresh` is 0 where no file is to be made.
bool ContentFile::takePiece(ByteRange piece, const std::string& version, ContentNumber fresh,
                            const Putter& put) {
  MutexLock changing(changing_);
  std::vector<ByteRange> missing;
  {
    MutexLock lock(mutex_);
    const bool hasPlace = state_.number != 0 || (fresh != 0 && !state_.isEdited);
    if (isDiscarded_ || !hasPlace || state_.version != version) return false;
    missing = state_.present.missing(piece.clipped(state_.fetchableBytes));
  }
  if (missing.empty()) return true;
  makeFile(fresh);
  {
    MutexLock lock(mutex_);
    if (isDiscarded_) directory_->remove(state_.number);  // since it was asked above
  }
  const LocalFilePtr file = fileToChange();
  for (const auto& range : missing) {
    put(file->descriptor(), range);
    noteIfUnknown(range);
    nowHere(range, 0);
  }
  return true;
}

}  // namespace kestrune::host
