#include "host/content/ContentFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>
#include <vector>

#include "host/content/ContentRecovery.h"
#include "host/content/FileCopy.h"
#include "platform/values/NSError.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSPOSIXError;

constexpr std::int64_t kEndOfAll = std::numeric_limits<std::int64_t>::max();
LocalFilePtr emptyFile() {
  const int number = ::memfd_create("empty", MFD_CLOEXEC);
  if (number < 0) throw NSPOSIXError(errno, "make an empty file");
  return std::make_shared<LocalFile>(number, 0);
}

LocalFilePtr sharing(const LocalFile& file, std::int64_t sizeBytes) {
  const int number = ::fcntl(file.descriptor(), F_DUPFD_CLOEXEC, 0);
  if (number < 0) throw NSPOSIXError(errno, "share an open file");
  return std::make_shared<LocalFile>(number, sizeBytes);
}

}  // namespace

ContentFile::ContentFile(std::shared_ptr<ContentDirectory> directory, ContentState state)
    : directory_(std::move(directory)), state_(recoveredState(directory_, std::move(state))) {
  if (state_.number != 0) log_ = std::make_unique<RangeLog>(directory_, state_.number);
}

ContentState ContentFile::state() const {
  MutexLock lock(mutex_);
  return state_;
}

std::int64_t ContentFile::sizeBytes() const {
  MutexLock lock(mutex_);
  return state_.sizeBytes;
}

std::string ContentFile::version() const {
  MutexLock lock(mutex_);
  return state_.version;
}

bool ContentFile::hasNothing() const {
  MutexLock lock(mutex_);
  return state_.number == 0 && !state_.isEdited;
}

bool ContentFile::isEdited() const {
  MutexLock lock(mutex_);
  return state_.isEdited;
}

ContentNumber ContentFile::number() const {
  MutexLock lock(mutex_);
  return state_.number;
}

std::int64_t ContentFile::storedBytes() const {
  MutexLock lock(mutex_);
  if (state_.number == 0) return 0;
  if (stored_ < 0) {
    const LocalFilePtr file = file_ ? file_ : directory_->open(state_.number);
    struct stat status = {};
    if (!file || ::fstat(file->descriptor(), &status) != 0) return 0;
    stored_ = static_cast<std::int64_t>(status.st_blocks) * 512;  // whatever the block size
  }
  return stored_;
}

ByteRange ContentFile::firstMissing(ByteRange range) const {
  MutexLock lock(mutex_);
  return state_.present.firstMissing(range.clipped(state_.fetchableBytes));
}

ByteRange ContentFile::around(std::int64_t offset) const {
  MutexLock lock(mutex_);
  return state_.present.around(offset);
}

LocalFilePtr ContentFile::file(ByteRange range) {
  MutexLock lock(mutex_);
  if (state_.number == 0 && state_.isEdited) return emptyFile();  // made here, nothing written yet
  if (state_.number == 0 || !state_.present.contains(range.clipped(state_.sizeBytes)))
    return nullptr;
  LocalFilePtr file = openLocked();
  if (!file) return nullptr;
  if (file->sizeBytes() == state_.sizeBytes) return file;
  if (!isOpen_) return sharing(*file, state_.sizeBytes);
  if (!shown_ || shown_->sizeBytes() != state_.sizeBytes) shown_ = sharing(*file, state_.sizeBytes);
  return shown_;
}

// Null if somebody removed an unchanged file: it is not here then, and can be fetched again.
LocalFilePtr ContentFile::openLocked() {
  if (file_) return file_;
  LocalFilePtr file = directory_->open(state_.number);
  // A changed file may be growing at this moment.
  if (!file || (!state_.isEdited && file->sizeBytes() != state_.sizeBytes)) {
    if (state_.isEdited) throw NSPOSIXError(EIO, "find the changed contents of a file");
    state_.number = 0;
    state_.present = {};
    stored_ = -1;
    return nullptr;
  }
  if (isOpen_) file_ = file;
  return file;
}

void ContentFile::setOpen(bool isOpen) {
  LocalFilePtr closing;
  LocalFilePtr closingToo;
  MutexLock lock(mutex_);
  isOpen_ = isOpen;
  if (isOpen) return;
  closing.swap(file_);
  closingToo.swap(shown_);
}

bool ContentFile::startAnew(const ContentSource& source) {
  MutexLock lock(mutex_);
  if (state_.number != 0 || state_.isEdited) return false;
  const std::int64_t size = std::max<std::int64_t>(0, source.sizeBytes);
  const bool isOther = size != state_.sizeBytes;
  state_.version = source.version.contentVersion;
  state_.sizeBytes = size;
  state_.fetchableBytes = size;
  return isOther;
}

LocalFilePtr ContentFile::fileToChange() {
  MutexLock lock(mutex_);
  LocalFilePtr file = openLocked();
  if (!file) throw NSPOSIXError(EIO, "find the contents of a file");
  return file;
}

// Before the state says that the bytes are here: what it says is then true after a crash, too.
void ContentFile::noteIfUnknown(ByteRange range) {
  {
    MutexLock lock(mutex_);
    if (!state_.isEdited && !editIsPrepared_) return;
    range = range.clipped(state_.fetchableBytes);
    if (state_.present.contains(range)) return;
  }
  log_->noteHere(range);
}

ContentFile::Changed ContentFile::nowHere(ByteRange range, std::int64_t size) {
  MutexLock lock(mutex_);
  Changed changed;
  changed.state = size > state_.sizeBytes || !state_.present.contains(range);
  if (changed.state) state_.present.add(range);
  state_.sizeBytes = std::max(state_.sizeBytes, size);
  stored_ = -1;
  return changed;
}

void ContentFile::makeFile(ContentNumber fresh) {
  std::int64_t size = 0;
  {
    MutexLock lock(mutex_);
    if (state_.number != 0) return;
    size = state_.sizeBytes;
  }
  if (fresh == 0) throw NSPOSIXError(EBUSY, "change contents that were just evicted");
  const LocalFilePtr file = directory_->create(fresh);
  if (::ftruncate(file->descriptor(), size) != 0) {
    const int error = errno;
    directory_->remove(fresh);
    throw NSPOSIXError(error, "size a file's contents");
  }
  log_ = std::make_unique<RangeLog>(directory_, fresh);
  MutexLock lock(mutex_);
  state_.number = fresh;
  stored_ = -1;
  if (isOpen_) file_ = file;
}

ContentState ContentFile::prepareEdit(ContentNumber fresh) {
  MutexLock changing(changing_);
  const bool isNew = number() == 0;
  makeFile(fresh);
  editIsPrepared_ = true;
  madeForEdit_ = isNew;
  notedAtPrepare_ = log_->noted();
  MutexLock lock(mutex_);
  ContentState committed = state_;
  committed.isEdited = true;
  ++committed.edits;
  return committed;
}

void ContentFile::confirmEdit() {
  MutexLock changing(changing_);
  editIsPrepared_ = false;
  {
    MutexLock lock(mutex_);
    state_.isEdited = true;
    ++state_.edits;
    editMayGoOn_ = true;
  }
  // All that the log says is committed now, unless something came meanwhile.
  if (log_->noted() == notedAtPrepare_) log_->clear();
}

void ContentFile::remembered(std::uint64_t edits) {
  MutexLock changing(changing_);
  MutexLock lock(mutex_);
  const bool isThis = state_.number != 0 && state_.isEdited && state_.edits == edits;
  if (isThis && snapshotEdits_ < edits) editMayGoOn_ = true;
}

void ContentFile::cancelEdit() {
  ContentNumber unused = 0;
  {
    MutexLock changing(changing_);
    editIsPrepared_ = false;
    MutexLock lock(mutex_);
    // It was told to others, who would take a later one of its number for the same.
    ++state_.edits;
    if (!madeForEdit_ || !state_.present.isEmpty() || state_.isEdited) return;
    unused = state_.number;
    state_.number = 0;
    file_.reset();
    shown_.reset();
  }
  directory_->remove(unused);
}

// Not noted in the log: until the database knows, a crash finds the holes as they were, and they are given up again.
bool ContentFile::giveUpMissing() {
  MutexLock changing(changing_);
  MutexLock lock(mutex_);
  if (state_.number == 0 || isDiscarded_ || state_.isWhole()) return false;
  state_.fetchableBytes = 0;
  state_.present.add({0, state_.sizeBytes});
  return true;
}

bool ContentFile::mayChange() const {
  MutexLock lock(mutex_);
  return editMayGoOn_;
}

bool ContentFile::isShared() const {
  MutexLock lock(mutex_);
  return !otherNames_.empty();
}

std::optional<ContentFile::Changed> ContentFile::tryChange(const ContentChange& change) {
  MutexLock changing(changing_);
  {
    MutexLock lock(mutex_);
    if (!editMayGoOn_ || !otherNames_.empty()) return std::nullopt;
  }
  return apply(change);
}

std::optional<ContentFile::Changed> ContentFile::change(const ContentChange& change) {
  MutexLock changing(changing_);
  if (!mayChange()) return std::nullopt;
  if (isShared()) unshare();
  return apply(change);
}

void ContentFile::unshare() {
  const LocalFilePtr shared = fileToChange();
  const LocalFilePtr own = directory_->replaceWithCopy(number(), *shared, sizeBytes());
  MutexLock lock(mutex_);
  otherNames_.clear();
  stored_ = -1;
  shown_.reset();
  if (file_) file_ = own;
}

ContentFile::Changed ContentFile::apply(const ContentChange& change) {
  const LocalFilePtr file = fileToChange();
  switch (change.kind) {
    case ContentChange::Kind::write:
      return write(file->descriptor(), change);
    case ContentChange::Kind::resize:
      return resize(file->descriptor(), change.offset);
    case ContentChange::Kind::reserve:
    case ContentChange::Kind::reserveKeepingSize:
      return reserve(file->descriptor(), change);
  }
  return {};
}

ContentFile::Changed ContentFile::write(int file, const ContentChange& change) {
  if (change.bytes.empty()) return {};
  const auto length = static_cast<std::int64_t>(change.bytes.size());
  if (change.offset > kEndOfAll - length) throw NSPOSIXError(EFBIG, "write a file's contents");
  const std::int64_t before = sizeBytes();
  const std::int64_t end = change.offset + length;
  // Between the end and a write beyond it there are zeros.
  const ByteRange here{std::min(change.offset, before), end};
  try {
    writeBytes(file, change.offset, change.bytes);
    noteIfUnknown({change.offset, end});
  } catch (const NSPOSIXError&) {
    // Part of it may have made the file longer than it counts.
    if (end > before && ::ftruncate(file, before) != 0)
      throw NSPOSIXError(errno, "take back a part of a write");
    throw;
  }
  return nowHere(change.offset > before ? here : ByteRange{change.offset, end}, end);
}

ContentFile::Changed ContentFile::resize(int file, std::int64_t size) {
  const std::int64_t before = sizeBytes();
  if (size < 0) throw NSPOSIXError(EINVAL, "resize a file's contents");
  const bool loses = size < state().fetchableBytes;
  if (loses) log_->noteCutting(size);
  if (::ftruncate(file, size) != 0) throw NSPOSIXError(errno, "resize a file's contents");
  if (size >= before) return nowHere({before, size}, size);
  {
    MutexLock lock(mutex_);
    state_.sizeBytes = size;
    state_.present.remove({size, kEndOfAll});
    state_.fetchableBytes = std::min(state_.fetchableBytes, size);
    stored_ = -1;
  }
  if (loses) log_->noteCut(size);
  return {true};
}

ContentFile::Changed ContentFile::reserve(int file, const ContentChange& change) {
  const bool keeps = change.kind == ContentChange::Kind::reserveKeepingSize;
  const std::int64_t before = sizeBytes();
  if (change.length <= 0 || change.offset > kEndOfAll - change.length)
    throw NSPOSIXError(EINVAL, "reserve room for a file's contents");
  if (::fallocate(file, keeps ? FALLOC_FL_KEEP_SIZE : 0, change.offset, change.length) != 0) {
    const int error = errno;
    if (!keeps && ::ftruncate(file, before) != 0)
      throw NSPOSIXError(errno, "take back a part of a reservation");
    throw NSPOSIXError(error, "reserve room for a file's contents");
  }
  const std::int64_t end = change.offset + change.length;
  const bool grows = !keeps && end > before;
  return nowHere(grows ? ByteRange{before, end} : ByteRange{}, grows ? end : 0);
}

ContentSnapshot ContentFile::snapshot(ContentNumber fresh) {
  MutexLock changing(changing_);
  const ContentState now = state();
  if (!now.isWhole()) throw NSPOSIXError(ENODATA, "take a snapshot of what is not whole");
  makeFile(fresh);
  const LocalFilePtr file = fileToChange();
  const auto outgoing = directory_->makeOutgoing(number(), *file);
  MutexLock lock(mutex_);
  if (outgoing.shared) otherNames_.insert(outgoing.path);
  editMayGoOn_ = false;
  snapshotEdits_ = now.edits;
  return {outgoing.path, now.sizeBytes, now.edits};
}

void ContentFile::giveBack(const ContentSnapshot& snapshot) {
  MutexLock changing(changing_);
  directory_->removeOutgoing(snapshot.path);
  MutexLock lock(mutex_);
  otherNames_.erase(snapshot.path);
}

void ContentFile::sent(std::uint64_t edits, const std::string& version) {
  MutexLock changing(changing_);
  MutexLock lock(mutex_);
  // Told by several threads, in any order: of what is as the store has it, nothing but its last edits is news.
  if (!state_.isEdited && state_.edits != edits) return;
  state_.version = version;
  if (state_.edits != edits) return;
  state_.isEdited = false;
  state_.fetchableBytes = state_.sizeBytes;
  editMayGoOn_ = false;
}

void ContentFile::flush() {
  LocalFilePtr file;
  {
    MutexLock lock(mutex_);
    if (state_.number != 0) file = openLocked();
  }
  if (!file) return;
  if (::fdatasync(file->descriptor()) != 0)
    throw NSPOSIXError(errno, "bring a file's contents to the disk");
  MutexLock changing(changing_);
  if (log_) log_->flush();
}

void ContentFile::evict() {
  ContentNumber evicted = 0;
  {
    MutexLock changing(changing_);
    MutexLock lock(mutex_);
    if (isOpen_ || state_.isEdited || editIsPrepared_)
      throw NSPOSIXError(EBUSY, "evict contents that are in use");
    evicted = std::exchange(state_.number, 0);
    state_.present = {};
    otherNames_.clear();
    editMayGoOn_ = false;
    stored_ = -1;
  }
  if (evicted != 0) directory_->remove(evicted);
}

void ContentFile::discard() noexcept {
  ContentNumber discarded = 0;
  {
    MutexLock lock(mutex_);
    isDiscarded_ = true;
    discarded = state_.number;
  }
  if (discarded != 0) directory_->remove(discarded);
}

}  // namespace kestrune::host
