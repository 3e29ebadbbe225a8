#include "host/content/ContentChanges.h"

#include <boost/asio/post.hpp>
#include <cerrno>
#include <utility>

#include "host/basics/OnceReply.h"
#include "host/content/DiskThreads.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSErrorPtr;
using platform::NSPOSIXError;

NSErrorPtr stale() {
  return NSPOSIXError(ESTALE, "change a version that is no longer there").share();
}

}  // namespace

void ContentChanges::add(const ContentChange& change, const Reply<Done>& reply) {
  if (isAbandoned()) return reply(stale());
  if (waits(change, reply, Joining::others)) return;
  try {
    if (const auto changed = content_->tryChange(change)) {
      made(*changed);
      return reply(Done());
    }
  } catch (const platform::NSError& error) {
    return reply(error.share());
  }
  if (!waits(change, reply, Joining::asFirst)) begin();
}

// Puts it behind the others if there are any; `asFirst`: in any case, and false says that there were none.
bool ContentChanges::waits(const ContentChange& change, const Reply<Done>& reply, Joining joining) {
  MutexLock lock(mutex_);
  const bool othersWait = isBusy_;
  if (!othersWait && joining == Joining::others) return false;
  Waiting waiting{change, {change.bytes.begin(), change.bytes.end()}, reply};
  waiting.change.bytes = waiting.bytes;  // a moved vector keeps its place
  waiting_.push_back(std::move(waiting));
  isBusy_ = true;
  return othersWait;
}

bool ContentChanges::isAbandoned() const {
  MutexLock lock(mutex_);
  return isAbandoned_;
}

bool ContentChanges::isIdle() const {
  MutexLock lock(mutex_);
  return !isBusy_;
}

// REQUIRES: isBusy_, set by the caller.
void ContentChanges::begin() {
  if (content_->mayChange()) {
    // Only a copy has to be made first, which may take long.
    boost::asio::post(diskExecutor(), [self = shared_from_this()] { self->makeWaiting(); });
    return;
  }
  if (content_->hasNothing()) {
    // The change is one of what is at the store now. An error says that the file is not there: it is made here.
    const auto source = services_->source(item_);
    if (source.ok() && content_->startAnew(source.value())) {
      services_->resized(item_, content_->sizeBytes(),
                         [self = shared_from_this()] { self->prepare(); });
      return;
    }
  }
  prepare();
}

void ContentChanges::prepare() {
  ContentState committed;
  try {
    const bool needsFile = !content_->isEdited() || content_->number() == 0;
    committed = content_->prepareEdit(needsFile ? services_->newNumber() : 0);
  } catch (const platform::NSError& error) {
    return failWaiting(error.share());
  }
  // Elsewhere than on the thread that commits: others wait for it.
  const OnceReply<Done> reply([self = shared_from_this(), committed](Answer<Done> answer) {
    boost::asio::post(diskExecutor(), [self, committed, answer = std::move(answer)] {
      self->begun(committed, answer);
    });
  });
  services_->willEdit(item_, committed, reply.take());
}

void ContentChanges::begun(const ContentState& committed, const Answer<Done>& answer) {
  if (!answer.ok()) {
    services_->couldNotEdit(item_, committed);
    content_->cancelEdit();
    services_->changed(item_, content_->state());
    return failWaiting(answer.error());
  }
  try {
    content_->confirmEdit();
  } catch (const platform::NSError& error) {
    return failWaiting(error.share());
  }
  makeWaiting();
}

// REQUIRES: one waits.
void ContentChanges::makeWaiting() {
  for (;;) {
    Waiting next;
    {
      MutexLock lock(mutex_);
      if (isAbandoned_) break;
      next = std::move(waiting_.front());
      waiting_.pop_front();
    }
    switch (make(next)) {
      case Made::moreWait:
        break;
      case Made::wasLast:
        return;
      case Made::mustBegin:
        return begin();
    }
  }
  failWaiting(stale());
}

// A snapshot may have come in between: then the change is a new edit, and waits again.
ContentChanges::Made ContentChanges::make(Waiting& next) {
  Answer<Done> answer = Done();
  try {
    const auto changed = content_->change(next.change);
    if (!changed) {
      MutexLock lock(mutex_);
      waiting_.push_front(std::move(next));
      return Made::mustBegin;
    }
    made(*changed);
  } catch (const platform::NSError& error) {
    answer = error.share();
  }
  bool wasLast = false;
  {
    // Before the answer: who has the last one finds nothing under way.
    MutexLock lock(mutex_);
    wasLast = waiting_.empty();
    if (wasLast) isBusy_ = false;
  }
  next.reply(std::move(answer));
  return wasLast ? Made::wasLast : Made::moreWait;
}

void ContentChanges::failWaiting(const NSErrorPtr& error) {
  std::deque<Waiting> failed;
  {
    MutexLock lock(mutex_);
    failed.swap(waiting_);
    isBusy_ = false;
  }
  for (const auto& waiting : failed) waiting.reply(error);
}

void ContentChanges::made(ContentFile::Changed changed) {
  if (!changed.state) return;
  {
    MutexLock lock(mutex_);
    if (std::exchange(isUntold_, true)) return;
  }
  services_->timers->after(kTellAfter, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->tell();
  });
}

void ContentChanges::tell() {
  {
    MutexLock lock(mutex_);
    if (!std::exchange(isUntold_, false)) return;
  }
  services_->changed(item_, content_->state());
}

void ContentChanges::abandon() {
  MutexLock lock(mutex_);
  isAbandoned_ = true;
}

}  // namespace kestrune::host
