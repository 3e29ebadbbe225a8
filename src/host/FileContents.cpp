#include "host/FileContents.h"

#include <unistd.h>

#include <boost/asio/post.hpp>
#include <cerrno>
#include <utility>

#include "host/basics/OnceReply.h"
#include "platform/tasks/Task.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSErrorPtr;
using platform::NSPOSIXError;

}  // namespace

void FileContents::opened() {
  MutexLock lock(mutex_);
  ++openCount_;
}

void FileContents::closed() {
  platform::NSProgressPtr running;
  Waiters forgotten;
  {
    MutexLock lock(mutex_);
    if (--openCount_ > 0) return;
    file_.reset();
    if (state_ == State::fetching && !cancelled_) {
      cancelled_ = true;
      running = progress_;
    }
    forgotten.swap(waiters_);
  }
  if (running) running->cancel();
  // Interrupted long ago, all of them: who still waits has the file open.
  for (const auto& reply : forgotten) reply(platform::CancellationError().share());
}

LocalFilePtr FileContents::present() const {
  MutexLock lock(mutex_);
  return file_;
}

void FileContents::read(Reply<LocalFilePtr> reply) {
  Answer<LocalFilePtr> answer = LocalFilePtr();
  {
    MutexLock lock(mutex_);
    if (state_ == State::here && !file_) answer = openAgain();
    if (file_) {
      answer = file_;
    } else if (answer.ok() && state_ == State::absent && abandoned_) {
      answer = NSPOSIXError(ESTALE, "read a version that is no longer there").share();
    } else if (answer.ok() && state_ == State::absent && failure_ &&
               services_->timers->now() - failedAt_ < kFailureHolds) {
      answer = failure_;
    } else if (answer.ok()) {
      waiters_.push_back(std::exchange(reply, nullptr));
      if (state_ == State::fetching) return;
      state_ = State::fetching;
      cancelled_ = false;
    }
  }
  if (reply) {
    reply(std::move(answer));
  } else {
    begin();
  }
}

// Sets file_ from the replica; where somebody cleaned up there, the same version can be fetched again.
Answer<LocalFilePtr> FileContents::openAgain() {
  try {
    file_ = services_->replica->open(node_);
  } catch (const platform::NSError& error) {
    return error.share();
  }
  if (!file_) state_ = State::absent;
  return file_;
}

void FileContents::abandon() {
  MutexLock lock(mutex_);
  abandoned_ = true;
}

void FileContents::discard() {
  MutexLock lock(mutex_);
  // Who has them open keeps them without a name; nobody opens them anew.
  if (state_ == State::here) services_->replica->remove(node_);
}

// REQUIRES: state fetching, entered by the caller.
void FileContents::begin() {
  services_->fetching(node_, +1);
  auto ended = [self = shared_from_this()](Answer<std::filesystem::path> answer) {
    if (answer.ok()) {
      self->fetched(std::move(answer.value()), nullptr);
    } else {
      self->fetched(std::nullopt, answer.error());
    }
  };
  auto work = [self = shared_from_this(),
               once = OnceReply<std::filesystem::path>(std::move(ended))] {
    auto handler = [once](std::optional<std::filesystem::path> url,
                          const platform::NSFileProviderItemPtr&, NSErrorPtr error) {
      if (!error && !url) error = NSPOSIXError(EIO, "the extension handed over no file").share();
      if (error) {
        once.answer(std::move(error));
      } else if (!once.answer(*url)) {
        ::unlink(url->c_str());  // a second file for one fetch
      }
    };
    auto progress = self->services_->extension->fetchContents(self->identifier_, std::nullopt, {},
                                                              std::move(handler));
    bool cancel = false;
    {
      MutexLock lock(self->mutex_);
      if (self->state_ == State::fetching) {
        self->progress_ = progress;
        cancel = self->cancelled_;
      }
    }
    if (cancel && progress) progress->cancel();
  };
  boost::asio::post(platform::sharedExecutor(), std::move(work));
}

void FileContents::fetched(std::optional<std::filesystem::path> url, NSErrorPtr error) {
  LocalFilePtr file;
  if (url) {
    try {
      MutexLock lock(mutex_);
      file = abandoned_ ? services_->replica->takeUnnamed(*url)
                        : services_->replica->takeOver(*url, node_);
    } catch (const platform::NSError& thrown) {
      error = thrown.share();
    }
  }
  if (error) {
    fail(error);
  } else {
    deliver(file);
  }
  services_->fetching(node_, -1);
}

// Still "fetching" until the kernel knows the size: a reader who came in between would be cut off at the old one.
void FileContents::deliver(const LocalFilePtr& file) {
  auto answerAll = [self = shared_from_this(), file] {
    Waiters waiters;
    {
      MutexLock lock(self->mutex_);
      self->state_ = State::here;
      self->progress_.reset();
      if (self->openCount_ > 0) self->file_ = file;
      if (self->abandoned_) self->services_->replica->remove(self->node_);
      waiters.swap(self->waiters_);
    }
    for (const auto& reply : waiters) reply(file);
  };
  services_->arrived(node_, file->sizeBytes(), std::move(answerAll));
}

void FileContents::fail(const NSErrorPtr& error) {
  if (beginAgain()) return;
  Waiters waiters;
  {
    MutexLock lock(mutex_);
    state_ = State::absent;
    failure_ = error;
    failedAt_ = services_->timers->now();
    progress_.reset();
    waiters.swap(waiters_);
  }
  services_->failed(node_, *error);
  for (const auto& reply : waiters) reply(error);
}

// A fetch that ended because nobody wanted it any more, while somebody came who does.
bool FileContents::beginAgain() {
  {
    MutexLock lock(mutex_);
    if (!cancelled_ || waiters_.empty() || abandoned_) return false;
    cancelled_ = false;
    progress_.reset();
  }
  begin();
  return true;
}

}  // namespace kestrune::host
