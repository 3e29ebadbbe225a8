// Local changes that reach the store: moves, new contents, and what has no remote effect.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "extension/test/ChangeTesting.h"
#include "namespace/PinStore.h"

namespace kestrune {
namespace {

using platform::dateNow;
using platform::UTType;
using support::Answer;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Fields = platform::NSFileProviderItemFields;

constexpr const char* kRoot = platform::NSFileProviderRootContainerItemIdentifier;
constexpr const char* kMoved = R"(POST /files/move {"dst":"/new/b.txt","src":"/dir/a.txt"})";
constexpr const char* kPut = "PUT /bucket/object?signature=s%2F1";

std::string presignOf(const std::string& path) {
  return R"(POST /files/presign-upload {"path":")" + path + "\"}";
}
std::string notifyOf(const std::string& path, const std::string& size) {
  return R"(POST /files/presign-notify {"path":")" + path + R"(","size":")" + size + "\"}";
}

class ModifyItemTest : public ChangeTesting {
 protected:
  ~ModifyItemTest() override { EXPECT_THAT(lines(), IsEmpty()) << "a change logs nothing"; }

  /// Changes `item` and expects it at `path` afterwards.
  Changed expectChanged(const LocalItem& item, Fields fields, const Contents& contents,
                        const std::string& path) {
    const auto before = dateNow();
    const ChangeCall call = modify(item, fields, contents);
    EXPECT_EQ(call.progress()->totalUnitCount(), 100);
    const Changed changed = call.finish();
    expectNewItem(changed, path, before);
    EXPECT_TRUE(changed.transfersThen.empty()) << "the transfer ends before the answer";
    EXPECT_EQ(call.completed(), 100);
    return changed;
  }
  const LocalItem place_{.identifier = "/dir/a.txt", .parent = "/new", .name = "b.txt"};
  const Fields everyOther_ = static_cast<Fields>(~7U);
};

TEST_F(ModifyItemTest, TheFieldsDecideWhatIsDone) {
  acceptMoves();
  acceptNewContents();
  const auto file = fileWith("hello");
  const std::vector<std::string> move = {kMoved};
  const std::vector<std::string> upload = {presignOf("/dir/a.txt"), kPut,
                                           notifyOf("/dir/a.txt", "5")};
  const std::vector<std::string> both = {kMoved, presignOf("/new/b.txt"), kPut,
                                         notifyOf("/new/b.txt", "5")};
  const struct {
    std::uint32_t fields;
    std::vector<std::string> requests;
  } cases[] = {
      {0, {}},          {1, upload},     {2, move},
      {4, move},        {6, move},       {3, both},
      {5, both},        {7, both},       {8, {}},
      {16, {}},         {32, {}},        {64, {}},
      {128, {}},        {256, {}},       {512, {}},
      {1024, {}},       {1 << 20, {}},   {0xFFFFFFF8, {}},
      {1 + 16, upload}, {2 + 128, move}, {0xFFFFFFFF, both},
  };
  std::size_t earlier = 0;
  for (const auto& [fields, expected] : cases) {
    const bool moves = (fields & 6U) != 0;
    expectChanged(place_, static_cast<Fields>(fields), file, moves ? "/new/b.txt" : "/dir/a.txt");
    auto lines = requests();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(earlier));
    EXPECT_EQ(lines, expected) << fields;
    earlier += lines.size();
  }
}

TEST_F(ModifyItemTest, ARenameIsOneMove) {
  acceptMoves();
  expectChanged({.identifier = "/dir/a.txt", .parent = "/dir", .name = "b.txt"}, Fields::filename,
                std::nullopt, "/dir/b.txt");
  EXPECT_THAT(requests(),
              ElementsAre(R"(POST /files/move {"dst":"/dir/b.txt","src":"/dir/a.txt"})"));
  SyncStatusStore::shared().drain();
  EXPECT_FALSE(std::filesystem::exists(statusFile())) << "a move is no transfer";
}

TEST_F(ModifyItemTest, TheParentAndTheNameMakeTheNewPath) {
  acceptMoves();
  const struct {
    const char* parent;
    const char* path;
  } cases[] = {{kRoot, "/x"}, {"/", "/x"}, {"", "/x"}, {"/a", "/a/x"}, {"/a/b", "/a/b/x"}};
  for (const auto& [parent, path] : cases) {
    expectChanged({.identifier = "/dir/a.txt", .parent = parent, .name = "x"},
                  Fields::parentItemIdentifier, std::nullopt, path);
    const platform::Json expected = {{"src", "/dir/a.txt"}, {"dst", path}};
    EXPECT_EQ(platform::Json::parse(service_.http().requests().back().body), expected);
  }
}

TEST_F(ModifyItemTest, ThePlaceThatItHasAlreadyNeedsNoRequest) {
  for (const LocalItem& item :
       {LocalItem{.identifier = "/dir/a.txt", .parent = "/dir", .name = "a.txt"},
        LocalItem{.identifier = "/a.txt", .parent = kRoot, .name = "a.txt"}}) {
    PinStore::setPinned(true, item.identifier);
    expectChanged(item, Fields::filename | Fields::parentItemIdentifier, std::nullopt,
                  item.identifier);
    EXPECT_TRUE(PinStore::isPinned(item.identifier));
  }
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(ModifyItemTest, PathsAreComparedAsTheyAreWritten) {
  acceptMoves();
  expectChanged({.identifier = "/dir/A.txt", .parent = "/dir", .name = "a.txt"}, Fields::filename,
                std::nullopt, "/dir/a.txt");
  expectChanged({.identifier = "/dir//a.txt", .parent = "/dir", .name = "a.txt"}, Fields::filename,
                std::nullopt, "/dir/a.txt");
  EXPECT_EQ(requests().size(), 2U);
}

TEST_F(ModifyItemTest, OtherFieldsLeaveTheItemWhereItIs) {
  expectChanged(place_, everyOther_, fileWith("hello"), "/dir/a.txt");
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(ModifyItemTest, NewContentsWithoutAFileAreNone) {
  acceptMoves();
  expectChanged(place_, Fields::contents, std::nullopt, "/dir/a.txt");
  EXPECT_THAT(requests(), IsEmpty());
  expectChanged(place_, Fields::contents | Fields::filename, std::nullopt, "/new/b.txt");
  EXPECT_THAT(requests(), ElementsAre(kMoved));
  SyncStatusStore::shared().drain();
  EXPECT_FALSE(std::filesystem::exists(statusFile()));
}

TEST_F(ModifyItemTest, AMoveHasEndedBeforeTheUploadBegins) {
  acceptMoves();
  acceptNewContents();
  service_.http().hold("POST", "/files/move");
  const ChangeCall call = modify(place_, Fields::contents | Fields::filename, fileWith("hello"));
  const auto move = service_.http().nextHeld();
  EXPECT_EQ(service_.http().requestCount(), 1U);
  EXPECT_TRUE(transfers().empty()) << "a move is no transfer";
  move.answer(Answer(200, "{}"));
  EXPECT_EQ(call.finish().error, nullptr);
  EXPECT_EQ(requests().size(), 4U);
}

TEST_F(ModifyItemTest, ThePutCarriesTheFileAndNoHeaderOfItsOwn) {
  acceptNewContents();
  const std::string contents("a\0b\xFF", 4);
  expectChanged(place_, Fields::contents, fileWith(contents), "/dir/a.txt");
  const auto put = onlyRequest("PUT", "/bucket/object");
  EXPECT_EQ(put.body, contents);
  EXPECT_THAT(put.headerNames(), ElementsAre("content-length", "host"));
}

TEST_F(ModifyItemTest, LargeContentsGoInOneRequestToo) {
  constexpr std::uint64_t kBytes = 20U << 20U;
  acceptNewContents();
  expectChanged(place_, Fields::contents, sparseFile(kBytes), "/dir/a.txt");
  EXPECT_THAT(requests(), ElementsAre(presignOf("/dir/a.txt"), kPut,
                                      notifyOf("/dir/a.txt", std::to_string(kBytes))));
  EXPECT_EQ(onlyRequest("PUT", "/bucket/object").bodyBytes, kBytes);
}

TEST_F(ModifyItemTest, EmptyContentsAreContents) {
  acceptNewContents();
  expectChanged(place_, Fields::contents, fileWith(""), "/dir/a.txt");
  EXPECT_THAT(requests(), ElementsAre(presignOf("/dir/a.txt"), kPut, notifyOf("/dir/a.txt", "0")));
}

TEST_F(ModifyItemTest, EveryStatusBelow400IsASuccess) {
  acceptNewContents();
  const auto file = fileWith("hello");
  for (const int status : {200, 204, 304, 399}) {
    on("PUT", "/bucket/object", Answer(status));
    expectChanged(place_, Fields::contents, file, "/dir/a.txt");
  }
  EXPECT_EQ(service_.http().requestCount("POST", "/files/presign-notify"), 4U);
}

TEST_F(ModifyItemTest, WordThatDoesNotArriveIsNoFailure) {
  acceptNewContents();
  const auto file = fileWith("hello");
  for (const Answer& answer : {Answer(500, "no"), Answer(404), Answer(200, "no JSON"),
                               Answer(200, R"({"ok":true})"), Answer(200).resettingInHead(0)}) {
    on("POST", "/files/presign-notify", answer);
    expectChanged(place_, Fields::contents, file, "/dir/a.txt");
  }
  EXPECT_EQ(service_.http().requestCount("POST", "/files/presign-notify"), 5U);
}

TEST_F(ModifyItemTest, TheTransferIsRegisteredAndShowsItsBytesOnlyAfterThePut) {
  acceptMoves();
  acceptNewContents();
  for (const char* path : {"/files/presign-upload", "/files/presign-notify"})
    service_.http().hold("POST", path);
  service_.http().hold("PUT", "/bucket/object");
  const ChangeCall call = modify(place_, Fields::contents | Fields::filename, fileWith("hello"));

  const auto presign = service_.http().nextHeld();
  ASSERT_EQ(transfers().size(), 1U);
  const SyncTransfer transfer = transfers().front();
  EXPECT_EQ(transfer.path, "/new/b.txt");
  EXPECT_EQ(transfer.totalBytes, 5);
  EXPECT_EQ(transfer.bytesTransferred, 0);
  EXPECT_EQ(transfer.direction, SyncTransfer::Direction::upload);
  EXPECT_EQ(transfer.id.size(), 36U);
  const platform::Json reply = {{"url", objectURL()}, {"method", "PUT"}, {"path", "/new/b.txt"}};
  presign.answer(Answer(200, reply.dump()));

  const auto put = service_.http().nextHeld();
  EXPECT_EQ(bytesTransferred(), 0);
  EXPECT_EQ(call.completed(), 0);
  put.answer(Answer(200));

  const auto notify = service_.http().nextHeld();
  EXPECT_EQ(bytesTransferred(), 5);
  EXPECT_EQ(call.completed(), 0);
  EXPECT_EQ(call.answer().calls, 0);
  notify.answer(Answer(200, "{}"));
  EXPECT_TRUE(call.finish().transfersThen.empty());
}

TEST_F(ModifyItemTest, TheSizeIsWhatTheHandedInItemSays) {
  acceptNewContents();
  LocalItem item = place_;
  const auto file = fileWith("hello");
  for (const auto size : {std::optional<std::int64_t>(), std::optional<std::int64_t>(0),
                          std::optional<std::int64_t>(77), std::optional<std::int64_t>(-1),
                          std::optional(std::numeric_limits<std::int64_t>::max())}) {
    item.size = size;
    const Changed changed = expectChanged(item, Fields::contents, file, "/dir/a.txt");
    ASSERT_NE(changed.item, nullptr);
    EXPECT_EQ(changed.item->documentSize(), size.value_or(0));
  }
}

TEST_F(ModifyItemTest, AFolderStaysAFolder) {
  acceptMoves();
  LocalItem item = place_;
  const struct {
    std::optional<UTType> type;
    bool isFolder;
  } cases[] = {{UTType::folder(), true}, {UTType::data(), false}, {std::nullopt, false}};
  for (const auto& [type, isFolder] : cases) {
    item.type = type;
    const Changed changed = expectChanged(item, Fields::filename, std::nullopt, "/new/b.txt");
    ASSERT_NE(changed.item, nullptr);
    EXPECT_EQ(changed.item->contentType() == UTType::folder(), isFolder);
  }
}

TEST_F(ModifyItemTest, APinFollowsItsFile) {
  acceptMoves();
  PinStore::setPinned(true, "/dir/a.txt");
  PinStore::setPinned(true, "/dir/other.txt");
  const Changed changed = expectChanged(place_, Fields::filename, std::nullopt, "/new/b.txt");
  EXPECT_EQ(pins(), R"(["/dir/other.txt","/new/b.txt"])");
  ASSERT_NE(changed.item, nullptr);
  EXPECT_EQ(changed.item->contentPolicy(),
            platform::NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded);
}

TEST_F(ModifyItemTest, APinFollowsBeforeTheUploadBegins) {
  acceptMoves();
  acceptNewContents();
  PinStore::setPinned(true, "/dir/a.txt");
  service_.http().hold("POST", "/files/presign-upload");
  const ChangeCall call = modify(place_, Fields::contents | Fields::filename, fileWith("hello"));
  const auto presign = service_.http().nextHeld();
  EXPECT_EQ(pins(), R"(["/new/b.txt"])");
  presign.answer(Answer(500));
  call.finish();
}

// Whoever looks at any moment finds the file pinned under one name at least.
TEST_F(ModifyItemTest, APinIsNeverLostOnItsWay) {
  acceptMoves();
  PinStore::setPinned(true, "/dir/a.txt");
  std::atomic<bool> isDone = false;
  std::set<std::string> seen;
  std::thread watcher([&] {
    while (!isDone) seen.insert(pins());
  });
  const LocalItem back{.identifier = "/new/b.txt", .parent = "/dir", .name = "a.txt"};
  for (int round = 0; round < 10; ++round) {
    expectChanged(place_, Fields::filename, std::nullopt, "/new/b.txt");
    expectChanged(back, Fields::filename, std::nullopt, "/dir/a.txt");
  }
  isDone = true;
  watcher.join();
  EXPECT_THAT(seen, Each(::testing::AnyOf(R"(["/dir/a.txt"])", R"(["/dir/a.txt","/new/b.txt"])",
                                          R"(["/new/b.txt"])")));
}

TEST_F(ModifyItemTest, PinsBelowAMovedFolderStayBehind) {
  acceptMoves();
  for (const char* path : {"/dir", "/dir/x", "/dirx"}) PinStore::setPinned(true, path);
  expectChanged({.identifier = "/dir", .parent = kRoot, .name = "new", .type = UTType::folder()},
                Fields::filename, std::nullopt, "/new");
  EXPECT_EQ(pins(), R"(["/dir/x","/dirx","/new"])");
}

TEST_F(ModifyItemTest, WhatWasNotPinnedIsNotPinnedAfterwards) {
  acceptMoves();
  expectChanged(place_, Fields::filename, std::nullopt, "/new/b.txt");
  EXPECT_EQ(pins(), "none");
  PinStore::setPinned(true, "/dir/a.txt.bak");
  expectChanged(place_, Fields::filename, std::nullopt, "/new/b.txt");
  EXPECT_EQ(pins(), R"(["/dir/a.txt.bak"])");
}

TEST_F(ModifyItemTest, NewContentsLeavePinsAlone) {
  acceptNewContents();
  PinStore::setPinned(true, "/dir/a.txt");
  expectChanged(place_, Fields::contents, fileWith("x"), "/dir/a.txt");
  EXPECT_EQ(pins(), R"(["/dir/a.txt"])");
}

TEST_F(ModifyItemTest, ItReturnsAtOnceWithItsProgress) {
  acceptMoves();
  service_.http().hold("POST", "/files/move");
  const ChangeCall call = modify(place_, Fields::filename);
  EXPECT_EQ(call.completed(), 0);
  EXPECT_EQ(call.answer().calls, 0);
  service_.http().nextHeld().answer(Answer(200, "{}"));
  call.finish();
}

TEST_F(ModifyItemTest, ATableOfFieldsHasThePlatformsBits) {
  EXPECT_EQ(static_cast<std::uint32_t>(Fields::contents), 1U);
  EXPECT_EQ(static_cast<std::uint32_t>(Fields::filename), 2U);
  EXPECT_EQ(static_cast<std::uint32_t>(Fields::parentItemIdentifier), 4U);
}

}  // namespace
}  // namespace kestrune
