// New files and folders that reach the store, and names that never may.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <variant>
#include <vector>

#include "extension/test/ChangeTesting.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "tests/support/Waiting.h"

namespace kestrune {
namespace {

using platform::dateNow;
using platform::NSFileProviderError;
using platform::UTType;
using support::Answer;
using support::waitUntil;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint64_t kLimit = 16'777'216;

class CreateItemTest : public ChangeTesting {
 protected:
  /// Creates "/x" with contents that are sent in one request.
  void expectOneRequestFor(std::uint64_t bytes) {
    acceptSmallFiles();
    const auto before = dateNow();
    const Changed changed = create({.name = "x"}, sparseFile(bytes)).finish();
    expectNewItem(changed, "/x", before);
    ASSERT_NE(changed.item, nullptr);
    EXPECT_EQ(changed.item->documentSize(), static_cast<std::int64_t>(bytes));
    EXPECT_THAT(requests(), ElementsAre(R"(POST /files/direct-presign-upload {"path":"/x"})",
                                        "PUT /bucket/object?signature=s%2F1",
                                        R"(POST /files/direct-import {"key":"k-1","path":"/x"})"));
    EXPECT_EQ(onlyRequest("PUT", "/bucket/object").bodyBytes, bytes);
  }

  void expectJunk(const std::string& name) {
    for (const auto& type : {std::optional<UTType>(), std::optional(UTType::folder())}) {
      const std::size_t earlier = lines().size();
      const ChangeCall call = create({.name = name, .type = type}, fileWith("x"));
      const Changed changed = call.answer();
      EXPECT_EQ(changed.calls, 1) << name;
      EXPECT_TRUE(changed.onCallersThread);
      EXPECT_EQ(changed.progressThen, -1) << "answered before the call returns";
      expectFailure(changed, platform::kNSFileProviderErrorDomain, -1005);
      EXPECT_EQ(call.progress()->totalUnitCount(), 100);
      EXPECT_EQ(call.completed(), 0);
      call.finish();
      EXPECT_EQ(lines().size(), earlier + 2) << name;
      EXPECT_EQ(lines().back(), "default: createItem rejecting system junk name=" + name);
    }
    EXPECT_THAT(requests(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(statusFile()));
  }
};

TEST_F(CreateItemTest, JunkIsRefusedBeforeTheCallReturns) {
  for (const char* name :
       {".Trash", ".trash", ".DS_Store", "._", "._report.pdf", "._.DS_Store", ".fseventsd",
        ".fseventsdX", ".Spotlight-", ".Spotlight-V100", ".DocumentRevisions",
        ".DocumentRevisions-V100", ".DocumentRevisionsX"}) {
    expectJunk(name);
  }
}

TEST_F(CreateItemTest, NamesThatResembleJunkAreOrdinary) {
  on("POST", "/files/mkdir", Answer(200, "{}"));
  std::size_t made = 0;
  for (const char* name :
       {".Trashes", ".trashed", ".DS_Store2", ".ds_store", ".TRASH", "_.DS_Store", ".fseventsD",
        ".Spotlight", ".spotlight-V100", ".DocumentRevision", "x._y", ".", ".x"}) {
    const Changed changed = create({.name = name, .type = UTType::folder()}).finish();
    EXPECT_EQ(changed.error, nullptr) << name;
    EXPECT_EQ(service_.http().requestCount("POST", "/files/mkdir"), ++made) << name;
  }
}

TEST_F(CreateItemTest, AJunkRefusalSaysNothingElse) {
  create({.name = ".DS_Store"}, fileWith("x")).finish();
  EXPECT_THAT(lines(), ElementsAre("default: createItem begin name=.DS_Store isDir=false",
                                   "default: createItem rejecting system junk name=.DS_Store"));
  EXPECT_THAT(formats(), ElementsAre("createItem begin name=%{public}s isDir=%{bool}d",
                                     "createItem rejecting system junk name=%{public}s"));
}

TEST_F(CreateItemTest, TheParentAndTheNameMakeThePath) {
  const struct {
    const char* parent;
    const char* name;
    const char* path;
  } cases[] = {
      {platform::NSFileProviderRootContainerItemIdentifier, "x", "/x"},
      {"/", "x", "/x"},
      {"", "x", "/x"},
      {"/a", "x", "/a/x"},
      {"/a/b", "c d", "/a/b/c d"},
      {"/a", "&=+;:@", "/a/&=+;:@"},
      {platform::NSFileProviderTrashContainerItemIdentifier, "x",
       "NSFileProviderTrashContainerItemIdentifier/x"},
  };
  on("POST", "/files/mkdir", Answer(200, "{}"));
  for (const auto& [parent, name, path] : cases) {
    const auto before = dateNow();
    const Changed changed =
        create({.parent = parent, .name = name, .type = UTType::folder()}).finish();
    expectNewItem(changed, path, before);
    EXPECT_EQ(platform::Json::parse(service_.http().requests().back().body),
              (platform::Json{{"path", path}}));
  }
}

TEST_F(CreateItemTest, AFolderIsOneRequestAndNoTransfer) {
  on("POST", "/files/mkdir", Answer(200, "{}"));
  const auto before = dateNow();
  const Changed changed = create({.parent = "/a", .name = "x", .type = UTType::folder(), .size = 7},
                                 fileWith("ignored"))
                              .finish();
  expectNewItem(changed, "/a/x", before);
  ASSERT_NE(changed.item, nullptr);
  EXPECT_EQ(changed.item->contentType(), UTType::folder());
  EXPECT_EQ(changed.item->documentSize(), std::nullopt);
  EXPECT_TRUE(changed.item->itemVersion()->contentVersion.ends_with("-0"));
  EXPECT_THAT(requests(), ElementsAre(R"(POST /files/mkdir {"path":"/a/x"})"));
  EXPECT_THAT(lines(), ElementsAre("default: createItem begin name=x isDir=true"));
  SyncStatusStore::shared().drain();
  EXPECT_FALSE(std::filesystem::exists(statusFile())) << "no transfer was ever written down";
}

TEST_F(CreateItemTest, OnlyTheFolderTypeMakesAFolder) {
  acceptSmallFiles();
  for (const auto& type : {std::optional<UTType>(), std::optional(UTType::data()),
                           std::optional(UTType::named("inode/directory"))}) {
    const Changed changed = create({.name = "x", .type = type}, fileWith("hello")).finish();
    ASSERT_NE(changed.item, nullptr);
    EXPECT_NE(changed.item->contentType(), UTType::folder());
    EXPECT_EQ(changed.item->documentSize(), 5);
  }
  EXPECT_EQ(service_.http().requestCount("PUT", "/bucket/object"), 3U);
}

TEST_F(CreateItemTest, AnEmptyFileGoesInOneRequest) { expectOneRequestFor(0); }
TEST_F(CreateItemTest, AByteGoesInOneRequest) { expectOneRequestFor(1); }
TEST_F(CreateItemTest, JustBelowTheLimitGoesInOneRequest) { expectOneRequestFor(kLimit - 1); }

TEST_F(CreateItemTest, AtTheLimitTheFileGoesInParts) {
  acceptParts();
  const auto before = dateNow();
  const Changed changed = create({.name = "x"}, sparseFile(kLimit)).finish();
  expectNewItem(changed, "/x", before);
  ASSERT_NE(changed.item, nullptr);
  EXPECT_EQ(changed.item->documentSize(), static_cast<std::int64_t>(kLimit));
  EXPECT_EQ(requests().front(), R"(POST /files/direct-multipart-init {"path":"/x"})");
  EXPECT_EQ(onlyRequest("PUT", "/bucket/part/1").bodyBytes, 10'485'760U);
  EXPECT_EQ(onlyRequest("PUT", "/bucket/part/2").bodyBytes, kLimit - 10'485'760U);
  EXPECT_EQ(requests().back(), R"(POST /files/direct-import {"key":"k-1","path":"/x"})");
  EXPECT_EQ(service_.http().requestCount("POST", "/files/direct-presign-upload"), 0U);
  EXPECT_EQ(service_.http().requestCount("POST", "/files/direct-multipart-abort"), 0U);
}

TEST_F(CreateItemTest, ThePutCarriesTheFileAndNoHeaderOfItsOwn) {
  acceptSmallFiles();
  create({.name = "x.json"}, fileWith("{\"a\": \xFF}")).finish();
  const auto put = onlyRequest("PUT", "/bucket/object");
  EXPECT_EQ(put.target, "/bucket/object?signature=s%2F1");
  EXPECT_EQ(put.body, "{\"a\": \xFF}");
  EXPECT_THAT(put.headerNames(), ElementsAre("content-length", "host"));
  for (const char* path : {"/files/direct-presign-upload", "/files/direct-import"}) {
    EXPECT_EQ(onlyRequest("POST", path).header("Authorization"),
              std::string("Bearer ") + support::ServiceFixture::kToken);
  }
}

TEST_F(CreateItemTest, EveryStatusBelow400IsASuccess) {
  acceptSmallFiles();
  for (const int status : {200, 204, 304, 399}) {
    on("PUT", "/bucket/object", Answer(status));
    EXPECT_EQ(create({.name = "x"}, fileWith("x")).finish().error, nullptr) << status;
  }
}

TEST_F(CreateItemTest, TheTransferIsRegisteredAndShowsItsBytesOnlyAfterThePut) {
  acceptSmallFiles();
  service_.http().hold("PUT", "/bucket/object");
  service_.http().hold("POST", "/files/direct-import");
  const auto before = dateNow() - std::chrono::seconds(1);  // the file has whole seconds
  const ChangeCall call = create({.parent = "/a", .name = "x"}, fileWith("hello"));

  const auto put = service_.http().nextHeld();
  ASSERT_EQ(put.request().method, "PUT");
  ASSERT_EQ(transfers().size(), 1U);
  const SyncTransfer transfer = transfers().front();
  EXPECT_EQ(transfer.path, "/a/x");
  EXPECT_EQ(transfer.totalBytes, 5);
  EXPECT_EQ(transfer.bytesTransferred, 0);
  EXPECT_EQ(transfer.direction, SyncTransfer::Direction::upload);
  EXPECT_GE(transfer.startedAt, before);
  EXPECT_THAT(transfer.id,
              ::testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-"
                                      "[0-9A-F]{12}"));
  EXPECT_EQ(call.completed(), 0);
  put.answer(Answer(200));

  const auto import = service_.http().nextHeld();
  ASSERT_EQ(import.request().method, "POST");
  EXPECT_EQ(bytesTransferred(), 5);
  ASSERT_EQ(transfers().size(), 1U);
  EXPECT_EQ(transfers().front().id, transfer.id);
  EXPECT_EQ(call.completed(), 0);
  EXPECT_EQ(call.answer().calls, 0);
  import.answer(Answer(200, "not even JSON"));

  const Changed changed = call.finish();
  EXPECT_EQ(changed.error, nullptr);
  ASSERT_EQ(changed.transfersThen.size(), 1U) << "a success is told before the transfer ends";
  EXPECT_EQ(changed.transfersThen.front().id, transfer.id);
  EXPECT_THAT(transfers(), IsEmpty());
  EXPECT_EQ(call.completed(), 100);
}

TEST_F(CreateItemTest, TheTransferIsRegisteredBeforeTheFirstRequest) {
  acceptSmallFiles();
  service_.http().hold("POST", "/files/direct-presign-upload");
  const ChangeCall call = create({.name = "x"}, fileWith("hello"));
  const auto presign = service_.http().nextHeld();
  EXPECT_EQ(bytesTransferred(), 0);
  presign.answer(Answer(500));
  call.finish();
}

// 62 and 99 of 100, rounded toward zero: 62 * 16777216 / 100 = 10401873.92.
TEST_F(CreateItemTest, TheStatusFollowsTheProgressOfTheParts) {
  acceptParts();
  service_.http().hold("PUT", "/bucket/part/2");
  const ChangeCall call = create({.name = "x"}, sparseFile(kLimit));
  const auto second = service_.http().nextHeld();
  EXPECT_TRUE(waitUntil([&] { return call.completed() == 62; }));
  EXPECT_TRUE(waitUntil([&] { return bytesTransferred() == 10'401'873; })) << bytesTransferred();
  service_.http().hold("POST", "/files/direct-import");
  second.answer(Answer(200).with("ETag", "\"e\""));
  const auto import = service_.http().nextHeld();
  EXPECT_EQ(call.completed(), 99);
  EXPECT_EQ(bytesTransferred(), 16'609'443);
  EXPECT_EQ(call.answer().calls, 0);
  import.answer(Answer(200));
  const Changed changed = call.finish();
  EXPECT_EQ(changed.progressThen, 100);
  ASSERT_EQ(changed.transfersThen.size(), 1U);
  EXPECT_EQ(changed.transfersThen.front().bytesTransferred, static_cast<std::int64_t>(kLimit));
  EXPECT_THAT(transfers(), IsEmpty());
}

TEST_F(CreateItemTest, TheProgressMovesNothingAfterTheEnd) {
  acceptSmallFiles();
  const ChangeCall call = create({.name = "x"}, fileWith("hello"));
  call.finish();
  SyncStatusStore::shared().drain();
  std::filesystem::remove(statusFile());
  call.progress()->setCompletedUnitCount(50);
  SyncStatusStore::shared().drain();
  EXPECT_FALSE(std::filesystem::exists(statusFile()));
}

TEST_F(CreateItemTest, TheLogTellsSizeTimeAndRate) {
  acceptSmallFiles();
  service_.http().hold("PUT", "/bucket/object");
  const auto began = std::chrono::steady_clock::now();
  const ChangeCall call = create({.name = "x"}, sparseFile(kLimit - 1));
  const auto put = service_.http().nextHeld();
  const auto held = std::chrono::steady_clock::now();
  ASSERT_TRUE(waitUntil(
      [&] { return std::chrono::steady_clock::now() - held > std::chrono::milliseconds(20); }));
  put.answer(Answer(200));
  call.finish();
  const std::chrono::duration<double> whole = std::chrono::steady_clock::now() - began;

  EXPECT_THAT(formats(), ElementsAre("createItem begin name=%{public}s isDir=%{bool}d",
                                     "createItem uploading %lld bytes",
                                     "createItem done %lld bytes in %.*fs (%.*f MB/s)"));
  const auto records = extensionRecords();
  ASSERT_EQ(records.size(), 3U);
  for (const auto& record : records) EXPECT_EQ(record.level, platform::LogLevel::standard);
  EXPECT_EQ(records[1].message(), "createItem uploading 16777215 bytes");
  const auto& arguments = records[2].arguments;
  ASSERT_EQ(arguments.size(), 5U);
  EXPECT_EQ(arguments[0], platform::LogArgument(std::int64_t{16'777'215}));
  EXPECT_EQ(arguments[1], platform::LogArgument(std::int64_t{2}));
  const double elapsed = std::get<double>(arguments[2]);
  EXPECT_GE(elapsed, 0.02);
  EXPECT_LE(elapsed, whole.count());
  EXPECT_EQ(arguments[3], platform::LogArgument(std::int64_t{1}));
  EXPECT_DOUBLE_EQ(std::get<double>(arguments[4]), 16'777'215.0 / 1024 / 1024 / elapsed);
}

TEST_F(CreateItemTest, AnEmptyFilesDoneLineSaysSo) {
  acceptSmallFiles();
  const Changed changed = create({.name = "x"}, fileWith("")).finish();
  ASSERT_FALSE(lines().empty());
  EXPECT_THAT(lines().back(),
              ::testing::MatchesRegex(
                  "default: createItem done 0 bytes in [0-9]+\\.[0-9][0-9]s \\(0\\.0 MB/s\\)"));
  EXPECT_EQ(changed.lastLineThen, lines().back()) << "logged before the answer";
}

TEST_F(CreateItemTest, ItReturnsAtOnceWithItsProgress) {
  acceptSmallFiles();
  service_.http().hold("PUT", "/bucket/object");
  const ChangeCall call = create({.name = "x"}, fileWith("hello"));
  EXPECT_EQ(call.progress()->totalUnitCount(), 100);
  EXPECT_EQ(call.completed(), 0);
  EXPECT_EQ(call.answer().calls, 0);
  service_.http().nextHeld().answer(Answer(200));
  call.finish();
}

TEST_F(CreateItemTest, SeveralRunAtOnceEachWithATransferOfItsOwn) {
  acceptSmallFiles();
  service_.http().hold("PUT", "/bucket/object");
  const auto file = fileWith("hello");
  const ChangeCall first = create({.name = "x"}, file);
  const ChangeCall second = create({.name = "x"}, file);
  const auto one = service_.http().nextHeld();
  const auto two = service_.http().nextHeld();
  const auto running = transfers();
  ASSERT_EQ(running.size(), 2U);
  EXPECT_NE(running[0].id, running[1].id);
  one.answer(Answer(200));
  two.answer(Answer(400));
  const bool firstFailed = first.finish().error != nullptr;
  const bool secondFailed = second.finish().error != nullptr;
  EXPECT_NE(firstFailed, secondFailed);
}

}  // namespace
}  // namespace kestrune
