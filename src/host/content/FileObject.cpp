#include "host/content/FileObject.h"

#include <boost/asio/post.hpp>
#include <cerrno>
#include <limits>
#include <utility>

#include "host/content/DiskThreads.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSPOSIXError;

ByteRange rangeOf(std::int64_t offset, std::size_t length) {
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
  const auto room = static_cast<std::uint64_t>(most - offset);
  return {offset, length < room ? offset + static_cast<std::int64_t>(length) : most};
}

}  // namespace

FileObject::FileObject(std::shared_ptr<const FileObjectServices> services, InodeNumber item,
                       ContentState state)
    : services_(std::move(services)),
      item_(item),
      content_(std::make_shared<ContentFile>(services_->directory, std::move(state))),
      reads_(std::make_shared<ContentReads>(services_, item, content_)),
      changes_(std::make_shared<ContentChanges>(services_, item, content_)) {}

FileObject::~FileObject() {
  MutexLock lock(mutex_);
  if (mayGo_) content_->discard();
}

ContentState FileObject::state() const { return content_->state(); }
std::int64_t FileObject::sizeBytes() const { return content_->sizeBytes(); }
std::int64_t FileObject::storedBytes() const { return content_->storedBytes(); }

void FileObject::opened(bool forWriting) {
  MutexLock lock(mutex_);
  ++openCount_;
  if (forWriting) ++writerCount_;
  content_->setOpen(true);
}

void FileObject::closed(bool forWriting) {
  bool isLast = false;
  bool goes = false;
  {
    MutexLock lock(mutex_);
    if (forWriting) --writerCount_;
    isLast = --openCount_ == 0;
    goes = mayGo_;
    if (isLast) content_->setOpen(false);
  }
  if (isLast) reads_->lastClosed();
  if (isLast && goes) content_->discard();
  if (forWriting) changes_->tell();
}

bool FileObject::isOpen() const {
  MutexLock lock(mutex_);
  return openCount_ > 0;
}

bool FileObject::isOpenForWriting() const {
  MutexLock lock(mutex_);
  return writerCount_ > 0;
}

LocalFilePtr FileObject::present(std::int64_t offset, std::size_t length) {
  return isOpen() ? reads_->present(rangeOf(offset, length)) : nullptr;
}

void FileObject::read(std::int64_t offset, std::size_t length, bool mayFetch,
                      const Reply<LocalFilePtr>& reply) {
  reads_->read(rangeOf(offset, length), mayFetch, reply);
}

LocalFilePtr FileObject::whole() const {
  if (isOpenForWriting() || !changes_->isIdle() || content_->number() == 0) return nullptr;
  return reads_->whole();
}

void FileObject::write(std::int64_t offset, std::span<const std::byte> bytes,
                       const Reply<Done>& reply) {
  changes_->add({.kind = ContentChange::Kind::write, .offset = offset, .bytes = bytes}, reply);
}

void FileObject::resize(std::int64_t sizeBytes, const Reply<Done>& reply) {
  changes_->add({.kind = ContentChange::Kind::resize, .offset = sizeBytes}, reply);
}

void FileObject::reserve(std::int64_t offset, std::int64_t length, bool keepsSize,
                         const Reply<Done>& reply) {
  const auto kind =
      keepsSize ? ContentChange::Kind::reserveKeepingSize : ContentChange::Kind::reserve;
  changes_->add({.kind = kind, .offset = offset, .length = length}, reply);
}

void FileObject::flushToDisk(Reply<Done> reply) {
  boost::asio::post(diskExecutor(),
                    [content = content_, changes = changes_, reply = std::move(reply)] {
                      Answer<Done> answer = Done();
                      try {
                        content->flush();
                      } catch (const platform::NSError& error) {
                        answer = error.share();
                      }
                      changes->tell();
                      reply(std::move(answer));
                    });
}

void FileObject::fill(Reply<Done> reply) { reads_->fill(std::move(reply)); }

Answer<FileObject::Snapshot> FileObject::snapshot() {
  if (isOpenForWriting())
    return NSPOSIXError(EBUSY, "take a snapshot of a file that is open for writing").share();
  if (!changes_->isIdle())
    return NSPOSIXError(EAGAIN, "take a snapshot while a change is begun").share();
  try {
    return content_->snapshot(content_->number() == 0 ? services_->newNumber() : 0);
  } catch (const platform::NSError& error) {
    return error.share();
  }
}

void FileObject::giveBack(const Snapshot& snapshot) { content_->giveBack(snapshot); }

void FileObject::sent(std::uint64_t edits, const std::string& version) {
  content_->sent(edits, version);
  services_->changed(item_, content_->state());
}

void FileObject::evict() {
  if (reads_->isFilling()) throw NSPOSIXError(EBUSY, "evict contents that are being fetched");
  content_->evict();
  services_->changed(item_, content_->state());
}

void FileObject::abandon() {
  reads_->abandon();
  changes_->abandon();
}

void FileObject::mayGo() {
  {
    MutexLock lock(mutex_);
    mayGo_ = true;
    if (openCount_ > 0) return;
  }
  content_->discard();
}

}  // namespace kestrune::host
