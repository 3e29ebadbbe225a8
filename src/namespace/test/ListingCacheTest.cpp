#include "namespace/ListingCache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/CapturingLogSink.h"
#include "tests/support/IsolatedStorage.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using platform::Date;
using support::contentsOf;
using ::testing::IsEmpty;
using Entries = std::vector<KestruneAPI::Entry>;

Date date(const char* text) { return *platform::parseISO8601(text); }

class ListingCacheTest : public testing::Test {
 protected:
  fs::path directory() const { return storage_.shared() / "listing-cache"; }
  std::string text(const std::string& name) const { return contentsOf(directory() / name); }
  void write(const std::string& contents) const {
    storage_.writeShared("listing-cache/listing-_x.json", contents);
  }

  const support::IsolatedStorage storage_;
};

TEST_F(ListingCacheTest, TheFileIsOneCompactObject) {
  ListingCache::save({{"a/\"b\"", "directory", 0, date("2024-06-10T08:15:00Z") + 999ms, "x/y"},
                      {"z", "file", -1, date("1969-12-31T23:59:59Z") + 1ms, std::nullopt}},
                     "token", "/x");
  EXPECT_EQ(text("listing-_x.json"),
            R"({"entries":[{"name":"a\/\"b\"","type":"directory","size":0,)"
            R"("modifiedAt":"2024-06-10T08:15:00Z"},{"name":"z","type":"file","size":-1,)"
            R"("modifiedAt":"1969-12-31T23:59:59Z"}],"token":"token"})");
}

TEST_F(ListingCacheTest, WhatWasSavedIsLoadedInWholeSeconds) {
  const Entries entries = {
      {"", "", 0, date("0000-01-01T00:00:00Z"), {}},
      {"..",
       "Directory",
       std::numeric_limits<std::int64_t>::min(),
       date("9999-12-31T23:59:59Z"),
       {}},
      {"line\nnull" + std::string(1, '\0') + "\xF0\x9F\x98\x80", "file",
       std::numeric_limits<std::int64_t>::max(), date("2024-06-10T08:15:00Z") + 123456us, "a/b"},
      {"twice", "file", 1, date("2024-06-10T08:15:00Z"), {}},
      {"twice", "file", 2, date("2024-06-10T08:15:00Z"), {}},
  };
  ListingCache::save(entries, "a \"token\"", "/x");
  const auto listing = ListingCache::load("/x");
  ASSERT_TRUE(listing);
  EXPECT_EQ(listing->token, "a \"token\"");
  ASSERT_EQ(listing->entries.size(), entries.size());
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const CachedEntry expected = {entries[i].name, entries[i].type, entries[i].size,
                                  std::chrono::floor<std::chrono::seconds>(entries[i].modifiedAt)};
    EXPECT_EQ(listing->entries[i], expected) << i;
  }
}

TEST_F(ListingCacheTest, TimesOutsideOfWhatAFileCanSayAreClamped) {
  ListingCache::save({{"a", "file", 0, Date::max(), {}}, {"b", "file", 0, Date::min(), {}}}, "t",
                     "/x");
  const auto listing = ListingCache::load("/x");
  ASSERT_TRUE(listing);
  EXPECT_EQ(listing->entries[0].modifiedAt, date("9999-12-31T23:59:59Z"));
  EXPECT_EQ(listing->entries[1].modifiedAt, date("0000-01-01T00:00:00Z"));
}

TEST_F(ListingCacheTest, AnEmptyListingIsNotAnAbsentOne) {
  EXPECT_FALSE(ListingCache::load("/x"));
  ListingCache::save({}, "", "/x");
  EXPECT_EQ(text("listing-_x.json"), R"({"entries":[],"token":""})");
  const auto listing = ListingCache::load("/x");
  ASSERT_TRUE(listing);
  EXPECT_THAT(listing->entries, IsEmpty());
}

TEST_F(ListingCacheTest, EachFolderHasAFileNamedByItsPath) {
  const struct {
    std::string path;
    const char* file;
  } cases[] = {
      {"/", "listing-_.json"},
      {"", "listing-.json"},
      {"/Photos/2024", "listing-_Photos_2024.json"},
      {"/a/b", "listing-_a_b.json"},
      {"/..", "listing-_...json"},
      {"/../../../etc/passwd", "listing-_.._.._.._etc_passwd.json"},
      {"/a b%20", "listing-_a b%20.json"},
      {"/\xC3\xA9", "listing-_\xC3\xA9.json"},
  };
  for (const auto& [path, name] : cases) {
    ListingCache::save({}, "of " + path, path);
    EXPECT_TRUE(fs::is_regular_file(directory() / name)) << path;
    EXPECT_EQ(ListingCache::load(path)->token, "of " + path);
  }
  EXPECT_EQ(fs::directory_iterator(storage_.shared())->path(), directory());
}

TEST_F(ListingCacheTest, FoldersWhoseNamesMeetShareAFile) {
  ListingCache::save({}, "first", "/a_b");
  EXPECT_EQ(ListingCache::load("/a/b")->token, "first");
  ListingCache::save({}, "second", "/a/b");
  EXPECT_EQ(ListingCache::load("/a_b")->token, "second");
}

TEST_F(ListingCacheTest, AFolderWithANullByteHasNone) {
  ListingCache::save({}, "of /x", "/x");
  const std::string path("/x\0/y", 5);
  ListingCache::save({}, "hostile", path);
  EXPECT_FALSE(ListingCache::load(path));
  EXPECT_EQ(ListingCache::load("/x")->token, "of /x");
  EXPECT_EQ(std::distance(fs::directory_iterator(directory()), fs::directory_iterator()), 1);
}

TEST_F(ListingCacheTest, APathTooLongForAFileNameHasNone) {
  const std::string path = "/" + std::string(300, 'x');
  ListingCache::save({}, "t", path);
  EXPECT_FALSE(ListingCache::load(path));
}

TEST_F(ListingCacheTest, TheDirectoryIsMadeOnEachLook) {
  EXPECT_EQ(ListingCache::dir(), directory());
  EXPECT_TRUE(fs::is_directory(directory()));
  fs::remove_all(storage_.applicationSupport());
  EXPECT_FALSE(ListingCache::load("/x"));
  EXPECT_TRUE(fs::is_directory(directory()));
  storage_.blockShared();
  EXPECT_EQ(ListingCache::dir(), directory());
}

TEST_F(ListingCacheTest, SpacesAndOrderDoNotMatterToTheReader) {
  write(
      " { \"token\" : \"t\" , \"more\" : [1], \"entries\" : [ { \"modifiedAt\" :\n"
      "\"2024-06-10T10:15:00+02:00\", \"size\":5, \"type\":\"file\", \"name\":\"a\", \"x\":{} } ] "
      "}\n");
  const auto listing = ListingCache::load("/x");
  ASSERT_TRUE(listing);
  EXPECT_EQ(listing->entries.at(0), (CachedEntry{"a", "file", 5, date("2024-06-10T08:15:00Z")}));
}

TEST_F(ListingCacheTest, WhatIsNoListingCountsAsAbsent) {
  const std::string good =
      R"({"name":"a","type":"file","size":5,"modifiedAt":"2024-06-10T08:15:00Z"})";
  const auto listing = [](const std::string& entry) {
    return "{\"entries\":[" + entry + "],\"token\":\"t\"}";
  };
  write(listing(good));
  ASSERT_TRUE(ListingCache::load("/x"));

  const auto with = [&](const std::string& part, const std::string& instead) {
    std::string text = good;
    return listing(text.replace(text.find(part), part.size(), instead));
  };
  const std::string deep(100'000, '[');
  const std::string cases[] = {
      "",
      "null",
      "[]",
      "{}",
      R"({"entries":[]})",
      R"({"token":"t"})",
      R"({"entries":[],"token":null})",
      R"({"entries":null,"token":"t"})",
      R"({"entries":{},"token":"t"})",
      listing("null"),
      with(R"("name":"a",)", ""),
      with(R"("type":"file",)", ""),
      with(R"("size":5,)", ""),
      with(R"(,"modifiedAt":"2024-06-10T08:15:00Z")", ""),
      with("\"a\"", "5"),
      with("5", "\"5\""),
      with("5", "5.5"),
      with("5", "9223372036854775808"),
      with("2024-06-10T08:15:00Z", "2024-06-10T08:15:00.5Z"),
      with("2024-06-10T08:15:00Z", "yesterday"),
      with("2024-06-10T08:15:00Z", "99999-01-01T00:00:00Z"),
      with("\"2024-06-10T08:15:00Z\"", "739700100"),
      with("\"a\"", "\"\\ud800\""),
      with("\"a\"", "\"\xFF\""),
      listing(good) + "x",
      listing(good).substr(0, 50),
      deep,
      listing(deep + std::string(100'000, ']')),
      std::string("\x00\x01\xFE", 3),
  };
  for (const auto& text : cases) {
    write(text);
    EXPECT_FALSE(ListingCache::load("/x")) << text.substr(0, 100);
  }
}

TEST_F(ListingCacheTest, WhateverLiesInTheFilesPlaceCountsAsAbsent) {
  const std::string file = "listing-cache/listing-_x.json";
  storage_.makeSharedPipe(file);
  EXPECT_FALSE(ListingCache::load("/x"));
  ListingCache::save({}, "t", "/x");
  EXPECT_TRUE(ListingCache::load("/x"));
  storage_.makeSharedHugeFile(file, 1ULL << 40U);
  EXPECT_FALSE(ListingCache::load("/x"));
  storage_.makeSharedDirectory(file);
  EXPECT_FALSE(ListingCache::load("/x"));
  ListingCache::save({}, "t", "/x");
  EXPECT_FALSE(ListingCache::load("/x"));
}

TEST_F(ListingCacheTest, WhatCannotBeSavedLeavesTheOldFileSilently) {
  const support::CapturingLogSink log;
  ListingCache::save({}, "old", "/x");
  ListingCache::save({{"\xFF", "file", 0, {}, {}}}, "new", "/x");
  EXPECT_EQ(ListingCache::load("/x")->token, "old");
  ListingCache::save({{"a", "\xFF", 0, {}, {}}}, "new", "/x");
  EXPECT_EQ(ListingCache::load("/x")->token, "old");
  ListingCache::save({}, "\xFF", "/x");
  EXPECT_EQ(ListingCache::load("/x")->token, "old");
  storage_.blockShared();
  ListingCache::save({}, "new", "/x");
  EXPECT_FALSE(ListingCache::load("/x"));
  EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(ListingCacheTest, NothingLiesBesideTheFiles) {
  for (int i = 0; i < 5; ++i) ListingCache::save({{"a", "file", i, {}, {}}}, "t", "/x");
  EXPECT_EQ(std::distance(fs::directory_iterator(directory()), fs::directory_iterator()), 1);
}

TEST_F(ListingCacheTest, AReaderSeesOneWholeListing) {
  const auto listing = [](std::int64_t size) {
    return Entries(50, {"a", "file", size, date("2024-06-10T08:15:00Z"), {}});
  };
  ListingCache::save(listing(0), "0", "/x");
  std::atomic<bool> stop = false;
  std::vector<std::thread> writers;
  for (int t = 1; t <= 2; ++t) {
    writers.emplace_back([&, t] {
      while (!stop) ListingCache::save(listing(t), std::to_string(t), "/x");
    });
  }
  for (int i = 0; i < 300; ++i) {
    const auto seen = ListingCache::load("/x");
    ASSERT_TRUE(seen);
    ASSERT_EQ(seen->entries.size(), 50U);
    for (const auto& entry : seen->entries) EXPECT_EQ(std::to_string(entry.size), seen->token);
  }
  stop = true;
  for (auto& writer : writers) writer.join();
}

}  // namespace
}  // namespace kestrune
