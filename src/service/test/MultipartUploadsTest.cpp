#include "service/MultipartUploads.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>

#include "service/Folders.h"
#include "service/ServiceError.h"
#include "service/test/RunningService.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;
using NamedPart = MultipartUploads::NamedPart;

constexpr std::size_t kPart = 2U << 20U;
constexpr std::int64_t kNow = 1'700'000'000;

unsigned refusalOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const ServiceError& error) {
    return error.status();
  }
  return 0;
}

class MultipartUploadsTest : public ::testing::Test {
 protected:
  MultipartUploadsTest() {
    fs::create_directory(files.path() / "root");
    tree.emplace(files.path() / "root", platform::Durability::atomic);
    staging.emplace(files.path() / "staging", files.path() / "root", *tree);
    uploads.emplace(*staging);
    upload = uploads->open(kNow);
  }

  MultipartUploads::Slot begin(int number, const std::string& bytes) {
    return uploads->beginPart(upload.id, number, bytes.size());
  }
  NamedPart finish(const MultipartUploads::Slot& slot, const std::string& bytes) {
    slot.draft->write(slot.offset, bytes.data(), bytes.size());
    return {slot.number, "\"" + uploads->finishPart(upload.id, slot, bytes.size(), kNow) + "\""};
  }
  NamedPart put(int number, const std::string& bytes) {
    return finish(begin(number, bytes), bytes);
  }

  void complete(const std::vector<NamedPart>& parts) {
    uploads->complete(upload.key, upload.id, parts);
  }
  std::string object() const {
    return support::contentsOf(files.path() / "staging/objects" / upload.key);
  }
  std::size_t draftCount() const {
    return namesIn(FileDescriptor(
                       ::open((files.path() / "staging/drafts").c_str(), O_RDONLY | O_DIRECTORY))
                       .get())
        .size();
  }

  support::TemporaryDirectory files;
  std::optional<Tree> tree;
  std::optional<Staging> staging;
  std::optional<MultipartUploads> uploads;
  MultipartUploads::Opened upload;
};

TEST_F(MultipartUploadsTest, PartsInAnyOrderBecomeOneObject) {
  const std::string a = patternBytes(kPart, 1);
  const std::string b = patternBytes(kPart, 2);
  const std::string c = patternBytes(1000, 3);
  const int orders[][3] = {{1, 2, 3}, {3, 2, 1}, {2, 3, 1}, {3, 1, 2}};
  for (const auto& order : orders) {
    upload = uploads->open(kNow);
    std::map<int, NamedPart> parts;
    for (const int number : order)
      parts[number] = put(number, number == 1 ? a : number == 2 ? b : c);
    complete({parts[1], parts[2], parts[3]});
    EXPECT_EQ(object(), a + b + c);
    EXPECT_EQ(draftCount(), 0U);
  }
}

TEST_F(MultipartUploadsTest, PartsOfEqualLengthAreWrittenWhereTheyBelong) {
  const std::string a = patternBytes(kPart, 1);
  const auto first = begin(1, a);
  const auto third = begin(3, a);
  EXPECT_EQ(first.draft, third.draft);
  EXPECT_EQ(third.offset, 2 * kPart);
  EXPECT_EQ(draftCount(), 1U);
}

TEST_F(MultipartUploadsTest, AWrongGuessOfTheLengthGivesTheSameObject) {
  // The short last part comes first, and is large enough to be taken for the measure.
  const std::string last = patternBytes(kPart / 2, 3);
  const std::string a = patternBytes(kPart, 1);
  const std::string b = patternBytes(kPart / 2, 2);
  const NamedPart third = put(3, last);
  const NamedPart first = put(1, a);
  const NamedPart second = put(2, b);
  complete({first, second, third});
  EXPECT_EQ(object(), a + b + last);
}

TEST_F(MultipartUploadsTest, ARepeatedPartReplacesTheFirst) {
  const std::string a = patternBytes(kPart, 1);
  const std::string b = patternBytes(kPart, 2);
  const std::string c = patternBytes(kPart, 3);
  const NamedPart old = put(1, a);
  const NamedPart second = put(2, b);
  const NamedPart fresh = put(1, c);
  EXPECT_EQ(refusalOf([&] { complete({old, second}); }), 400U);
  complete({fresh, second});
  EXPECT_EQ(object(), c + b);
}

TEST_F(MultipartUploadsTest, ASlowDoubleOfAPartCannotChangeTheObject) {
  const std::string a = patternBytes(kPart, 1);
  const std::string b = patternBytes(kPart, 2);
  const auto slow = begin(1, a);
  const NamedPart fresh = put(1, b);
  const NamedPart second = put(2, a);
  slow.draft->write(slow.offset, a.data(), a.size() / 2);
  complete({fresh, second});
  slow.draft->write(slow.offset, a.data(), a.size());
  EXPECT_EQ(object(), b + a);
  EXPECT_EQ(refusalOf([&] { uploads->finishPart(upload.id, slow, a.size(), kNow); }), 404U);
}

TEST_F(MultipartUploadsTest, AFailedPartFreesItsPlace) {
  const std::string a = patternBytes(kPart, 1);
  const auto failed = begin(1, a);
  uploads->failPart(upload.id, failed);
  const auto again = begin(1, a);
  EXPECT_TRUE(again.inPlace);
  complete({finish(again, a)});
  EXPECT_EQ(object(), a);
}

TEST_F(MultipartUploadsTest, PartsThatAreNotNamedAreNotInTheObject) {
  const std::string a = patternBytes(kPart, 1);
  const std::string b = patternBytes(kPart, 2);
  const NamedPart first = put(1, a);
  put(2, b);
  const NamedPart third = put(3, b);
  complete({first, third});
  EXPECT_EQ(object(), a + b);
}

TEST_F(MultipartUploadsTest, ListsThatMeanNothingAreRefusedAndTheUploadStaysOpen) {
  const NamedPart first = put(1, "a");
  const NamedPart second = put(2, "b");
  EXPECT_EQ(refusalOf([&] { complete({}); }), 400U);
  EXPECT_EQ(refusalOf([&] { complete({second, first}); }), 400U);
  EXPECT_EQ(refusalOf([&] { complete({first, first}); }), 400U);
  EXPECT_EQ(refusalOf([&] { complete({first, {3, second.tag}}); }), 400U);
  EXPECT_EQ(refusalOf([&] { complete({first, {2, first.tag}}); }), 400U);
  EXPECT_EQ(refusalOf([&] { uploads->complete("other", upload.id, {first}); }), 404U);
  complete({first, second});
  EXPECT_EQ(object(), "ab");
  EXPECT_EQ(refusalOf([&] { complete({first, second}); }), 404U);
}

TEST_F(MultipartUploadsTest, ACompletionThatFailsLosesNoPart) {
  const std::string a = patternBytes(kPart, 1);
  const std::string b = patternBytes(kPart, 2);
  const std::string c = patternBytes(1000, 3);
  const NamedPart first = put(1, a);
  const NamedPart second = put(2, b);
  const NamedPart third = put(3, c);
  const fs::path inTheWay = files.path() / "staging/objects" / upload.key;
  // The first list ends before the second part, the other puts the third part where it lies.
  for (const auto& list : {std::vector{first}, std::vector{first, third}}) {
    fs::create_directory(inTheWay);
    EXPECT_EQ(refusalOf([&] { complete(list); }), 409U);
    fs::remove(inTheWay);
  }
  complete({first, second, third});
  EXPECT_TRUE(object() == a + b + c);
}

TEST_F(MultipartUploadsTest, OnlyOpenUploadsAndNumbersInRangeGetAURL) {
  uploads->check(upload.key, upload.id, 1);
  uploads->check(upload.key, upload.id, 10'000);
  for (const std::int64_t number : {0L, -1L, 10'001L, INT64_MAX, INT64_MIN}) {
    EXPECT_EQ(refusalOf([&] { uploads->check(upload.key, upload.id, number); }), 400U);
  }
  EXPECT_EQ(refusalOf([&] { uploads->check(upload.key, "other", 1); }), 404U);
  EXPECT_EQ(refusalOf([&] { uploads->check("other", upload.id, 1); }), 404U);
}

TEST_F(MultipartUploadsTest, AnAbortFreesEverythingAndMayComeTwice) {
  put(1, patternBytes(kPart, 1));
  put(2, "short");
  uploads->abort(upload.key, upload.id);
  EXPECT_EQ(draftCount(), 0U);
  EXPECT_EQ(refusalOf([&] { begin(3, "x"); }), 404U);
  uploads->abort(upload.key, upload.id);
}

TEST_F(MultipartUploadsTest, AnAbortAfterCompletionDropsTheObject) {
  complete({put(1, "a")});
  uploads->abort(upload.key, upload.id);
  EXPECT_FALSE(fs::exists(files.path() / "staging/objects" / upload.key));
}

TEST_F(MultipartUploadsTest, AbandonedUploadsAreForgottenAfterADay) {
  put(1, "a");
  uploads->sweep(kNow + 23 * 3600);
  EXPECT_EQ(draftCount(), 1U);
  uploads->sweep(kNow + 24 * 3600);
  EXPECT_EQ(draftCount(), 0U);
  EXPECT_EQ(refusalOf([&] { uploads->check(upload.key, upload.id, 1); }), 404U);
}

TEST_F(MultipartUploadsTest, AnUploadWithAPartOnItsWayIsNotAbandoned) {
  for (const std::string& bytes : {std::string("short"), patternBytes(kPart, 1)}) {
    const auto slot = begin(1, bytes);
    uploads->sweep(kNow + 48 * 3600);
    finish(slot, bytes);
    const auto failed = begin(2, bytes);
    uploads->failPart(upload.id, failed);
  }
  uploads->sweep(kNow + 24 * 3600);
  EXPECT_EQ(refusalOf([&] { uploads->check(upload.key, upload.id, 1); }), 404U);
}

TEST_F(MultipartUploadsTest, ThereIsABoundToOpenUploads) {
  unsigned refused = 0;
  for (int i = 0; i < 1500 && refused == 0; ++i) refused = refusalOf([&] { uploads->open(kNow); });
  EXPECT_EQ(refused, 503U);
}

}  // namespace
}  // namespace kestrune::service
