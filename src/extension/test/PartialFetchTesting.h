// Partial fetches of one file in front of a scripted storage, with everything that they are told and asked for written
// down.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "extension/test/ExtensionTesting.h"
#include "platform/files/Directories.h"
#include "platform/values/Json.h"
#include "status/SyncStatusStore.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Waiting.h"

namespace kestrune {

class PartialFetchTesting : public ExtensionTesting {
 protected:
  static constexpr std::int64_t kMiB = 1 << 20;

  /// What the completion handler was given, and how things stood then.
  struct Outcome {
    int calls = 0;
    std::optional<std::filesystem::path> url;
    platform::NSFileProviderItemPtr item;
    platform::NSRange range{-1, -1};
    platform::NSFileProviderMaterializationFlags flags =
        platform::NSFileProviderMaterializationFlags::knownSparseRanges;
    platform::NSErrorPtr error;
    std::int64_t progress = -1;
    std::vector<SyncTransfer> transfers;
  };

  /// One fetch that was started. Copies are the same fetch.
  class Fetch {
   public:
    bool waitUntilEnded() const { return tasks_->waitUntilEnded(); }
    Outcome outcome() const {
      platform::MutexLock lock(kept_->mutex);
      return kept_->outcome;
    }
    platform::NSProgress& progress() const { return *kept_->progress; }

   private:
    friend class PartialFetchTesting;
    struct Kept {
      platform::NSProgressPtr progress;  // set before the task runs
      mutable platform::Mutex mutex;
      Outcome outcome GUARDED_BY(mutex);
    };
    std::shared_ptr<Kept> kept_ = std::make_shared<Kept>();
    std::shared_ptr<support::DetachedTasks> tasks_;
  };

  /// What the storage answers to a request, given the bytes that were asked for.
  using Reply = std::function<support::Answer(const std::string& wanted)>;

  // Some tests take the directory away in the middle of a fetch.
  PartialFetchTesting() { platform::setTemporaryDirectory(service_.storage().temporary()); }
  ~PartialFetchTesting() override {
    EXPECT_TRUE(transfers().empty()) << "a transfer stays registered";
  }

  // Answers of the storage
  static Reply wanted() {
    return [](const std::string& bytes) { return support::Answer(206, bytes); };
  }
  static Reply fixed(support::Answer answer) {
    return [answer = std::move(answer)](const std::string&) { return answer; };
  }
  /// The first `count` bytes, and that is all there is.
  static Reply onlyFirst(std::size_t count) {
    return
        [count](const std::string& bytes) { return support::Answer(206, bytes.substr(0, count)); };
  }
  /// Breaks off after `count` bytes, all of which arrive.
  static Reply breakingOffAfter(std::size_t count) {
    return
        [count](const std::string& bytes) { return support::Answer(206, bytes).closingAt(count); };
  }

  /// Puts a file of `size` bytes of the pattern at "/a". The storage gives one reply after the other,
  /// the last one for ever.
  void setFile(std::int64_t size, std::vector<Reply> replies = {wanted()}) {
    service_.setListing(
        "/", {{.name = "other", .size = 1}, {.name = "a", .size = size, .modifiedAt = kModified}});
    if (!hasAddress_) service_.setContents("/a", {});
    hasAddress_ = true;
    const auto next = std::make_shared<std::atomic<std::size_t>>(0);
    service_.http().on(
        "GET", "/storage/0", [replies, next](const support::ReceivedRequest& request) {
          const std::size_t number = std::min(next->fetch_add(1), replies.size() - 1);
          return replies[number](bytesFor(request));
        });
  }
  /// What the next request for an address is answered with.
  void nextPresign(const support::Answer& answer) {
    service_.http().next("POST", "/files/presign-download", answer);
  }
  static support::Answer presigned(const std::string& url) {
    return support::Answer(200,
                           platform::Json{{"url", url}, {"method", "GET"}, {"path", "/a"}}.dump());
  }

  /// Asks for a range of `identifier`. `onReturn` runs before the task does.
  Fetch startOf(const std::string& identifier, platform::NSRange requested, std::int64_t alignment,
                const std::function<void(platform::NSProgress&)>& onReturn = nullptr) {
    Fetch fetch;
    fetch.tasks_ = std::make_shared<support::DetachedTasks>([&] {
      auto progress = extension_->fetchPartialContents(
          identifier, {}, {}, requested, alignment, {},
          [this, kept = fetch.kept_](const auto& url, const auto& item, auto range, auto flags,
                                     const auto& error) {
            auto running = transfers();
            platform::MutexLock lock(kept->mutex);
            kept->outcome = {kept->outcome.calls + 1,
                             url,
                             item,
                             range,
                             flags,
                             error,
                             kept->progress->completedUnitCount(),
                             std::move(running)};
          });
      if (onReturn) onReturn(*progress);
      fetch.kept_->progress = std::move(progress);
    });
    return fetch;
  }
  Fetch start(platform::NSRange requested, std::int64_t alignment = 0) {
    return startOf("/a", requested, alignment);
  }
  static Outcome ended(const Fetch& fetch) {
    EXPECT_TRUE(fetch.waitUntilEnded());
    EXPECT_EQ(fetch.outcome().calls, 1);
    return fetch.outcome();
  }
  Outcome fetch(platform::NSRange requested, std::int64_t alignment = 0) {
    return ended(start(requested, alignment));
  }

  /// The transfers in the status file now; none if there is no file.
  std::vector<SyncTransfer> transfers() const {
    SyncStatusStore::shared().drain();
    if (!std::filesystem::exists(statusFile())) return {};
    return SyncStatus::decode(support::contentsOf(statusFile())).transfers;
  }
  std::filesystem::path statusFile() const {
    return service_.storage().shared() / "sync-status.json";
  }
  /// Of the one transfer that runs; -1 if there is none.
  std::int64_t bytesTransferred() const {
    const auto running = transfers();
    return running.empty() ? -1 : running.front().bytesTransferred;
  }

  /// The "Range" headers that the storage has received, in order.
  std::vector<std::string> ranges() {
    std::vector<std::string> found;
    for (const auto& request : service_.http().requests()) {
      if (request.target.starts_with("/storage/"))
        found.push_back(request.header("Range").value_or("none"));
    }
    return found;
  }
  /// The lines of fetches, without those of an extension's beginning.
  std::vector<std::string> lines() const {
    auto messages = log_.messages();
    std::erase_if(messages, [](const auto& line) { return line.starts_with("init "); });
    return messages;
  }

  /// `count` bytes of a local file from `offset` on; fewer at its end.
  static std::string bytesOf(const std::filesystem::path& file, std::int64_t offset,
                             std::size_t count) {
    std::ifstream stream(file, std::ios::binary);
    stream.seekg(offset);
    std::string bytes(count, '\0');
    stream.read(bytes.data(), static_cast<std::streamsize>(count));
    bytes.resize(static_cast<std::size_t>(stream.gcount()));
    return bytes;
  }
  /// Checks that the fetch succeeded with exactly this range of the pattern, in a file of `size`
  /// bytes that holds nothing else.
  void expectDelivered(const Outcome& outcome, platform::NSRange range, std::int64_t size) const {
    ASSERT_TRUE(outcome.url) << (outcome.error ? outcome.error->what() : "no file");
    EXPECT_EQ(outcome.error, nullptr);
    EXPECT_EQ(outcome.range, range);
    EXPECT_EQ(outcome.flags, platform::NSFileProviderMaterializationFlags::none);
    EXPECT_EQ(std::filesystem::file_size(*outcome.url), static_cast<std::uint64_t>(size));
    const auto length = static_cast<std::size_t>(range.length);
    EXPECT_TRUE(bytesOf(*outcome.url, range.location, length) ==
                support::patternBytes(static_cast<std::uint64_t>(range.location), length));
    struct stat status {};
    ASSERT_EQ(::stat(outcome.url->c_str(), &status), 0);
    EXPECT_LE(status.st_blocks * 512, range.length + 64 * 1024) << "the file is not sparse";
    ASSERT_NE(outcome.item, nullptr);
  }
  /// Checks that the fetch failed so and left nothing behind.
  void expectError(const Outcome& outcome, const char* domain, std::int64_t code,
                   const std::string& what = {}) const {
    EXPECT_EQ(outcome.url, std::nullopt) << what;
    EXPECT_EQ(outcome.item, nullptr) << what;
    EXPECT_EQ(outcome.range, platform::NSRange()) << what;
    EXPECT_EQ(outcome.flags, platform::NSFileProviderMaterializationFlags::none) << what;
    ASSERT_NE(outcome.error, nullptr) << what;
    EXPECT_EQ(outcome.error->domain(), domain) << what;
    EXPECT_EQ(outcome.error->code(), code) << what;
    EXPECT_THAT(outcome.transfers, testing::IsEmpty()) << what;
    EXPECT_THAT(service_.storage().temporaryNames(), testing::IsEmpty()) << what;
  }

  static constexpr const char* kModified = "2021-02-03T04:05:06Z";
  std::shared_ptr<FileProviderExtension> extension_ = makeExtension();

 private:
  bool hasAddress_ = false;

  // The pattern's bytes that a "Range" header asks for; none if it has another form.
  static std::string bytesFor(const support::ReceivedRequest& request) {
    long long first = 0;
    long long last = 0;
    const std::string range = request.header("Range").value_or("");
    if (std::sscanf(range.c_str(), "bytes=%lld-%lld", &first, &last) != 2) return {};
    return support::patternBytes(static_cast<std::uint64_t>(first),
                                 static_cast<std::size_t>(last - first + 1));
  }
};

}  // namespace kestrune
