#include "host/content/test/FakeStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <cstring>
#include <span>
#include <stdexcept>
#include <utility>

#include "host/basics/LocalFile.h"
#include "host/content/FileCopy.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/tasks/Task.h"
#include "platform/values/UUID.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {

namespace {

using platform::MutexLock;
using platform::NSRange;
namespace fs = std::filesystem;

class StoreItem final : public platform::NSFileProviderItem {
 public:
  StoreItem(std::string version, std::int64_t size) : version_(std::move(version)), size_(size) {}
  std::string itemIdentifier() const override { return "item-1"; }
  std::string parentItemIdentifier() const override { return "folder"; }
  std::string filename() const override { return "file"; }
  std::optional<std::int64_t> documentSize() const override { return size_; }
  std::optional<platform::NSFileProviderItemVersion> itemVersion() const override {
    return platform::NSFileProviderItemVersion{version_, version_};
  }

 private:
  const std::string version_;
  const std::int64_t size_;
};

}  // namespace

class WholeExtension : public virtual platform::NSFileProviderReplicatedExtension {
 public:
  explicit WholeExtension(std::shared_ptr<FakeStore> store) : store_(std::move(store)) {}
  void invalidate() override {}
  platform::NSProgressPtr item(std::string, platform::NSFileProviderRequest,
                               ItemHandler completionHandler) override {
    completionHandler(nullptr, platform::NSPOSIXError(ENOTSUP, "ask for an item").share());
    return std::make_shared<platform::NSProgress>(1);
  }
  platform::NSProgressPtr fetchContents(std::string,
                                        std::optional<platform::NSFileProviderItemVersion>,
                                        platform::NSFileProviderRequest,
                                        ContentsHandler completionHandler) override {
    return store_->ask(std::nullopt, [handler = std::move(completionHandler)](auto url, auto item,
                                                                              NSRange, auto error) {
      handler(std::move(url), std::move(item), std::move(error));
    });
  }
  std::shared_ptr<platform::NSFileProviderEnumerator> enumerator(
      std::string, platform::NSFileProviderRequest) override {
    throw platform::NSPOSIXError(ENOTSUP, "enumerate a file");
  }

 protected:
  const std::shared_ptr<FakeStore> store_;
};

class PartExtension final : public WholeExtension,
                            public platform::NSFileProviderPartialContentFetching {
 public:
  using WholeExtension::WholeExtension;
  platform::NSProgressPtr fetchPartialContents(std::string, platform::NSFileProviderItemVersion,
                                               platform::NSFileProviderRequest,
                                               NSRange minimalRange, std::int64_t,
                                               platform::NSFileProviderFetchContentsOptions,
                                               PartialContentsHandler completionHandler) override {
    return store_->ask(minimalRange, [handler = std::move(completionHandler)](
                                         auto url, auto item, NSRange range, auto error) {
      handler(std::move(url), std::move(item), range,
              platform::NSFileProviderMaterializationFlags::none, std::move(error));
    });
  }
};

// What a test holds of one stream.
struct FakeStore::Stream {
  NSRange range;
  platform::ContentStreaming::BytesHandler bytes;
  platform::ContentStreaming::EndHandler ended;
  platform::NSProgressPtr progress;
  std::int64_t given = 0;
  std::int64_t holdAfter = 0;
};

class StreamExtension final : public WholeExtension, public platform::ContentStreaming {
 public:
  using WholeExtension::WholeExtension;
  platform::NSProgressPtr streamContents(std::string, platform::NSFileProviderItemVersion,
                                         platform::NSFileProviderRequest, NSRange range,
                                         BytesHandler bytes, EndHandler ended) override {
    auto stream = std::make_shared<FakeStore::Stream>();
    stream->range = range;
    stream->bytes = std::move(bytes);
    stream->ended = std::move(ended);
    return store_->stream(std::move(stream));
  }
};

std::string pattern(std::size_t size, std::uint64_t seed) {
  std::string text(size + 8, '\0');
  for (std::size_t at = 0; at < size; at += 8) {
    std::uint64_t word = (seed << 40U) + at + 0x9E3779B97F4A7C15U;
    word = (word ^ (word >> 30U)) * 0xBF58476D1CE4E5B9U;
    word ^= word >> 27U;
    std::memcpy(text.data() + at, &word, 8);
  }
  text.resize(size);
  return text;
}

void FakeStore::put(std::string contents, std::string version) {
  MutexLock lock(mutex_);
  contents_ = std::move(contents);
  version_ = std::move(version);
  exists_ = true;
}

void FakeStore::remove() {
  MutexLock lock(mutex_);
  exists_ = false;
}

std::string FakeStore::contents() const {
  MutexLock lock(mutex_);
  return contents_;
}

Answer<ContentSource> FakeStore::source() const {
  MutexLock lock(mutex_);
  if (!exists_) return platform::NSPOSIXError(ENOENT, "find the item").share();
  return ContentSource{"item-1", {version_, version_}, static_cast<std::int64_t>(contents_.size())};
}

void FakeStore::setReadAhead(std::int64_t bytes) {
  MutexLock lock(mutex_);
  readAhead_ = bytes;
}

void FakeStore::misbehave(Misbehaviour how) {
  MutexLock lock(mutex_);
  how_ = std::move(how);
}

void FakeStore::hold() {
  MutexLock lock(mutex_);
  holding_ = true;
}

bool FakeStore::waitForHeld() const {
  return support::waitUntil([&] {
    MutexLock lock(mutex_);
    return !held_.empty();
  });
}

void FakeStore::release() {
  std::function<void()> answer;
  {
    MutexLock lock(mutex_);
    if (held_.empty()) throw std::logic_error("no fetch waits");
    answer = std::move(held_.front());
    held_.pop_front();
  }
  boost::asio::post(platform::sharedExecutor(), std::move(answer));
}

void FakeStore::stopHolding() {
  std::deque<std::function<void()>> answers;
  {
    MutexLock lock(mutex_);
    holding_ = false;
    answers.swap(held_);
  }
  for (auto& answer : answers) boost::asio::post(platform::sharedExecutor(), std::move(answer));
}

int FakeStore::wholeFetches() const {
  MutexLock lock(mutex_);
  return wholeFetches_;
}

std::vector<NSRange> FakeStore::parts() const {
  MutexLock lock(mutex_);
  return parts_;
}

bool FakeStore::waitForFetches(int count) const {
  return support::waitUntil([&] { return fetches() >= count; });
}

bool FakeStore::isIdle() const {
  MutexLock lock(mutex_);
  return unanswered_ == 0;
}

int FakeStore::cancelled() const {
  MutexLock lock(mutex_);
  return cancelled_;
}

std::uint64_t FakeStore::lastInode() const {
  MutexLock lock(mutex_);
  return lastInode_;
}

std::shared_ptr<platform::NSFileProviderReplicatedExtension> FakeStore::extension(Parts parts) {
  if (parts == Parts::asFiles) return std::make_shared<PartExtension>(shared_from_this());
  if (parts == Parts::asStreams) return std::make_shared<StreamExtension>(shared_from_this());
  return std::make_shared<WholeExtension>(shared_from_this());
}

void FakeStore::holdStreamsAfter(std::int64_t bytes) {
  MutexLock lock(mutex_);
  holdAfter_ = bytes;
}

std::int64_t FakeStore::bytesStreamed() const {
  MutexLock lock(mutex_);
  return bytesStreamed_;
}

int FakeStore::streaming() const {
  MutexLock lock(mutex_);
  return streaming_;
}

platform::NSProgressPtr FakeStore::stream(std::shared_ptr<Stream> stream) {
  auto progress = std::make_shared<platform::NSProgress>(1);
  stream->progress = progress;
  progress->setCancellationHandler([self = shared_from_this()] {
    MutexLock lock(self->mutex_);
    ++self->cancelled_;
  });
  std::function<void()> going = [self = shared_from_this(), stream] { self->goOn(stream); };
  {
    MutexLock lock(mutex_);
    ++unanswered_;
    ++streaming_;
    stream->holdAfter = holdAfter_;
    if (holding_) held_.push_back(std::exchange(going, nullptr));
    parts_.push_back(stream->range);
  }
  if (going) boost::asio::post(platform::sharedExecutor(), std::move(going));
  return progress;
}

void FakeStore::goOn(const std::shared_ptr<Stream>& stream) {
  Misbehaviour how;
  std::string contents;
  std::int64_t until = stream->range.length;
  {
    MutexLock lock(mutex_);
    how = how_;
    contents = contents_;
    if (stream->holdAfter > 0) until = std::min(until, std::exchange(stream->holdAfter, 0));
  }
  if (how.drops) {
    stream->bytes = {};
    stream->ended = nullptr;
    MutexLock lock(mutex_);
    --unanswered_;
    --streaming_;
    return;
  }
  if (how.error) return end(*stream, nullptr, how.error);
  if (how.version) {
    const auto now =
        std::make_shared<StoreItem>(*how.version, static_cast<std::int64_t>(contents.size()));
    using platform::NSFileProviderError;
    return end(*stream, now,
               NSFileProviderError(NSFileProviderError::versionNoLongerAvailable).share());
  }
  stream->given += how.shift;
  if (!give(*stream, contents, until)) return end(*stream, nullptr, nullptr);
  if (stream->given >= stream->range.length)
    return end(*stream, nullptr, nullptr, how.answersTwice ? 2 : 1);
  MutexLock lock(mutex_);
  held_.emplace_back([self = shared_from_this(), stream] { self->goOn(stream); });
}

// False if the receiver wants no more.
bool FakeStore::give(Stream& stream, const std::string& contents, std::int64_t until) {
  constexpr std::int64_t kPiece = 50'000;
  while (stream.given < until) {
    const std::int64_t offset = stream.range.location + stream.given;
    const std::int64_t count = std::min(kPiece, until - stream.given);
    const auto piece = std::string_view(contents).substr(static_cast<std::size_t>(offset),
                                                         static_cast<std::size_t>(count));
    if (stream.progress->isCancelled()) return false;
    {
      MutexLock lock(mutex_);
      bytesStreamed_ += count;
    }
    if (!stream.bytes(offset, piece)) return false;
    stream.given += count;
  }
  return true;
}

void FakeStore::end(const Stream& stream, const platform::NSFileProviderItemPtr& item,
                    const platform::NSErrorPtr& error, int times) {
  {
    MutexLock lock(mutex_);
    --streaming_;
  }
  for (; times > 0; --times) stream.ended(item, error);
  MutexLock lock(mutex_);
  --unanswered_;
}

platform::NSProgressPtr FakeStore::ask(std::optional<NSRange> part, Handler handler) {
  auto progress = std::make_shared<platform::NSProgress>(1);
  progress->setCancellationHandler([self = shared_from_this()] {
    MutexLock lock(self->mutex_);
    ++self->cancelled_;
  });
  std::function<void()> answering = [self = shared_from_this(), part,
                                     handler = std::move(handler)] {
    self->answer(part, handler);
    MutexLock lock(self->mutex_);
    --self->unanswered_;
  };
  {
    MutexLock lock(mutex_);
    // Who sees the count can release it.
    ++unanswered_;
    if (holding_) held_.push_back(std::exchange(answering, nullptr));
    if (part) {
      parts_.push_back(*part);
    } else {
      ++wholeFetches_;
    }
  }
  if (answering) boost::asio::post(platform::sharedExecutor(), std::move(answering));
  return progress;
}

void FakeStore::answer(std::optional<NSRange> part, const Handler& handler) {
  Misbehaviour how;
  std::string contents;
  std::string version;
  std::int64_t readAhead = 0;
  {
    MutexLock lock(mutex_);
    how = how_;
    contents = contents_;
    version = how.version.value_or(version_);
    readAhead = readAhead_;
  }
  if (how.drops) return;
  if (how.error) return handler(std::nullopt, nullptr, {}, how.error);
  const auto size = static_cast<std::int64_t>(contents.size());
  NSRange range{0, size};
  if (part) {
    range.location = std::min(part->location, size);
    range.length = std::min(size, part->location + part->length + readAhead) - range.location;
  }
  if (how.version) contents.assign(contents.size(), '?');
  const auto item = std::make_shared<StoreItem>(version, size);
  for (int time = how.answersTwice ? 2 : 1; time > 0; --time) {
    std::optional<fs::path> url;
    if (!how.forgetsFile)
      url = makeFile(contents, {range.location, range.location + range.length},
                     size + how.extraBytes);
    handler(url, item, how.range.value_or(range), nullptr);
  }
}

fs::path FakeStore::makeFile(const std::string& contents, ByteRange present, std::int64_t length) {
  const fs::path path = temporary_ / platform::newUUIDString();
  const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  const auto bytes = std::as_bytes(std::span(contents))
                         .subspan(static_cast<std::size_t>(present.start),
                                  static_cast<std::size_t>(present.length()));
  writeBytes(file.number(), present.start, bytes);
  if (::ftruncate(file.number(), length) != 0) throw std::runtime_error("ftruncate");
  struct stat status = {};
  if (::fstat(file.number(), &status) != 0) throw std::runtime_error("fstat");
  MutexLock lock(mutex_);
  lastInode_ = status.st_ino;
  return path;
}

}  // namespace kestrune::host::test
