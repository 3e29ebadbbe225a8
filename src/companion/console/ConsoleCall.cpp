#include "companion/console/ConsoleCall.h"

#include <algorithm>
#include <utility>

#include "platform/tasks/Task.h"

namespace kestrune {

using namespace platform;

void ConsoleCall::perform(CallSurroundings& surroundings, Json id, Kind kind, bool watch,
                          const Method& method) {
  const std::shared_ptr<ConsoleCall> call(new ConsoleCall(surroundings, std::move(id), kind));
  surroundings.openCalls.add(call);
  call->run(watch, method);
}

ConsoleCall::ConsoleCall(CallSurroundings& surroundings, Json id, Kind kind)
    : surroundings_(surroundings),
      writer_(surroundings.writer),
      id_(std::move(id)),
      kind_(kind),
      callerThread_(std::this_thread::get_id()) {}

void ConsoleCall::run(bool watch, const Method& method) {
  const auto ledger = TaskLedger::make();
  NSProgressPtr returned;
  {
    const NSProgress::Capture capture;
    {
      MutexLock lock(mutex_);
      capture_ = &capture;
    }
    {
      const TaskLedger::Scope scope(ledger);
      returned = method(std::make_shared<Reply>(shared_from_this()));
    }
    MutexLock lock(mutex_);
    capture_ = nullptr;
    progress_ = returned;
    hasReturned_ = true;
  }
  if (kind_ == Kind::operation) {
    writer_->write(id_, "returned", {{"progress", progress()}});
  } else if (kind_ == Kind::enumeration) {
    writer_->write(id_, "returned", OrderedJson::object());
  }
  if (watch && returned) {
    watching_ = returned->observe([writer = writer_, id = id_](const NSProgress::Snapshot& counts) {
      writer->write(id, "progress", {{"progress", progressJson(counts)}});
    });
  }
  ledger->open();
  ledger->whenIdle([self = shared_from_this()] { self->tasksEnded(); });
}

void ConsoleCall::cancel() {
  NSProgressPtr progress;
  {
    MutexLock lock(mutex_);
    progress = progress_;
  }
  if (progress) progress->cancel();
}

void ConsoleCall::keep(std::shared_ptr<NSFileProviderEnumerator> enumerator) {
  MutexLock lock(mutex_);
  enumerator_ = std::move(enumerator);
}

void ConsoleCall::print(std::string_view event, const OrderedJson& fields) {
  bool isCaller = false;
  {
    MutexLock lock(mutex_);
    isCaller = !hasReturned_ && std::this_thread::get_id() == callerThread_;
  }
  OrderedJson line = {{"thread", isCaller ? "caller" : "task"}};
  line.update(fields);
  writer_->write(id_, event, line);
}

OrderedJson ConsoleCall::progress() const {
  MutexLock lock(mutex_);
  const NSProgressPtr progress = progress_ ? progress_ : endedProgress_.lock();
  if (progress) return progressJson(progress->snapshot());
  return progressJson(capture_ ? capture_->snapshot() : std::nullopt);
}

void ConsoleCall::tasksEnded() {
  {
    MutexLock lock(mutex_);
    tasksHaveEnded_ = true;
    if (!answerHasEnded_ || std::exchange(isSettling_, true)) return;
  }
  settleSoon();
}

void ConsoleCall::answerEnded() {
  {
    MutexLock lock(mutex_);
    answerHasEnded_ = true;
    if (!tasksHaveEnded_ || std::exchange(isSettling_, true)) return;
  }
  settleSoon();
}

void ConsoleCall::settleSoon() {
  surroundings_.settling.async([self = shared_from_this()] { self->settle(); });
}

void ConsoleCall::settle() {
  // The extension's objects may hold the call's own handlers: dropping them breaks the circle.
  NSProgressPtr progress;
  std::shared_ptr<NSFileProviderEnumerator> enumerator;
  {
    MutexLock lock(mutex_);
    progress = std::move(progress_);
    endedProgress_ = progress;
    enumerator = std::move(enumerator_);
  }
  if (enumerator) enumerator->invalidate();
  if (kind_ != Kind::question) surroundings_.drainStatus();
  if (kind_ == Kind::operation) {
    const auto counts = progress ? std::optional(progress->snapshot()) : std::nullopt;
    writer_->write(id_, "settled", {{"progress", progressJson(counts)}});
  } else if (kind_ == Kind::enumeration) {
    writer_->write(id_, "settled", OrderedJson::object());
  }
  surroundings_.openCalls.remove(*this);
}

void ConsoleCall::Reply::answer(std::string_view event, const OrderedJson& fields) const {
  call_->print(event, fields);
  call_->answerEnded();
}

void OpenCalls::add(std::shared_ptr<ConsoleCall> call) {
  MutexLock lock(mutex_);
  calls_.push_back(std::move(call));
}

void OpenCalls::remove(const ConsoleCall& call) {
  // The last reference may go here, and with it objects of the extension: not under the lock.
  std::shared_ptr<ConsoleCall> removed;
  MutexLock lock(mutex_);
  const auto found = std::find_if(calls_.begin(), calls_.end(),
                                  [&call](const auto& open) { return open.get() == &call; });
  if (found == calls_.end()) return;
  removed = std::move(*found);
  calls_.erase(found);
  ended_.notify_all();  // under the lock: who waits for the last call then destroys this
}

std::vector<std::shared_ptr<ConsoleCall>> OpenCalls::named(const Json& id) const {
  MutexLock lock(mutex_);
  std::vector<std::shared_ptr<ConsoleCall>> found;
  std::copy_if(calls_.begin(), calls_.end(), std::back_inserter(found),
               [&id](const auto& call) { return call->id() == id; });
  return found;
}

void OpenCalls::waitUntilEnded(const std::optional<Json>& id) const {
  MutexLock lock(mutex_);
  while (isOpen(id)) lock.wait(ended_);
}

bool OpenCalls::isOpen(const std::optional<Json>& id) const {
  return std::any_of(calls_.begin(), calls_.end(),
                     [&id](const auto& call) { return !id || call->id() == *id; });
}

}  // namespace kestrune
