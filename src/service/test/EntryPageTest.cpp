// Which entries a page of a folder has, in every order and from every place.
#include "service/EntryPage.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "service/test/RunningService.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;
using From = EntryWindow::From;
using Names = std::vector<std::string>;

class EntryPages : public ::testing::Test {
 protected:
  EntryPage::Result page(Sorting sorting, EntryWindow window = {}, std::size_t length = 100,
                         std::size_t atOnce = 1000) const {
    EntryPage reading(
        FileDescriptor(::open(files.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), sorting,
        std::move(window), length);
    while (reading.readSome(atOnce)) continue;
    return reading.finish();
  }
  static Names namesOf(const EntryPage::Result& result) {
    Names names;
    for (const FolderEntry& entry : result.entries) names.push_back(entry.name);
    return names;
  }
  void write(const std::string& name, std::size_t size, std::int64_t seconds) const {
    const fs::path file = files.write(name, std::string(size, 'x'));
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  }

  support::TemporaryDirectory files;
};

TEST_F(EntryPages, NamesAreOrderedAsPeopleDo) {
  for (const char* name : {"file 10", "file 9", "File 1", "a", "B", "file 007", "file 7", "file"})
    write(name, 0, 0);
  fs::create_directory(files.path() / "zz");
  EXPECT_EQ(namesOf(page({})),
            (Names{"zz", "a", "B", "file", "File 1", "file 007", "file 7", "file 9", "file 10"}));
  EXPECT_EQ(namesOf(page({SortBy::name, true})),
            (Names{"zz", "file 10", "file 9", "file 7", "file 007", "File 1", "file", "B", "a"}));
}

TEST_F(EntryPages, SizesAndTimesDecideAndNamesWhereTheyAreEqual) {
  write("b", 10, 300);
  write("a", 10, 200);
  write("c", 9, 250);
  fs::create_directory(files.path() / "folder");
  EXPECT_EQ(namesOf(page({SortBy::size, false})), (Names{"folder", "c", "a", "b"}));
  EXPECT_EQ(namesOf(page({SortBy::size, true})), (Names{"folder", "b", "a", "c"}));
  EXPECT_EQ(namesOf(page({SortBy::time, false})), (Names{"folder", "a", "c", "b"}));
  EXPECT_EQ(namesOf(page({SortBy::time, true})), (Names{"folder", "b", "c", "a"}));
}

TEST_F(EntryPages, TellsSizeTimeAndKind) {
  write("a", 10, 300);
  fs::create_directory(files.path() / "folder");
  for (const SortBy by : {SortBy::name, SortBy::size, SortBy::time}) {
    const auto entries = page({by}).entries;
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_TRUE(entries[0].isFolder);
    EXPECT_FALSE(entries[1].isFolder);
    EXPECT_EQ(entries[1].sizeBytes, 10U);
    EXPECT_EQ(entries[1].modified.seconds, 300);
  }
}

/// Every way through a folder sees each entry once, and in the one order.
TEST_F(EntryPages, FollowingTheLinksSeesEveryEntryOnceInEveryOrder) {
  for (int i = 0; i < 23; ++i)
    write("file " + std::to_string(i), static_cast<std::size_t>(i % 4), i % 3);
  for (int i = 0; i < 4; ++i) fs::create_directory(files.path() / ("folder " + std::to_string(i)));
  for (const SortBy by : {SortBy::name, SortBy::size, SortBy::time}) {
    for (const bool descending : {false, true}) {
      const Sorting sorting{by, descending};
      const Names all = namesOf(page(sorting));
      ASSERT_EQ(all.size(), 27U);
      Names forwards;
      EntryWindow window;
      for (auto part = page(sorting, window, 5, 2); !part.entries.empty();
           part = page(sorting, window, 5, 2)) {
        EXPECT_EQ(part.before, forwards.size());
        EXPECT_EQ(part.total, all.size());
        for (const auto& name : namesOf(part)) forwards.push_back(name);
        window = {From::after, EntryPlace::of(part.entries.back(), by)};
      }
      EXPECT_EQ(forwards, all);
      Names backwards;
      window = {From::last, {}};
      for (auto part = page(sorting, window, 5); !part.entries.empty();
           part = page(sorting, window, 5)) {
        const Names names = namesOf(part);
        backwards.insert(backwards.begin(), names.begin(), names.end());
        EXPECT_EQ(part.before, all.size() - backwards.size());
        window = {From::before, EntryPlace::of(part.entries.front(), by)};
      }
      EXPECT_EQ(backwards, all);
    }
  }
}

TEST_F(EntryPages, APlaceWhoseEntryHasGoneStillHasANext) {
  for (const char* name : {"a", "c"}) write(name, 0, 0);
  const EntryPage::Result result = page({}, {From::after, {false, 0, "b"}});
  EXPECT_EQ(namesOf(result), Names{"c"});
  EXPECT_EQ(result.before, 1U);
}

TEST_F(EntryPages, LeavesOutWhatIsNotServedAndCountsNamesThatAreNot) {
  write("plain", 0, 0);
  write("line\nbreak", 0, 0);
  write("\xff", 0, 0);
  fs::create_symlink("plain", files.path() / "link");
  ASSERT_EQ(::mkfifo((files.path() / "pipe").c_str(), 0600), 0);
  const EntryPage::Result result = page({});
  EXPECT_EQ(namesOf(result), Names{"plain"});
  EXPECT_EQ(result.total, 1U);
  EXPECT_EQ(result.refusedNames, 2U);
}

TEST(EntryPlaces, AreKeptAsText) {
  const EntryPlace place{true, -12, "a.b.c d"};
  const auto again = EntryPlace::parse(place.text());
  ASSERT_TRUE(again);
  EXPECT_EQ(again->isFolder, true);
  EXPECT_EQ(again->value, -12);
  EXPECT_EQ(again->name, "a.b.c d");
  for (const char* text : {"", "x.1.a", "f", "f.", "f.1", "f.x.a", "f.99999999999999999999.a"})
    EXPECT_FALSE(EntryPlace::parse(text)) << text;
}

}  // namespace
}  // namespace kestrune::service
