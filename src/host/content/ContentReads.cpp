#include "host/content/ContentReads.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <limits>
#include <utility>

#include "host/content/DiskThreads.h"
#include "platform/tasks/Task.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSErrorPtr;
using platform::NSPOSIXError;

constexpr std::int64_t kEndOfAll = std::numeric_limits<std::int64_t>::max();
constexpr ByteRange kAll{0, kEndOfAll};
// A store that has a new version after each fetch is not followed for ever.
constexpr int kMostRefusals = 3;

NSErrorPtr stale() {
  return NSPOSIXError(ESTALE, "read a version that is no longer there").share();
}

}  // namespace

ContentReads::ContentReads(std::shared_ptr<const FileObjectServices> services, InodeNumber item,
                           std::shared_ptr<ContentFile> content)
    : services_(std::move(services)),
      item_(item),
      content_(std::move(content)),
      parts_(partFetchingOf(services_->extension.get())),
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
    if (goesOn(range)) next = planAhead(range);
  }
  startLater(next);
  return file;
}

void ContentReads::read(ByteRange range, bool mayFetch, const Reply<LocalFilePtr>& reply) {
  if (LocalFilePtr file = present(range)) return reply(std::move(file));
  bool waits = false;
  RunningPtr next;
  {
    MutexLock lock(mutex_);
    waits = mayFetch || announcing_ > 0;
    if (waits) {
      const bool inOrder = goesOn(range);
      if (inOrder && streams() && mayFetch) next = planAhead(range);
      waiters_.push_back({range, false, reply, inOrder});
    }
  }
  if (!waits) return reply(NSPOSIXError(ENODATA, "read what is not here").share());
  startLater(next);
  settle();
}

void ContentReads::startLater(const RunningPtr& next) {
  if (!next) return;
  boost::asio::post(platform::sharedExecutor(),
                    [self = shared_from_this(), next] { self->start(next); });
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
    if (waitsFor(missing.start)) return false;
    if (isAbandoned_) {
      answer = stale();
    } else if (!hasNothing && missing.isEmpty()) {
      answer = fileFor(waiter.range);  // the last of them may just have come
      if (answer.ok() && !answer.value()) {
        answer =
            NSPOSIXError(EIO, "read bytes that neither this computer nor the store has").share();
      }
    } else if (failureHolds()) {
      answer = failure_;
    } else {
      settled.fetches.push_back(planFor(waiter, missing));
      return false;
    }
  }
  settled.answers.emplace_back(waiter.reply, std::move(answer));
  return true;
}

bool ContentReads::failureHolds() const {
  return failure_ && services_->timers->now() - failedAt_ < kFailureHolds;
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
    running->isWhole = parts_ == PartFetching::none || (size <= kWholeFetchBytes && isUntouched());
    if (running->asked.start >= size) running->asked = {0, ContentFetch::kAlignment};
    running->reached = running->asked.start;
    if (!running->isWhole) {
      asked = ByteRange{running->asked.start, std::min(running->asked.end, size)};
    }
    running->fetch = std::make_shared<ContentFetch>(services_->extension, running->source);
    if (!running->isCancelled) fetch = running->fetch;
  }
  if (!fetch) return ended(running, platform::CancellationError().share());
  if (asked && asked->isEmpty())
    return ended(running, NSPOSIXError(EIO, "read bytes that the store does not have").share());
  const auto taker = [self = shared_from_this(), running](std::int64_t offset,
                                                          std::span<const std::byte> bytes) {
    return self->cameBytes(running, offset, bytes);
  };
  fetch->start(asked, taker, [self = shared_from_this(), running](Answer<FetchedFile> answer) {
    boost::asio::post(diskExecutor(), [self, running, answer = std::move(answer)] {
      self->arrived(running, answer);
    });
  });
}

// False: no more of the stream is wanted.
bool ContentReads::cameBytes(const RunningPtr& running, std::int64_t offset,
                             std::span<const std::byte> bytes) {
  bool tellsLength = false;
  bool areAllWanted = false;
  {
    MutexLock lock(mutex_);
    const std::int64_t wanted = running->asked.end - offset;
    if (running->isCancelled || offset != running->reached || wanted <= 0) return false;
    areAllWanted = static_cast<std::size_t>(wanted) >= bytes.size();
    if (!areAllWanted) bytes = bytes.first(static_cast<std::size_t>(wanted));
    tellsLength = content_->sizeBytes() != toldBytes_;
    if (tellsLength) ++announcing_;
  }
  put(running, offset, bytes);
  if (tellsLength) announceLength();
  bool goesOn = false;
  bool tellsState = false;
  bool isAwaited = false;
  {
    MutexLock lock(mutex_);
    goesOn = !running->failure && !running->isCancelled && areAllWanted;
    const auto now = services_->timers->now();
    tellsState = now - toldAt_ >= kTellEvery;
    if (tellsState) toldAt_ = now;
    isAwaited = !waiters_.empty();
  }
  if (tellsState) services_->changed(item_, content_->state());
  // Elsewhere: who is answered copies the bytes once more, while the next ones wait to be put into the file.
  if (isAwaited)
    boost::asio::post(platform::sharedExecutor(), [self = shared_from_this()] { self->settle(); });
  return goesOn;
}

// Into the file, or the reason why not into `running`.
void ContentReads::put(const RunningPtr& running, std::int64_t offset,
                       std::span<const std::byte> bytes) {
  bool taken = false;
  NSErrorPtr error;
  try {
    const ContentNumber fresh = content_->hasNothing() ? services_->newNumber() : 0;
    taken = content_->take(offset, bytes, running->source.version.contentVersion, fresh);
  } catch (const platform::NSError& failure) {
    error = failure.share();
  }
  MutexLock lock(mutex_);
  if (taken) {
    running->reached = offset + static_cast<std::int64_t>(bytes.size());
    refused_.reset();
    timesRefused_ = 0;
    failure_ = nullptr;
  } else if (error) {
    running->failure = error;
  } else {
    running->isCancelled = true;  // another version is wanted by now
  }
}

void ContentReads::streamEnded(const RunningPtr& running) {
  NSErrorPtr error;
  {
    MutexLock lock(mutex_);
    error = running->failure;
    const bool broughtNothing = running->reached <= running->asked.start;
    if (!error && broughtNothing && !running->isCancelled)
      error = NSPOSIXError(EIO, "use a stream without the bytes that were asked for").share();
  }
  ended(running, error);
}

// The state with what a stream brought, however it ended.
void ContentReads::tellStreamed(const Running& running) {
  {
    MutexLock lock(mutex_);
    if (running.isWhole || running.reached <= running.asked.start) return;
  }
  services_->changed(item_, content_->state());
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
  if (streams()) tellStreamed(*running);
  if (!answer.ok()) {
    if (isVersionGone(*answer.error())) {
      refuse(running, nullptr);
    } else {
      ended(running, answer.error());
    }
  } else if (!answer.value().path && !answer.value().item) {
    streamEnded(running);
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
    const bool isTaken = file.contentVersion() == version
                             ? content_->take(*file.path, file.range, version, fresh)
                             : content_->takeAlone(*file.path, file.range, version, fresh);
    if (!isTaken) return nullptr;
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
