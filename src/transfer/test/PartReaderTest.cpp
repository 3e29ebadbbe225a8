#include "transfer/PartReader.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/values/NSError.h"
#include "tests/support/Answer.h"
#include "tests/support/RunTask.h"
#include "tests/support/TemporaryDirectory.h"
#include "transfer/MPError.h"

namespace kestrune {
namespace {

using platform::FileHandle;
using platform::NSErrorPtr;
using platform::NSPOSIXError;
using support::failureOf;
using support::patternBytes;
using support::runTask;
using support::startTask;

class PartReaderTest : public testing::Test {
 protected:
  static constexpr std::int64_t kFileBytes = 100'000;

  void SetUp() override {
    open(directory_.write("source.bin", patternBytes(0, static_cast<std::size_t>(kFileBytes))));
  }
  void open(const std::filesystem::path& file) { reader_.emplace(FileHandle::forReading(file)); }

  PartReader::Bytes read(std::int64_t offset, std::int64_t length) {
    return runTask(reader_->read({1, offset, length}));
  }
  static std::string expected(std::int64_t offset, std::int64_t length) {
    return patternBytes(static_cast<std::uint64_t>(offset), static_cast<std::size_t>(length));
  }

  const support::TemporaryDirectory directory_;
  std::optional<PartReader> reader_;
};

TEST_F(PartReaderTest, ReadsAnyRangeInAnyOrder) {
  const std::pair<std::int64_t, std::int64_t> ranges[] = {
      {50'000, 10}, {0, 1}, {kFileBytes - 1, 1}, {0, kFileBytes}, {1, 99'998}, {7, 0}};
  for (const auto& [offset, length] : ranges) {
    EXPECT_EQ(*read(offset, length), expected(offset, length)) << offset << "+" << length;
  }
}

TEST_F(PartReaderTest, FileThatEndsInsideThePartIsAShortRead) {
  const struct {
    FilePart part;
    std::string description;
  } cases[] = {
      {{3, kFileBytes - 10, 11}, "file read: part 3 short read 10/11"},
      {{12, kFileBytes, 1}, "file read: part 12 short read 0/1"},
      {{2, kFileBytes + 500, 10'485'760}, "file read: part 2 short read 0/10485760"},
      {{1, 0, 1'000'000}, "file read: part 1 short read 100000/1000000"},
  };
  for (const auto& [part, description] : cases) {
    const NSErrorPtr failure = failureOf(reader_->read(part));
    const auto* error = dynamic_cast<const MPError*>(failure.get());
    ASSERT_NE(error, nullptr) << description;
    EXPECT_EQ(error->which(), MPError::Case::readFailed);
    EXPECT_EQ(error->localizedDescription(), description);
  }
  EXPECT_EQ(*read(0, 10), expected(0, 10)) << "the next part is read all the same";
}

TEST_F(PartReaderTest, ErrorOfSeekingPassesUnchanged) {
  const auto pipe = directory_.path() / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  open(pipe);
  const NSErrorPtr failure = failureOf(reader_->read({1, 0, 1}));
  ASSERT_NE(dynamic_cast<const NSPOSIXError*>(failure.get()), nullptr);
  EXPECT_EQ(failure->code(), ESPIPE);
}

TEST_F(PartReaderTest, ErrorOfReadingPassesUnchanged) {
  open(directory_.path());
  const NSErrorPtr failure = failureOf(reader_->read({1, 0, 1}));
  ASSERT_NE(dynamic_cast<const NSPOSIXError*>(failure.get()), nullptr);
  EXPECT_EQ(failure->code(), EISDIR);
}

TEST_F(PartReaderTest, EachReadSeesTheFileAsItIsThen) {
  EXPECT_EQ(*read(0, 5), expected(0, 5));
  directory_.write("source.bin", "other bytes");
  EXPECT_EQ(*read(0, 5), "other");
}

TEST_F(PartReaderTest, BufferThatNobodyHoldsIsUsedAgain) {
  auto first = read(0, 50'000);
  const char* const address = first->data();
  first.reset();
  const auto second = read(30'000, 40'000);
  EXPECT_EQ(second->data(), address);
  EXPECT_EQ(*second, expected(30'000, 40'000));
}

TEST_F(PartReaderTest, BufferThatIsHeldStaysAsItIs) {
  const auto held = read(0, 50'000);
  const auto other = read(50'000, 50'000);
  EXPECT_NE(held->data(), other->data());
  EXPECT_EQ(*held, expected(0, 50'000));
}

TEST_F(PartReaderTest, AsManyBuffersAreMadeAsAreHeldAtOnce) {
  std::vector<const char*> addresses;
  for (int round = 0; round < 5; ++round) {
    std::vector<PartReader::Bytes> held;
    for (int i = 0; i < 3; ++i) {
      held.push_back(read(i * 1'000, 50'000));
      addresses.push_back(held.back()->data());
    }
  }
  std::ranges::sort(addresses);
  const auto repeated = std::ranges::unique(addresses);
  addresses.erase(repeated.begin(), repeated.end());
  EXPECT_EQ(addresses.size(), 3U);
}

TEST_F(PartReaderTest, BufferOfAShortReadIsUsedAgain) {
  auto first = read(0, 50'000);
  const char* const address = first->data();
  first.reset();
  EXPECT_NE(failureOf(reader_->read({1, kFileBytes - 1, 50'000})), nullptr);
  EXPECT_EQ(read(0, 50'000)->data(), address);
}

TEST_F(PartReaderTest, BytesOutliveTheReader) {
  const auto held = read(100, 50'000);
  reader_.reset();
  EXPECT_EQ(*held, expected(100, 50'000));
}

TEST_F(PartReaderTest, ReaderMayGoWithBuffersIdleAndOthersHeld) {
  const auto held = read(0, 50'000);
  { const auto idle = read(0, 50'000); }
  reader_.reset();
  EXPECT_EQ(*held, expected(0, 50'000));
}

TEST_F(PartReaderTest, ManyPartsReadAtOnceEachGetTheirOwnBytes) {
  constexpr std::int64_t kParts = 100;
  constexpr std::int64_t kLength = kFileBytes / kParts;
  std::vector<support::RunningTask<PartReader::Bytes>> reads;
  for (std::int64_t i = 0; i < kParts; ++i) {
    reads.push_back(startTask(reader_->read({i + 1, i * kLength, kLength})));
  }
  std::vector<PartReader::Bytes> held;
  for (std::int64_t i = 0; i < kParts; ++i) {
    held.push_back(reads[static_cast<std::size_t>(i)].value());
  }
  for (std::int64_t i = 0; i < kParts; ++i) {
    EXPECT_EQ(*held[static_cast<std::size_t>(i)], expected(i * kLength, kLength)) << i;
  }
}

}  // namespace
}  // namespace kestrune
