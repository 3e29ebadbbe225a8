// Ranges of a file that are handed on as they arrive: what the store is asked for, what comes of whose version, and how a
// stream ends.
#include <algorithm>
#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "api/APIError.h"
#include "extension/test/PartialFetchTesting.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/net/URLError.h"

namespace kestrune {
namespace {

using platform::MutexLock;
using platform::NSFileProviderError;
using platform::NSRange;
using support::Answer;
using support::patternBytes;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class ContentStreamTest : public PartialFetchTesting {
 protected:
  static constexpr const char* kVersion = "1612325106-1073741824";  // of `setFile`'s item
  static constexpr std::int64_t kSize = 1 << 30;

  struct Stream {
    platform::Mutex mutex;
    std::string bytes GUARDED_BY(mutex);
    std::int64_t next GUARDED_BY(mutex) = 0;  // where the next bytes belong
    int ends GUARDED_BY(mutex) = 0;
    platform::NSFileProviderItemPtr item GUARDED_BY(mutex);
    platform::NSErrorPtr error GUARDED_BY(mutex);
  };
  struct Ended {
    std::string bytes;
    int ends = 0;
    platform::NSFileProviderItemPtr item;
    platform::NSErrorPtr error;
  };

  /// A storage that gives every range, under the tag that `tag_` says then.
  void serve() {
    setFile(kSize, {[this](const std::string& wanted) {
              MutexLock lock(mutex_);
              return Answer(206, wanted).with("ETag", tag_);
            }});
  }
  void setTag(std::string tag) {
    MutexLock lock(mutex_);
    tag_ = std::move(tag);
  }

  /// Streams a range and waits for the end. `most`: the receiver refuses what comes after so many bytes.
  Ended stream(NSRange range, const std::string& version = kVersion, std::size_t most = SIZE_MAX) {
    const auto stream = std::make_shared<Stream>();
    {
      MutexLock lock(stream->mutex);
      stream->next = range.location;
    }
    support::DetachedTasks tasks([&] {
      progress_ = extension_->streamContents(
          "/a", {version, version}, {}, range,
          [this, stream, most](std::int64_t offset, std::string_view bytes) {
            MutexLock lock(stream->mutex);
            EXPECT_EQ(offset, stream->next);
            if (stream->bytes.size() >= most) return false;
            stream->bytes += bytes;
            stream->next += static_cast<std::int64_t>(bytes.size());
            if (cancels_) progress_->cancel();
            return true;
          },
          [stream](const platform::NSFileProviderItemPtr& item, const platform::NSErrorPtr& error) {
            MutexLock lock(stream->mutex);
            ++stream->ends;
            stream->item = item;
            stream->error = error;
          });
    });
    EXPECT_TRUE(tasks.waitUntilEnded());
    MutexLock lock(stream->mutex);
    EXPECT_EQ(stream->ends, 1);
    return {stream->bytes, stream->ends, stream->item, stream->error};
  }
  static std::string expected(NSRange range) {
    return patternBytes(static_cast<std::uint64_t>(range.location),
                        static_cast<std::size_t>(range.length));
  }

  platform::Mutex mutex_;
  std::string tag_ GUARDED_BY(mutex_) = "\"first\"";
  platform::NSProgressPtr progress_;
  bool cancels_ = false;
};

TEST_F(ContentStreamTest, BringsExactlyTheRangeAndLeavesNoFile) {
  serve();
  const NSRange range{5 * kMiB + 3, 3 * kMiB + 5};
  const Ended ended = stream(range);
  EXPECT_EQ(ended.error, nullptr);
  EXPECT_EQ(ended.item, nullptr);
  EXPECT_TRUE(ended.bytes == expected(range));
  EXPECT_THAT(ranges(), ElementsAre("bytes=5242883-8388615"));
  EXPECT_EQ(progress_->completedUnitCount(), range.length);
  EXPECT_THAT(service_.storage().temporaryNames(), IsEmpty());
}

TEST_F(ContentStreamTest, GathersBytesInMemoryThatIsLentAndNeverTwiceInTheSame) {
  serve();
  const auto storageIgnoresRange = Answer(200, expected({0, 9 * kMiB}));
  for (const bool isWhole : {false, true}) {
    SCOPED_TRACE(isWhole);
    if (isWhole) service_.http().next("GET", "/storage/0", storageIgnoresRange);
    std::deque<std::string> memory;
    std::string got;
    std::vector<std::pair<std::string_view, std::string>> inPlace;  // where, and what it was
    std::int64_t bytesInPlace = 0;
    int held = 0;
    const auto take = [&](std::int64_t, std::string_view bytes) {
      const auto holds = [bytes](const std::string& each) {
        return each.data() <= bytes.data() && bytes.data() < each.data() + each.size();
      };
      if (std::ranges::any_of(memory, holds)) {
        inPlace.emplace_back(bytes, bytes);
        bytesInPlace += static_cast<std::int64_t>(bytes.size());
      }
      got += bytes;
      return true;
    };
    const auto lend = [&]() -> platform::ByteBuffer {
      if (++held > 4) ADD_FAILURE() << "memory is not let go";
      memory.emplace_back(platform::ContentStreaming::kLentBytes, '\0');
      return {std::span(memory.back()), [&held] { --held; }};
    };
    const NSRange range{kMiB + 3, 8 * kMiB - 3};
    support::DetachedTasks tasks([&] {
      extension_->streamContents("/a", {kVersion, kVersion}, {}, range, {take, lend},
                                 [](const auto&, const auto& error) { EXPECT_FALSE(error); });
    });
    EXPECT_TRUE(tasks.waitUntilEnded());
    EXPECT_TRUE(got == expected(range));
    EXPECT_GT(bytesInPlace, 5 * kMiB);  // not what came before there was any
    EXPECT_EQ(held, 0);
    for (const auto& [place, bytes] : inPlace) EXPECT_TRUE(place == bytes) << "written over";
  }
}

TEST_F(ContentStreamTest, LaterRangesOfAVersionTakeOneRequest) {
  serve();
  stream({0, 100});
  EXPECT_TRUE(stream({kMiB, 100}).bytes == expected({kMiB, 100}));
  EXPECT_TRUE(stream({7 * kMiB, 100}).bytes == expected({7 * kMiB, 100}));
  EXPECT_EQ(service_.listingCount(), 1U);
  EXPECT_EQ(service_.presignCount(), 1U);
  EXPECT_THAT(ranges(), SizeIs(3));
}

TEST_F(ContentStreamTest, WithoutAStrongTagEachRangeAsksForTheVersion) {
  for (const char* tag : {"", "W/\"weak\""}) {
    SCOPED_TRACE(tag);
    serve();
    setTag(tag);
    const std::size_t before = service_.listingCount();
    stream({0, 100});
    stream({kMiB, 100});
    EXPECT_EQ(service_.listingCount(), before + 2);
  }
}

TEST_F(ContentStreamTest, AnotherTagIsNotTakenForTheSameVersion) {
  serve();
  stream({0, 100});
  setTag("\"second\"");
  service_.setListing("/", {{.name = "a", .size = kSize, .modifiedAt = "2022-01-01T00:00:00Z"}});
  const Ended ended = stream({kMiB, 100});
  EXPECT_THAT(ended.bytes, IsEmpty());
  ASSERT_NE(ended.error, nullptr);
  EXPECT_EQ(ended.error->code(), NSFileProviderError::versionNoLongerAvailable);
  ASSERT_NE(ended.item, nullptr);
  EXPECT_EQ(ended.item->itemVersion()->contentVersion, "1640995200-1073741824");
  EXPECT_THAT(sleeper_->durations(), IsEmpty());  // asking again would not bring the version back
}

TEST_F(ContentStreamTest, AnotherTagOfTheVersionThatIsListedIsTaken) {
  serve();
  stream({0, 100});
  setTag("\"second\"");
  EXPECT_TRUE(stream({kMiB, 100}).bytes == expected({kMiB, 100}));
  EXPECT_EQ(service_.listingCount(), 2U);
}

TEST_F(ContentStreamTest, AnAddressThatIsRefusedIsAskedForAnew) {
  serve();
  stream({0, 100});
  service_.http().next("GET", "/storage/0", Answer(403));
  EXPECT_TRUE(stream({kMiB, 100}).bytes == expected({kMiB, 100}));
  EXPECT_EQ(service_.presignCount(), 2U);
  EXPECT_THAT(sleeper_->durations(), IsEmpty());
}

TEST_F(ContentStreamTest, AVersionThatTheListingDoesNotHaveBringsNoByte) {
  serve();
  const Ended ended = stream({0, 100}, "1612325106-5");
  EXPECT_THAT(ended.bytes, IsEmpty());
  ASSERT_NE(ended.error, nullptr);
  EXPECT_EQ(ended.error->code(), NSFileProviderError::versionNoLongerAvailable);
  ASSERT_NE(ended.item, nullptr);
  EXPECT_EQ(ended.item->itemVersion()->contentVersion, kVersion);
  EXPECT_THAT(ranges(), IsEmpty());
}

TEST_F(ContentStreamTest, AFileThatIsNotListedIsNoSuchItem) {
  serve();
  service_.setListing("/", {});
  const Ended ended = stream({0, 100});
  ASSERT_NE(ended.error, nullptr);
  EXPECT_EQ(ended.error->code(), NSFileProviderError::noSuchItem);
  EXPECT_EQ(ended.item, nullptr);
  EXPECT_THAT(sleeper_->durations(), IsEmpty());
}

TEST_F(ContentStreamTest, AServiceThatCannotBeAskedForTheVersionIsTheAnswerAtOnce) {
  serve();
  service_.http().on("GET", "/files", Answer(503));
  const Ended ended = stream({0, 100});
  ASSERT_NE(ended.error, nullptr);
  EXPECT_EQ(ended.error->domain(), APIError::kDomain);
  EXPECT_THAT(sleeper_->durations(), IsEmpty());
  EXPECT_THAT(ranges(), IsEmpty());
}

TEST_F(ContentStreamTest, AnAddressThatCannotBeReachedAnyMoreIsAskedForAnew) {
  serve();
  stream({0, 100});
  service_.http().next("GET", "/storage/0", Answer(206, "x").resettingInHead(0));
  EXPECT_TRUE(stream({kMiB, 100}).bytes == expected({kMiB, 100}));
}

TEST_F(ContentStreamTest, AConnectionThatBreaksGoesOnAtTheFirstMissingByte) {
  serve();
  service_.http().next("GET", "/storage/0",
                       Answer(206, expected({0, 3 * kMiB})).closingAt(kMiB + 7));
  const Ended ended = stream({0, 3 * kMiB});
  EXPECT_EQ(ended.error, nullptr);
  EXPECT_TRUE(ended.bytes == expected({0, 3 * kMiB}));
  EXPECT_THAT(ranges(), ElementsAre("bytes=0-3145727", "bytes=1048583-3145727"));
}

TEST_F(ContentStreamTest, AnAnswerThatIsAnotherRangeIsNotTaken) {
  serve();
  service_.http().next(
      "GET", "/storage/0",
      Answer(206, std::string(100, 'x')).with("Content-Range", "bytes 0-99/1073741824"));
  EXPECT_TRUE(stream({kMiB, 100}).bytes == expected({kMiB, 100}));
  EXPECT_THAT(sleeper_->durations(), SizeIs(1));
}

TEST_F(ContentStreamTest, OfAWholeFileTheRangeIsTaken) {
  serve();
  service_.http().next("GET", "/storage/0", Answer(200, expected({0, 2 * kMiB})));
  EXPECT_TRUE(stream({kMiB + 1, 1000}).bytes == expected({kMiB + 1, 1000}));
  EXPECT_THAT(ranges(), SizeIs(1));
}

TEST_F(ContentStreamTest, AfterSixFailuresTheLastOneIsTheAnswer) {
  serve();
  service_.http().on("GET", "/storage/0", Answer(503));
  const Ended ended = stream({0, 100});
  ASSERT_NE(ended.error, nullptr);
  EXPECT_EQ(ended.error->code(), NSFileProviderError::serverUnreachable);
  EXPECT_THAT(ranges(), SizeIs(6));
}

TEST_F(ContentStreamTest, EmptyAnswersAreFailuresToo) {
  serve();
  service_.http().on("GET", "/storage/0", Answer(206, ""));
  const Ended ended = stream({0, 100});
  ASSERT_NE(ended.error, nullptr);
  EXPECT_EQ(ended.error->code(), platform::URLError::networkConnectionLost);
  EXPECT_THAT(ranges(), SizeIs(6));
}

TEST_F(ContentStreamTest, AReceiverWhoWantsNoMoreEndsIt) {
  serve();
  const Ended ended = stream({0, 64 * kMiB}, kVersion, 1);
  EXPECT_EQ(ended.error, nullptr);
  EXPECT_LT(ended.bytes.size(), 4U * kMiB);
  EXPECT_TRUE(ended.bytes == expected({0, static_cast<std::int64_t>(ended.bytes.size())}));
}

TEST_F(ContentStreamTest, ItEndsWhenItsProgressIsCancelled) {
  serve();
  cancels_ = true;
  const Ended ended = stream({0, 64 * kMiB});
  EXPECT_EQ(ended.error, nullptr);
  EXPECT_LT(ended.bytes.size(), 4U * kMiB);
}

}  // namespace
}  // namespace kestrune
