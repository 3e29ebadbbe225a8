// A whole mounted folder without a kernel: the store in memory, its own memory in a temporary directory, timers that the test
// moves, a record of what the kernel was told, and short verbs for what programs do.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/test/Awaited.h"
#include "host/test/FakeRemote.h"
#include "host/volume/FileSystem.h"
#include "platform/values/Mutex.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::host::test {

inline constexpr std::chrono::seconds kDeadline{20};

/// Timers that go off when the test moves the time.
class ManualTimers final : public Timers {
 public:
  Token after(std::chrono::nanoseconds delay, std::function<void()> work) override;
  void cancel(Token token) override;
  std::chrono::nanoseconds now() const override;

  /// Lets `duration` pass and runs, on this thread, what has become due.
  void advance(std::chrono::nanoseconds duration);
  /// The same, and `within` more passes while this thread runs that, when it asks for the time for the `nth` time.
  void advance(std::chrono::nanoseconds duration, int nth, std::chrono::nanoseconds within);
  /// How long until the next one goes off; nothing if none is set.
  std::optional<std::chrono::nanoseconds> untilNext() const;
  /// Waits until one is set to go off after exactly `delay`; false when the deadline passed first.
  bool waitForTimer(std::chrono::nanoseconds delay);
  std::size_t count() const;

 private:
  struct Entry {
    Token token;
    std::chrono::nanoseconds due;
    std::function<void()> work;
  };
  bool has(std::chrono::nanoseconds delay) const REQUIRES_LOCK(mutex_);

  mutable platform::Mutex mutex_;
  std::condition_variable changed_;
  Token next_ GUARDED_BY(mutex_) = 1;
  mutable std::chrono::nanoseconds now_ GUARDED_BY(mutex_){0};
  std::vector<Entry> entries_ GUARDED_BY(mutex_);
  // Who is to ask how many times more until so much passes.
  struct Jump {
    std::thread::id thread;
    int asks = 0;
    std::chrono::nanoseconds duration{0};
  };
  mutable std::optional<Jump> jump_ GUARDED_BY(mutex_);
};

/// Keeps what the kernel was told. While `hold` is in force, what follows upon telling waits.
class RecordingKernelCache final : public KernelCache {
 public:
  void tell(std::vector<CacheUpdate> updates, std::function<void()> then) override;
  std::vector<CacheUpdate> takeUpdates();
  void hold();
  void release();

 private:
  platform::Mutex mutex_;
  std::vector<CacheUpdate> updates_ GUARDED_BY(mutex_);
  bool holding_ GUARDED_BY(mutex_) = false;
  std::vector<std::function<void()>> waiting_ GUARDED_BY(mutex_);
};

class HostHarness {
 public:
  /// `offersParts`: the extension can fetch parts of files.
  explicit HostHarness(bool offersParts = false);
  ~HostHarness();

  FakeRemote& remote() { return *remote_; }
  FileSystem& fileSystem() { return *fileSystem_; }
  Sender& sender() { return *fileSystem_->sender(); }
  ManualTimers& timers() { return *timers_; }
  RecordingKernelCache& kernel() { return *kernel_; }
  const std::filesystem::path& replica() const { return replica_; }
  /// Ends the file system while calls may be under way.
  void destroyFileSystem() { fileSystem_.reset(); }
  /// Ends it and mounts again with what it remembered. Nothing may be held at the store for ever; `whileEnding` is run again
  /// and again until it has ended.
  void restart(const std::function<void()>& whileEnding = nullptr);
  /// Mounts what the disk held at one moment, and lets the old one end in its own place, as after a kill. REQUIRES: the
  /// store answers nothing until `whileEnding`, which is run as above, and nothing is done there from then on.
  void restartFromCopy(const std::function<void()>& whileEnding);

  /// What else is done by the next that is mounted: before it is made, and before it is started.
  struct Succession {
    std::function<void(Volume::Services& services)> prepare;
    std::function<void(FileSystem& fileSystem)> takeOver;
  };
  void setSuccession(Succession succession) { succession_ = std::move(succession); }

  // What programs do; waits for the answer. What fails throws, unless an errno is returned.
  Answer<Entry> lookup(NodeId folder, const std::string& name);
  /// From the root; each name must be there.
  Entry find(const std::string& path);
  /// The names in a folder but "." and "..", in their order, opened and read as a program does it.
  std::vector<std::string> names(NodeId folder = kRootNode);
  /// The errno of opening a folder.
  int openFolderError(NodeId folder);
  OpenFilePtr open(NodeId node, OpenMode mode = {});
  OpenFilePtr openForWriting(const std::string& path, bool truncates = false);
  /// The errno of opening a file.
  int openError(NodeId node);
  Awaited<LocalFilePtr> startRead(const OpenFilePtr& file);
  std::string bytes(const LocalFilePtr& file);
  std::string readAll(const OpenFilePtr& file);
  std::string readPath(const std::string& path);
  OpenFilePtr create(const std::string& path);
  void write(const OpenFilePtr& file, const std::string& text, std::int64_t offset = 0);
  void close(const OpenFilePtr& file);
  /// Creates a file, or replaces the contents of one.
  void save(const std::string& path, const std::string& text);
  void makeFolder(const std::string& path);
  /// These return the errno.
  int removeFile(const std::string& path);
  int removeFolder(const std::string& path);
  int rename(const std::string& from, const std::string& to, RenameMode mode = RenameMode::replace);

  /// The remote side announces changes, the host hears of it and has asked `folder` for them. They may not be applied yet,
  /// and another announcement before that may need no question of its own.
  void announce(const std::string& folder = "/");
  /// Waits until the folder's names are these; false when the deadline passed first.
  bool waitForNames(std::vector<std::string> names, NodeId folder = kRootNode);

  /// Lets time pass in small steps until `condition` holds; false if it does not within `limit` of the moved time.
  bool passUntil(const std::function<bool()>& condition,
                 std::chrono::nanoseconds limit = std::chrono::seconds(60));
  void pass(std::chrono::nanoseconds duration);
  /// Lets it pass at once.
  void skip(std::chrono::nanoseconds duration) { timers_->advance(duration); }
  /// Lets time pass until nothing is unsent and what was sent has been looked at.
  bool waitUntilSent(std::chrono::nanoseconds limit = std::chrono::seconds(60));
  std::vector<UnsentChange> unsent(const std::string& path = "/");

 private:
  void mount();
  void unmount(const std::function<void()>& whileEnding);
  Entry parentOf(const std::string& path);

  const bool offersParts_;
  support::TemporaryDirectory directory_;
  std::filesystem::path replica_;
  int copies_ = 0;
  std::shared_ptr<FakeRemote> remote_;
  std::shared_ptr<ManualTimers> timers_;
  std::shared_ptr<RecordingKernelCache> kernel_;
  std::unique_ptr<FileSystem> fileSystem_;
  std::optional<Succession> succession_;
  std::weak_ptr<ContentDirectory> contents_;
};

/// Takes up to `room` names.
class NameSink final : public FolderSink {
 public:
  explicit NameSink(std::size_t room = SIZE_MAX) : room_(room) {}
  bool add(const FolderEntry& entry) override;
  std::vector<std::string> names;
  std::vector<Entry> entries;
  std::uint64_t last = 0;

 private:
  std::size_t room_;
};

int errnoOf(const platform::NSErrorPtr& error);
template <class T>
int errnoOf(const Answer<T>& answer) {
  return answer.ok() ? 0 : errnoOf(answer.error());
}

}  // namespace kestrune::host::test
