// One file at a store, and an extension that fetches it whole or in part and misbehaves as it is told.
//
// Answers come from the shared executor, at once or when the test releases them; what they bring is decided at the moment
// of the answer, so that a test can change its mind in between.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/basics/Answer.h"
#include "host/content/ContentState.h"
#include "platform/file_provider/ContentStreaming.h"
#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/values/Mutex.h"

namespace kestrune::host::test {

/// `size` bytes that differ from place to place and from seed to seed.
std::string pattern(std::size_t size, std::uint64_t seed);

/// How the answers differ from what they should be.
struct Misbehaviour {
  platform::NSErrorPtr error = nullptr;
  std::optional<std::string> version =
      std::nullopt;             // the item says so; the bytes are nonsense then
  std::int64_t extraBytes = 0;  // the file is so much longer, or shorter
  std::optional<platform::NSRange> range = std::nullopt;  // is said to be present
  std::int64_t shift = 0;  // streams give bytes of a place so far behind
  bool drops = false;      // the handler without a call
  bool answersTwice = false;
  bool forgetsFile = false;
};

/// How the extension hands over parts.
enum class Parts { none, asFiles, asStreams };

class FakeStore : public std::enable_shared_from_this<FakeStore> {
 public:
  explicit FakeStore(std::filesystem::path temporary) : temporary_(std::move(temporary)) {}

  void put(std::string contents, std::string version);
  /// The item is not there any more.
  void remove();
  std::string contents() const;
  Answer<ContentSource> source() const;

  /// What a part brings beyond what was asked for.
  void setReadAhead(std::int64_t bytes);
  void misbehave(Misbehaviour how);
  void behave() { misbehave({}); }
  /// From now on answers wait.
  void hold();
  /// Streams that begin from now on give so many bytes, and the rest when they are released; 0: they do not wait.
  void holdStreamsAfter(std::int64_t bytes);
  [[nodiscard]] bool waitForHeld() const;
  /// The first that waits goes; REQUIRES: one waits.
  void release();
  /// All that wait go, and later ones do not wait.
  void stopHolding();

  int wholeFetches() const;
  /// What was asked for in part, in order.
  std::vector<platform::NSRange> parts() const;
  int fetches() const { return wholeFetches() + static_cast<int>(parts().size()); }
  /// Waits until so many fetches began; false when the deadline passed first.
  [[nodiscard]] bool waitForFetches(int count) const;
  /// No answer is being given or waits.
  bool isIdle() const;
  int cancelled() const;
  /// Given by streams.
  std::int64_t bytesStreamed() const;
  /// Streams that are not over.
  int streaming() const;
  /// Of the file that was handed over last.
  std::uint64_t lastInode() const;

  std::shared_ptr<platform::NSFileProviderReplicatedExtension> extension(
      Parts parts = Parts::asFiles);

 private:
  friend class WholeExtension;
  friend class PartExtension;
  friend class StreamExtension;
  struct Stream;
  using Handler =
      std::function<void(std::optional<std::filesystem::path>, platform::NSFileProviderItemPtr,
                         platform::NSRange, platform::NSErrorPtr)>;

  platform::NSProgressPtr ask(std::optional<platform::NSRange> part, Handler handler);
  void answer(std::optional<platform::NSRange> part, const Handler& handler);
  platform::NSProgressPtr stream(std::shared_ptr<Stream> stream);
  void goOn(const std::shared_ptr<Stream>& stream);
  bool give(Stream& stream, const std::string& contents, std::int64_t until);
  void end(const Stream& stream, const platform::NSFileProviderItemPtr& item,
           const platform::NSErrorPtr& error, int times = 1);
  std::filesystem::path makeFile(const std::string& contents, ByteRange present,
                                 std::int64_t length);

  const std::filesystem::path temporary_;
  mutable platform::Mutex mutex_;
  std::string contents_ GUARDED_BY(mutex_);
  std::string version_ GUARDED_BY(mutex_) = "1";
  bool exists_ GUARDED_BY(mutex_) = false;
  std::int64_t readAhead_ GUARDED_BY(mutex_) = 0;
  Misbehaviour how_ GUARDED_BY(mutex_);
  bool holding_ GUARDED_BY(mutex_) = false;
  std::deque<std::function<void()>> held_ GUARDED_BY(mutex_);
  int wholeFetches_ GUARDED_BY(mutex_) = 0;
  std::vector<platform::NSRange> parts_ GUARDED_BY(mutex_);
  int unanswered_ GUARDED_BY(mutex_) = 0;
  int cancelled_ GUARDED_BY(mutex_) = 0;
  std::int64_t holdAfter_ GUARDED_BY(mutex_) = 0;
  std::int64_t bytesStreamed_ GUARDED_BY(mutex_) = 0;
  int streaming_ GUARDED_BY(mutex_) = 0;
  std::uint64_t lastInode_ GUARDED_BY(mutex_) = 0;
};

}  // namespace kestrune::host::test
