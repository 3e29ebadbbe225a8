// One file's contents without a host around them: a store with that file, a directory, time that the test moves, and a
// record of what the contents told.
#pragma once

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/content/FileObject.h"
#include "host/content/test/FakeStore.h"
#include "host/test/Awaited.h"
#include "platform/values/Mutex.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::host::test {

inline constexpr std::int64_t kMiB = 1 << 20;
inline constexpr InodeNumber kItem = 7;

/// Timers that go off when the test moves the time.
class MovedTimers final : public Timers {
 public:
  Token after(std::chrono::nanoseconds delay, std::function<void()> work) override;
  void cancel(Token) override {}
  std::chrono::nanoseconds now() const override;
  void advance(std::chrono::nanoseconds duration);

 private:
  mutable platform::Mutex mutex_;
  std::chrono::nanoseconds now_ GUARDED_BY(mutex_){0};
  std::vector<std::pair<std::chrono::nanoseconds, std::function<void()>>> work_ GUARDED_BY(mutex_);
};

/// What a host would remember, and where it makes the contents wait.
class RememberedState {
 public:
  /// Of the last commit; what a host that is killed now finds again.
  ContentState committed() const;
  /// Of the last commit or notice.
  ContentState told() const;
  int commits() const;
  int fetching() const;
  int gone() const;
  std::vector<std::int64_t> failures() const;
  std::vector<std::int64_t> resizes() const;
  std::vector<std::uint64_t> failedEdits() const;

  /// Commits wait until they are released, or fail.
  void holdCommits();
  void releaseCommit(platform::NSErrorPtr error = nullptr);
  void stopHoldingCommits();
  bool waitForCommit() const;
  void holdResizes();
  void releaseResizes();
  /// Is run when `versionGone` is told.
  void whenGone(std::function<void()> work);
  /// Is run, once, when a number for new contents is asked for.
  void whenNumbering(std::function<void()> work);
  /// Is run, once, when a fetch is about to begin.
  void whenFetching(std::function<void()> work);

  void serve(FileObjectServices& services, const std::shared_ptr<RememberedState>& self);

 private:
  mutable platform::Mutex mutex_;
  ContentState committed_ GUARDED_BY(mutex_);
  ContentState told_ GUARDED_BY(mutex_);
  std::vector<std::uint64_t> failedEdits_ GUARDED_BY(mutex_);
  int commits_ GUARDED_BY(mutex_) = 0;
  int fetching_ GUARDED_BY(mutex_) = 0;
  int gone_ GUARDED_BY(mutex_) = 0;
  ContentNumber lastNumber_ GUARDED_BY(mutex_) = 100;
  std::vector<std::int64_t> failures_ GUARDED_BY(mutex_);
  std::vector<std::int64_t> resizes_ GUARDED_BY(mutex_);
  bool holdsCommits_ GUARDED_BY(mutex_) = false;
  std::vector<std::function<void(platform::NSErrorPtr)>> heldCommits_ GUARDED_BY(mutex_);
  bool holdsResizes_ GUARDED_BY(mutex_) = false;
  std::vector<std::function<void()>> heldResizes_ GUARDED_BY(mutex_);
  std::function<void()> whenGone_ GUARDED_BY(mutex_);
  std::function<void()> whenNumbering_ GUARDED_BY(mutex_);
  std::function<void()> whenFetching_ GUARDED_BY(mutex_);
};

class ContentHarness {
 public:
  explicit ContentHarness(Parts parts = Parts::asFiles);
  /// Waits for what is still under way: it would write into a folder that is gone.
  ~ContentHarness();

  FakeStore& store() { return *store_; }
  RememberedState& remembered() { return *remembered_; }
  MovedTimers& timers() { return *timers_; }
  ContentDirectory& directory() { return *directory_; }
  const std::filesystem::path& path() const { return temporary_.path(); }
  std::filesystem::path replica() const { return temporary_.path() / "replica"; }
  std::shared_ptr<const FileObjectServices> services() const { return services_; }

  /// The object of the store's file, of which nothing is here.
  FileObjectPtr fresh();
  FileObjectPtr with(ContentState state);
  /// What a host finds that was killed: the object is gone with all it did not tell, a new one begins from `state`.
  FileObjectPtr afterCrash(FileObjectPtr& object, ContentState state);

  // What programs do; waits for the answer.
  static Awaited<LocalFilePtr> startRead(const FileObjectPtr& object, std::int64_t offset,
                                         std::size_t length);
  static std::string bytes(const LocalFilePtr& file, std::int64_t offset, std::size_t length);
  static std::string read(const FileObjectPtr& object, std::int64_t offset, std::size_t length);
  static std::string readAll(const FileObjectPtr& object);
  static Awaited<Done> startWrite(const FileObjectPtr& object, std::int64_t offset,
                                  const std::string& bytes);
  /// The errno, 0 for success.
  static int write(const FileObjectPtr& object, std::int64_t offset, const std::string& bytes);
  static int resize(const FileObjectPtr& object, std::int64_t size);
  static int fill(const FileObjectPtr& object);

  std::size_t temporaryFiles() const;
  std::size_t filesIn(const std::string& folder) const;

 private:
  support::TemporaryDirectory temporary_;
  std::shared_ptr<ContentDirectory> directory_;
  std::shared_ptr<FakeStore> store_;
  std::shared_ptr<MovedTimers> timers_;
  std::shared_ptr<RememberedState> remembered_;
  std::shared_ptr<FileObjectServices> services_;
};

/// Of an error in the domain of the operating system; -1 for others.
int errnoOf(const platform::NSErrorPtr& error);
template <class T>
int errnoOf(const Answer<T>& answer) {
  return answer.ok() ? 0 : errnoOf(answer.error());
}
/// What `action` throws.
int thrownErrno(const std::function<void()>& action);

}  // namespace kestrune::host::test
