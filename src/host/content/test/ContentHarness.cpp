#include "host/content/test/ContentHarness.h"

#include <unistd.h>

#include <boost/asio/post.hpp>
#include <iterator>
#include <span>

#include "platform/tasks/Task.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {

using platform::MutexLock;
using platform::NSErrorPtr;

Timers::Token MovedTimers::after(std::chrono::nanoseconds delay, std::function<void()> work) {
  MutexLock lock(mutex_);
  work_.emplace_back(now_ + delay, std::move(work));
  return work_.size();
}

std::chrono::nanoseconds MovedTimers::now() const {
  MutexLock lock(mutex_);
  return now_;
}

void MovedTimers::advance(std::chrono::nanoseconds duration) {
  std::vector<std::function<void()>> due;
  {
    MutexLock lock(mutex_);
    now_ += duration;
    for (auto& [time, work] : work_) {
      if (time <= now_ && work) due.push_back(std::exchange(work, nullptr));
    }
  }
  for (const auto& work : due) work();
}

ContentState RememberedState::committed() const {
  MutexLock lock(mutex_);
  return committed_;
}
ContentState RememberedState::told() const {
  MutexLock lock(mutex_);
  return told_;
}
int RememberedState::commits() const {
  MutexLock lock(mutex_);
  return commits_;
}
int RememberedState::fetching() const {
  MutexLock lock(mutex_);
  return fetching_;
}
int RememberedState::gone() const {
  MutexLock lock(mutex_);
  return gone_;
}
std::vector<std::int64_t> RememberedState::failures() const {
  MutexLock lock(mutex_);
  return failures_;
}
std::vector<std::uint64_t> RememberedState::failedEdits() const {
  MutexLock lock(mutex_);
  return failedEdits_;
}

std::vector<std::int64_t> RememberedState::resizes() const {
  MutexLock lock(mutex_);
  return resizes_;
}

void RememberedState::holdCommits() {
  MutexLock lock(mutex_);
  holdsCommits_ = true;
}

void RememberedState::releaseCommit(NSErrorPtr error) {
  std::function<void(NSErrorPtr)> commit;
  {
    MutexLock lock(mutex_);
    if (heldCommits_.empty()) throw std::logic_error("no commit waits");
    commit = std::move(heldCommits_.front());
    heldCommits_.erase(heldCommits_.begin());
  }
  commit(std::move(error));
}

void RememberedState::stopHoldingCommits() {
  std::vector<std::function<void(NSErrorPtr)>> commits;
  {
    MutexLock lock(mutex_);
    holdsCommits_ = false;
    commits.swap(heldCommits_);
  }
  for (const auto& commit : commits) commit(nullptr);
}

bool RememberedState::waitForCommit() const {
  return support::waitUntil([&] {
    MutexLock lock(mutex_);
    return !heldCommits_.empty();
  });
}

void RememberedState::holdResizes() {
  MutexLock lock(mutex_);
  holdsResizes_ = true;
}

void RememberedState::releaseResizes() {
  std::vector<std::function<void()>> held;
  {
    MutexLock lock(mutex_);
    holdsResizes_ = false;
    held.swap(heldResizes_);
  }
  for (const auto& then : held) then();
}

void RememberedState::whenGone(std::function<void()> work) {
  MutexLock lock(mutex_);
  whenGone_ = std::move(work);
}

void RememberedState::whenNumbering(std::function<void()> work) {
  MutexLock lock(mutex_);
  whenNumbering_ = std::move(work);
}

void RememberedState::whenFetching(std::function<void()> work) {
  MutexLock lock(mutex_);
  whenFetching_ = std::move(work);
}

void RememberedState::serve(FileObjectServices& services,
                            const std::shared_ptr<RememberedState>& self) {
  services.newNumber = [self] {
    std::function<void()> work;
    {
      MutexLock lock(self->mutex_);
      work.swap(self->whenNumbering_);
    }
    if (work) work();
    MutexLock lock(self->mutex_);
    return ++self->lastNumber_;
  };
  services.willEdit = [self](InodeNumber, const ContentState& state, const Reply<Done>& reply) {
    auto commit = [self, state, reply](const NSErrorPtr& error) {
      if (error) return reply(error);
      {
        MutexLock lock(self->mutex_);
        self->committed_ = state;
        self->told_ = state;
        ++self->commits_;
      }
      reply(Done());
    };
    {
      MutexLock lock(self->mutex_);
      if (self->holdsCommits_) {
        self->heldCommits_.emplace_back(std::move(commit));
        return;
      }
    }
    boost::asio::post(platform::sharedExecutor(), [commit] { commit(nullptr); });
  };
  services.couldNotEdit = [self](InodeNumber, const ContentState& state) {
    MutexLock lock(self->mutex_);
    self->failedEdits_.push_back(state.edits);
  };
  services.changed = [self](InodeNumber, const ContentState& state) {
    MutexLock lock(self->mutex_);
    self->told_ = state;
  };
  services.resized = [self](InodeNumber, std::int64_t size, std::function<void()> then) {
    {
      MutexLock lock(self->mutex_);
      self->resizes_.push_back(size);
      if (self->holdsResizes_) self->heldResizes_.push_back(std::exchange(then, nullptr));
    }
    if (then) then();
  };
  services.fetching = [self](InodeNumber, int step) {
    std::function<void()> work;
    {
      MutexLock lock(self->mutex_);
      self->fetching_ += step;
      work = std::exchange(self->whenFetching_, nullptr);
    }
    if (work) work();
  };
  services.fetchFailed = [self](InodeNumber, const platform::NSError& error) {
    MutexLock lock(self->mutex_);
    self->failures_.push_back(error.code());
  };
  services.versionGone = [self](InodeNumber, const platform::NSFileProviderItemPtr&) {
    std::function<void()> work;
    {
      MutexLock lock(self->mutex_);
      ++self->gone_;
      work = self->whenGone_;
    }
    if (work) work();
  };
}

ContentHarness::ContentHarness(Parts parts)
    : directory_(std::make_shared<ContentDirectory>(temporary_.path() / "replica")),
      store_(std::make_shared<FakeStore>(directory_->temporaryDirectory())),
      timers_(std::make_shared<MovedTimers>()),
      remembered_(std::make_shared<RememberedState>()),
      services_(std::make_shared<FileObjectServices>()) {
  services_->extension = store_->extension(parts);
  services_->directory = directory_;
  services_->timers = timers_;
  services_->source = [store = store_](InodeNumber) { return store->source(); };
  remembered_->serve(*services_, remembered_);
}

ContentHarness::~ContentHarness() {
  remembered_->whenGone(nullptr);  // it may stand on what the test has destroyed
  store_->behave();
  store_->stopHolding();
  remembered_->stopHoldingCommits();
  remembered_->releaseResizes();
  if (!support::waitUntil([&] { return store_->isIdle() && remembered_->fetching() == 0; }))
    std::abort();
}

FileObjectPtr ContentHarness::fresh() {
  ContentState state;
  const auto source = store_->source();
  if (source.ok()) {
    state.version = source.value().version.contentVersion;
    state.sizeBytes = source.value().sizeBytes;
  } else {
    state.isEdited = true;
    state.edits = 1;
  }
  return with(std::move(state));
}

FileObjectPtr ContentHarness::with(ContentState state) {
  return std::make_shared<FileObject>(services_, kItem, std::move(state));
}

FileObjectPtr ContentHarness::afterCrash(FileObjectPtr& object, ContentState state) {
  object.reset();
  return with(std::move(state));
}

Awaited<LocalFilePtr> ContentHarness::startRead(const FileObjectPtr& object, std::int64_t offset,
                                                std::size_t length) {
  Awaited<LocalFilePtr> answer;
  object->read(offset, length, true, answer.reply());
  return answer;
}

std::string ContentHarness::bytes(const LocalFilePtr& file, std::int64_t offset,
                                  std::size_t length) {
  if (offset >= file->sizeBytes()) return {};
  std::string text(std::min(length, static_cast<std::size_t>(file->sizeBytes() - offset)), '\0');
  const ssize_t count = ::pread(file->descriptor(), text.data(), text.size(), offset);
  text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return text;
}

std::string ContentHarness::read(const FileObjectPtr& object, std::int64_t offset,
                                 std::size_t length) {
  const auto answer = startRead(object, offset, length).get();
  if (!answer.ok()) throw std::runtime_error(answer.error()->localizedDescription());
  return bytes(answer.value(), offset, length);
}

std::string ContentHarness::readAll(const FileObjectPtr& object) {
  const auto length = static_cast<std::size_t>(object->sizeBytes());
  return read(object, 0, std::max<std::size_t>(length, 1));
}

Awaited<Done> ContentHarness::startWrite(const FileObjectPtr& object, std::int64_t offset,
                                         const std::string& bytes) {
  Awaited<Done> answer;
  object->write(offset, std::as_bytes(std::span(bytes)), answer.reply());
  return answer;
}

int ContentHarness::write(const FileObjectPtr& object, std::int64_t offset,
                          const std::string& bytes) {
  return errnoOf(startWrite(object, offset, bytes).get());
}

int ContentHarness::resize(const FileObjectPtr& object, std::int64_t size) {
  const Awaited<Done> answer;
  object->resize(size, answer.reply());
  return errnoOf(answer.get());
}

int ContentHarness::fill(const FileObjectPtr& object) {
  const Awaited<Done> answer;
  object->fill(answer.reply());
  return errnoOf(answer.get());
}

std::size_t ContentHarness::temporaryFiles() const { return filesIn("tmp"); }

std::size_t ContentHarness::filesIn(const std::string& folder) const {
  const auto entries = std::filesystem::directory_iterator(replica() / folder);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

int errnoOf(const NSErrorPtr& error) {
  return error->domain() == platform::kNSPOSIXErrorDomain ? static_cast<int>(error->code()) : -1;
}

int thrownErrno(const std::function<void()>& action) {
  try {
    action();
  } catch (const platform::NSError& error) {
    return errnoOf(error.share());
  }
  return 0;
}

}  // namespace kestrune::host::test
