#include "host/content/ContentReads.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <utility>

#include "host/content/DiskThreads.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/tasks/Task.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSErrorPtr;
using platform::NSFileProviderError;
using platform::NSPOSIXError;

constexpr std::int64_t kEndOfAll = std::numeric_limits<std::int64_t>::max();
constexpr ByteRange kAll{0, kEndOfAll};
// The kernel reads ahead in several requests at once, which arrive in any order.
constexpr std::int64_t kDisorder = 2LL << 20;
// A store that has a new version after each fetch is not followed for ever.
constexpr int kMostRefusals = 3;

NSErrorPtr stale() {
  return NSPOSIXError(ESTALE, "read a version that is no longer there").share();
}

ByteRange aligned(ByteRange range) {
  constexpr std::int64_t unit = ContentFetch::kAlignment;
  const std::int64_t start = range.start / unit * unit;
  const std::int64_t end = std::min(range.end, start + ContentReads::kMostAsked);
  return {start, end > kEndOfAll - unit ? end : (end + unit - 1) / unit * unit};
}

}  // namespace

ContentReads::ContentReads(std::shared_ptr<const FileObjectServices> services, InodeNumber item,
                           std::shared_ptr<ContentFile> content)
    : services_(std::move(services)),
      item_(item),
      content_(std::move(content)),
      fetchesParts_(dynamic_cast<platform::NSFileProviderPartialContentFetching*>(
                        services_->extension.get()) != nullptr),
      toldBytes_(content_->sizeBytes()) {}

// Null where bytes are missing, or the kernel would cut them off at an old length.
Answer<LocalFilePtr> ContentReads::fileFor(ByteRange range) {
  if (announcing_ > 0) return LocalFilePtr();
  try {
    return content_->file(range);
  } catch (const platform::NSError& error) {
    return error.share();
  }
}

LocalFilePtr ContentReads::present(ByteRange range) {
  LocalFilePtr file;
  RunningPtr next;
  {
    MutexLock lock(mutex_);
    auto answer = fileFor(range);
    if (!answer.ok() || !answer.value()) return nullptr;
    file = std::move(answer.value());
    next = planAhead(range);
  }
  if (next) {
    boost::asio::post(platform::sharedExecutor(),
                      [self = shared_from_this(), next] { self->start(next); });
  }
  return file;
}

void ContentReads::read(ByteRange range, bool mayFetch, const Reply<LocalFilePtr>& reply) {
  if (LocalFilePtr file = present(range)) return reply(std::move(file));
  bool waits = false;
  {
    MutexLock lock(mutex_);
    waits = mayFetch || announcing_ > 0;
    if (waits) waiters_.push_back({range, false, reply});
  }
  if (!waits) return reply(NSPOSIXError(ENODATA, "read what is not here").share());
  settle();
}

void ContentReads::fill(Reply<Done> reply) {
  {
    MutexLock lock(mutex_);
    waiters_.push_back({kAll, true, [reply = std::move(reply)](const Answer<LocalFilePtr>& answer) {
                          if (answer.ok()) {
                            reply(Done());
                          } else {
                            reply(answer.error());
                          }
                        }});
  }
  settle();
}

bool ContentReads::isFilling() const {
  MutexLock lock(mutex_);
  return std::any_of(waiters_.begin(), waiters_.end(), [](const Waiter& w) { return w.fills; });
}

LocalFilePtr ContentReads::whole() {
  MutexLock lock(mutex_);
  const auto answer = fileFor(kAll);
  return answer.ok() ? answer.value() : nullptr;
}

void ContentReads::settle() {
  Settled settled;
  {
    MutexLock lock(mutex_);
    std::vector<Waiter> waiting;
    for (auto& waiter : waiters_) {
      if (!settle(waiter, settled)) waiting.push_back(std::move(waiter));
    }
    waiters_.swap(waiting);
  }
  for (const auto& fetch : settled.fetches) start(fetch);
  for (const auto& [reply, answer] : settled.answers) reply(answer);
}

// True if it waits no longer.
bool ContentReads::settle(const Waiter& waiter, Settled& settled) {
  if (announcing_ > 0) return false;
  auto answer = fileFor(waiter.range);
  if (answer.ok() && !answer.value()) {
    const bool hasNothing = content_->hasNothing();
    const ByteRange missing = hasNothing ? waiter.range : content_->firstMissing(waiter.range);
    if (isComing(missing.start)) return false;
    if (isAbandoned_) {
      answer = stale();
    } else if (!hasNothing && missing.isEmpty()) {
      answer = NSPOSIXError(EIO, "read bytes that neither this computer nor the store has").share();
    } else if (failureHolds()) {
      answer = failure_;
    } else {
      settled.fetches.push_back(plan(missing));
      return false;
    }
  }
  settled.answers.emplace_back(waiter.reply, std::move(answer));
  return true;
}

bool ContentReads::isComing(std::int64_t offset) const {
  return std::any_of(running_.begin(), running_.end(), [&](const RunningPtr& running) {
    if (running->isCancelled) return false;
    const ByteRange& asked = running->asked;
    return running->isWhole || (asked.start <= offset && offset - kExpectedAhead < asked.end);
  });
}

bool ContentReads::failureHolds() const {
  return failure_ && services_->timers->now() - failedAt_ < kFailureHolds;
}

ContentReads::RunningPtr ContentReads::plan(ByteRange missing) {
  auto running = std::make_shared<Running>();
  running->asked = aligned(missing);
  running_.push_back(running);
  return running;
}

// The next range for a reader who is in the last quarter of what is here in one piece. As much as that piece, so that
// requests grow with what is read in order.
ContentReads::RunningPtr ContentReads::planAhead(ByteRange read) {
  if (!goesOn(read) || isAbandoned_ || failureHolds()) return nullptr;
  const ByteRange here = content_->around(read.start);
  if (here.isEmpty() || read.end < here.end - here.length() / 4) return nullptr;
  const std::int64_t most = std::clamp(here.length(), ContentFetch::kAlignment, kMostAsked);
  if (here.end > kEndOfAll - most) return nullptr;
  const ByteRange next = content_->firstMissing({here.end, here.end + most});
  if (next.isEmpty() || next.start != here.end || isComing(next.start)) return nullptr;
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

void ContentReads::start(const RunningPtr& running) {
  services_->fetching(item_, +1);
  if (const NSErrorPtr error = chooseSource(running))
    return ended(running, isLostForGood(*error) ? nullptr : error);
  std::optional<ByteRange> asked;
  std::shared_ptr<ContentFetch> fetch;
  {
    MutexLock lock(mutex_);
    // Only now is it known how long the file is at the store.
    const std::int64_t size = running->source.sizeBytes;
    running->isWhole = !fetchesParts_ || (size <= kWholeFetchBytes && isUntouched());
    if (running->asked.start >= size) running->asked = {0, ContentFetch::kAlignment};
    if (!running->isWhole) {
      asked = ByteRange{running->asked.start, std::min(running->asked.end, size)};
    }
    running->fetch = std::make_shared<ContentFetch>(services_->extension, running->source);
    if (!running->isCancelled) fetch = running->fetch;
  }
  if (!fetch) return ended(running, platform::CancellationError().share());
  fetch->start(asked, [self = shared_from_this(), running](Answer<FetchedFile> answer) {
    boost::asio::post(diskExecutor(), [self, running, answer = std::move(answer)] {
      self->arrived(running, answer);
    });
  });
}

// What is fetched is of the version that the object has; one that has nothing takes what there is now.
NSErrorPtr ContentReads::chooseSource(const RunningPtr& running) {
  auto source = services_->source(item_);
  if (!source.ok()) return source.error();
  content_->startAnew(source.value());
  const std::string& version = source.value().version.contentVersion;
  if (content_->version() != version) return stale();
  MutexLock lock(mutex_);
  if (refused_ == version || timesRefused_ > kMostRefusals) {
    refused_.reset();  // later it is tried again
    timesRefused_ = 0;
    return stale();
  }
  running->source = std::move(source.value());
  return nullptr;
}

// The store does not have the item: of the version that was here in part nothing can be had any more. Who wants to send it gets
// what is here, which could not be sent for ever if the rest was waited for; others are told that bytes are missing.
bool ContentReads::isLostForGood(const platform::NSError& error) {
  const bool isGone = error.domain() == platform::kNSPOSIXErrorDomain && error.code() == ENOENT;
  if (!isGone || !isFilling() || !content_->giveUpMissing()) return false;
  services_->fetchFailed(item_, error);
  services_->changed(item_, content_->state());
  return true;
}

void ContentReads::arrived(const RunningPtr& running, Answer<FetchedFile> answer) {
  if (!answer.ok()) {
    const auto& error = *answer.error();
    if (error.domain() == platform::kNSFileProviderErrorDomain &&
        error.code() == NSFileProviderError::versionNoLongerAvailable) {
      refuse(running, nullptr);
    } else {
      ended(running, answer.error());
    }
  } else if (isOfOtherVersion(*running, answer.value())) {
    refuse(running, answer.value().item);
  } else {
    const auto length = answer.value().item->documentSize();
    const bool isOfOtherLength = running->isWhole && length && *length != running->source.sizeBytes;
    {
      MutexLock lock(mutex_);
      ++announcing_;
    }
    const NSErrorPtr error = take(running, answer.value());
    announceLength();
    // The listing that told the length is behind.
    if (isOfOtherLength) services_->versionGone(item_, nullptr);
    ended(running, error);
  }
}

bool ContentReads::isUntouched() const { return content_->hasNothing() && !content_->isEdited(); }

// What a whole fetch brings is one version in itself, and where nothing else is here it cannot be mixed with another. Its
// item may tell no more than what the extension knows at that moment: the local file's time, not the store's.
bool ContentReads::isOfOtherVersion(const Running& running, const FetchedFile& file) const {
  if (file.contentVersion() == running.source.version.contentVersion) return false;
  return !running.isWhole || !isUntouched();
}

NSErrorPtr ContentReads::take(const RunningPtr& running, const FetchedFile& file) {
  ByteRange asked;
  {
    MutexLock lock(mutex_);
    asked = running->asked;
  }
  const ByteRange missing = content_->firstMissing(asked);
  try {
    const ContentNumber fresh = content_->hasNothing() ? services_->newNumber() : 0;
    const std::string& version = running->source.version.contentVersion;
    if (!content_->take(*file.path, file.range, version, fresh)) return nullptr;
  } catch (const platform::NSError& error) {
    return error.share();
  }
  services_->changed(item_, content_->state());
  MutexLock lock(mutex_);
  refused_.reset();
  timesRefused_ = 0;
  failure_ = nullptr;
  const bool broughtNothing = !missing.isEmpty() && content_->firstMissing(asked) == missing;
  if (broughtNothing && !content_->hasNothing())
    return NSPOSIXError(EIO, "use fetched bytes that are not those asked for").share();
  return nullptr;
}

// It is thrown away. An object that has something ends here; one that has nothing starts anew.
void ContentReads::refuse(const RunningPtr& running, const platform::NSFileProviderItemPtr& now) {
  const bool hasNothing = content_->hasNothing();
  {
    MutexLock lock(mutex_);
    refused_ = running->source.version.contentVersion;
    ++timesRefused_;
  }
  services_->versionGone(item_, now);
  ended(running, hasNothing ? nullptr : stale());
}

// Ends what `arrived` began before the bytes could be seen: a reader who got them before the kernel knows the length would
// be cut off at the old one.
void ContentReads::announceLength() {
  const std::int64_t size = content_->sizeBytes();
  {
    MutexLock lock(mutex_);
    if (content_->hasNothing() || content_->isEdited() || size == toldBytes_) {
      --announcing_;
      return;
    }
    toldBytes_ = size;
  }
  services_->resized(item_, size, [self = shared_from_this()] {
    {
      MutexLock lock(self->mutex_);
      --self->announcing_;
    }
    self->settle();
  });
}

void ContentReads::ended(const RunningPtr& running, const NSErrorPtr& error) {
  bool failed = false;
  {
    MutexLock lock(mutex_);
    std::erase(running_, running);
    failed = error && !running->isCancelled;
    if (failed) {
      failure_ = error;
      failedAt_ = services_->timers->now();
    }
  }
  if (failed) services_->fetchFailed(item_, *error);
  settle();
  services_->fetching(item_, -1);
}

void ContentReads::lastClosed() {
  std::vector<Reply<LocalFilePtr>> gone;
  std::vector<std::shared_ptr<ContentFetch>> unwanted;
  {
    MutexLock lock(mutex_);
    std::erase_if(waiters_, [&](Waiter& waiter) {
      if (!waiter.fills) gone.push_back(std::move(waiter.reply));
      return !waiter.fills;
    });
    if (waiters_.empty()) {
      for (const auto& running : running_) {
        if (!std::exchange(running->isCancelled, true) && running->fetch)
          unwanted.push_back(running->fetch);
      }
    }
  }
  for (const auto& fetch : unwanted) fetch->cancel();
  // Interrupted long ago, all of them: who still waits has the file open.
  for (const auto& reply : gone) reply(platform::CancellationError().share());
}

void ContentReads::abandon() {
  MutexLock lock(mutex_);
  isAbandoned_ = true;
}

}  // namespace kestrune::host
