// Who waits for which bytes of one file, and what is being fetched for them.
//
//   reader ──▶ bytes are here ──▶ answered
//     └──▶ waits ──▶ on its way already, or a new fetch ──▶ taken into the file ──▶ looked at again
//
// After every event all who wait are looked at again in the same way; so it does not matter for whom a fetch was made, or
// whether it brought what was hoped for.
//
// What a stream brings is answered as it comes, and a stream brings what it was asked for: little where reads go here and
// there, ever more for a reader who goes on in order. Who misses bytes that a stream reaches only after kStreamPatience more
// gets a stream of their own, and the first one ends where that begins.
//
// From an extension that hands over files, a fetch is expected to bring kExpectedAhead more than it was asked for, since such
// extensions read ahead: who misses bytes there waits for it first. So does who misses bytes of a small file.
//
// Threads: every operation may be called from any thread. Replies and the services' functions are called without a lock
// held.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/basics/Answer.h"
#include "host/content/ContentFetch.h"
#include "host/content/ContentFile.h"
#include "host/content/FileObjectServices.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class ContentReads : public std::enable_shared_from_this<ContentReads> {
 public:
  static constexpr std::int64_t kWholeFetchBytes = 16LL << 20;
  static constexpr std::int64_t kExpectedAhead = 16LL << 20;
  /// The most that is asked for at once: what the local disk copies in some ten milliseconds.
  static constexpr std::int64_t kMostAsked = 64LL << 20;
  /// The least, and what the ends of a stream are multiples of: a round trip even to a near store takes as long as this.
  static constexpr std::int64_t kStreamUnit = 128LL << 10;
  static constexpr std::int64_t kStreamPatience = 4LL << 20;
  /// How often the services are told of what a stream brings while it runs.
  static constexpr std::chrono::seconds kTellEvery{1};
  static constexpr std::chrono::seconds kFailureHolds{1};

  ContentReads(std::shared_ptr<const FileObjectServices> services, InodeNumber item,
               std::shared_ptr<ContentFile> content);

  /// The file if the existing bytes of `range` are here, else null. Fetches the next range where this one goes on from an
  /// earlier one.
  LocalFilePtr present(ByteRange range);
  void read(ByteRange range, bool mayFetch, const Reply<LocalFilePtr>& reply);
  void fill(Reply<Done> reply);
  bool isFilling() const;
  /// The file, if it is whole.
  LocalFilePtr whole();

  /// Nobody has it open: who waits for bytes is gone, fetches that are for nobody are cancelled.
  void lastClosed();
  /// Nothing is fetched from now on. No input or output.
  void abandon();

 private:
  struct Waiter {
    ByteRange range;
    bool fills = false;
    Reply<LocalFilePtr> reply;
    bool inOrder = false;  // goes on from an earlier read
  };
  struct Running {
    /// What is expected to come is from here on; everything if it is whole.
    ByteRange asked;
    bool isWhole = false;
    ContentSource source;
    std::shared_ptr<ContentFetch> fetch;
    bool isCancelled = false;
    /// Of a stream: up to here everything has come.
    std::int64_t reached = 0;
    platform::NSErrorPtr failure = nullptr;  // of putting bytes into the file
  };
  using RunningPtr = std::shared_ptr<Running>;
  struct Settled {
    std::vector<std::pair<Reply<LocalFilePtr>, Answer<LocalFilePtr>>> answers;
    std::vector<RunningPtr> fetches;
  };

  void settle();
  bool settle(const Waiter& waiter, Settled& settled) REQUIRES_LOCK(mutex_);
  Answer<LocalFilePtr> fileFor(ByteRange range) REQUIRES_LOCK(mutex_);
  std::int64_t expectedAhead() const;
  RunningPtr coming(std::int64_t offset) const REQUIRES_LOCK(mutex_);
  bool streams() const { return parts_ == PartFetching::asStreams; }
  bool waitsFor(std::int64_t offset) REQUIRES_LOCK(mutex_);
  bool failureHolds() const REQUIRES_LOCK(mutex_);
  RunningPtr plan(ByteRange missing) REQUIRES_LOCK(mutex_);
  RunningPtr planFor(const Waiter& waiter, ByteRange missing) REQUIRES_LOCK(mutex_);
  RunningPtr planAhead(ByteRange read) REQUIRES_LOCK(mutex_);
  ByteRange exactly(ByteRange missing) const REQUIRES_LOCK(mutex_);
  ByteRange known(std::int64_t offset) const REQUIRES_LOCK(mutex_);
  std::int64_t endOfComing(std::int64_t offset) const REQUIRES_LOCK(mutex_);
  bool goesOn(ByteRange read) REQUIRES_LOCK(mutex_);

  void startLater(const RunningPtr& next);
  void start(const RunningPtr& running);
  platform::NSErrorPtr chooseSource(const RunningPtr& running);
  bool isLostForGood(const platform::NSError& error);
  bool cameBytes(const RunningPtr& running, std::int64_t offset, std::span<const std::byte> bytes);
  void put(const RunningPtr& running, std::int64_t offset, std::span<const std::byte> bytes);
  void streamEnded(const RunningPtr& running);
  void tellStreamed(const Running& running);
  void arrived(const RunningPtr& running, Answer<FetchedFile> answer);
  platform::NSErrorPtr take(const RunningPtr& running, const FetchedFile& file);
  bool isUntouched() const;
  bool isOfOtherVersion(const Running& running, const FetchedFile& file) const;
  void refuse(const RunningPtr& running, const platform::NSFileProviderItemPtr& now);
  void announceLength();
  void ended(const RunningPtr& running, const platform::NSErrorPtr& error);

  // Constant.
  const std::shared_ptr<const FileObjectServices> services_;
  const InodeNumber item_;
  const std::shared_ptr<ContentFile> content_;
  const PartFetching parts_;

  // Taken before the locks of the content.
  mutable platform::Mutex mutex_;
  std::vector<Waiter> waiters_ GUARDED_BY(mutex_);
  std::vector<RunningPtr> running_ GUARDED_BY(mutex_);
  platform::NSErrorPtr failure_ GUARDED_BY(mutex_);  // of the last fetch
  std::chrono::nanoseconds failedAt_ GUARDED_BY(mutex_){0};
  std::optional<std::string> refused_
      GUARDED_BY(mutex_);                    // the version that the store did not have
  int timesRefused_ GUARDED_BY(mutex_) = 0;  // in a row
  bool isAbandoned_ GUARDED_BY(mutex_) = false;
  int announcing_ GUARDED_BY(mutex_) = 0;      // lengths that the kernel does not know yet
  std::int64_t toldBytes_ GUARDED_BY(mutex_);  // the length that it knows
  std::array<std::int64_t, 4> readEnds_ GUARDED_BY(mutex_) = {-1, -1, -1,
                                                              -1};  // of several readers
  std::size_t nextReader_ GUARDED_BY(mutex_) = 0;
  std::chrono::nanoseconds toldAt_ GUARDED_BY(mutex_){0};  // the state, while a stream runs
};

}  // namespace kestrune::host
