#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "namespace/ListingCache.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;
using platform::Date;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

const Date kTime = Date(1714566645s);

CachedEntry cached(const std::string& name, std::int64_t size = 5, const std::string& type = "file",
                   Date time = kTime) {
  return {name, type, size, time};
}

KestruneAPI::Entry fresh(const std::string& name, std::int64_t size = 5,
                         const std::string& type = "file", Date time = kTime) {
  return {name, type, size, time, std::nullopt};
}

TEST(ListingDifference, OfNothingIsNothing) {
  const auto difference = ListingCache::diff({}, {});
  EXPECT_THAT(difference.deleted, IsEmpty());
  EXPECT_THAT(difference.added, IsEmpty());
  EXPECT_THAT(difference.modified, IsEmpty());
}

TEST(ListingDifference, SortsNamesByWhatHappenedToThem) {
  const auto difference =
      ListingCache::diff({cached("gone"), cached("same"), cached("grown"), cached("gone too")},
                         {fresh("grown", 6), fresh("new"), fresh("same"), fresh("newer")});
  EXPECT_THAT(difference.deleted, UnorderedElementsAre("gone", "gone too"));
  EXPECT_THAT(difference.added, UnorderedElementsAre("new", "newer"));
  EXPECT_THAT(difference.modified, ElementsAre("grown"));
}

TEST(ListingDifference, WithoutAnOldListingEverythingIsAdded) {
  std::vector<KestruneAPI::Entry> entries;
  for (int i = 0; i < 1000; ++i) entries.push_back(fresh(std::to_string(i)));
  const auto difference = ListingCache::diff({}, entries);
  EXPECT_EQ(difference.added.size(), 1000U);
  EXPECT_THAT(difference.deleted, IsEmpty());
  EXPECT_THAT(difference.modified, IsEmpty());
}

TEST(ListingDifference, AChangeIsAnotherSizeAnotherTypeOrMoreThanOneSecond) {
  const struct {
    const char* what;
    KestruneAPI::Entry now;
    bool changed;
  } cases[] = {
      {"nothing", fresh("x"), false},
      {"size", fresh("x", 6), true},
      {"file becomes directory", fresh("x", 5, "directory"), true},
      {"case of the type", fresh("x", 5, "File"), true},
      {"0.5 s later", fresh("x", 5, "file", kTime + 500ms), false},
      {"0.5 s earlier", fresh("x", 5, "file", kTime - 500ms), false},
      {"1 s later", fresh("x", 5, "file", kTime + 1s), false},
      {"1 s earlier", fresh("x", 5, "file", kTime - 1s), false},
      {"a microsecond more than 1 s later", fresh("x", 5, "file", kTime + 1s + 1us), true},
      {"a microsecond more than 1 s earlier", fresh("x", 5, "file", kTime - 1s - 1us), true},
      {"1.5 s later", fresh("x", 5, "file", kTime + 1500ms), true},
      {"years earlier", fresh("x", 5, "file", Date(0s)), true},
      {"all three", fresh("x", 6, "directory", Date(0s)), true},
  };
  for (const auto& [what, now, changed] : cases) {
    const auto difference = ListingCache::diff({cached("x")}, {now});
    EXPECT_EQ(difference.modified.size(), changed ? 1U : 0U) << what;
    EXPECT_THAT(difference.deleted, IsEmpty()) << what;
    EXPECT_THAT(difference.added, IsEmpty()) << what;
  }
}

TEST(ListingDifference, OfARepeatedNameTheFirstEntryCounts) {
  const auto same = ListingCache::diff({cached("x", 1), cached("x", 2)},
                                       {fresh("x", 1), fresh("x", 3), fresh("x", 4)});
  EXPECT_THAT(same.modified, IsEmpty());
  EXPECT_THAT(same.added, IsEmpty());

  const auto changed =
      ListingCache::diff({cached("x", 1), cached("x", 2)}, {fresh("x", 2), fresh("x", 1)});
  EXPECT_THAT(changed.modified, ElementsAre("x"));

  const auto once = ListingCache::diff({cached("gone"), cached("gone")}, {fresh("n"), fresh("n")});
  EXPECT_THAT(once.deleted, ElementsAre("gone"));
  EXPECT_THAT(once.added, ElementsAre("n"));
}

TEST(ListingDifference, NamesAreComparedByteByByte) {
  const auto difference = ListingCache::diff(
      {cached("a"), cached("\xC3\xA9"), cached(std::string("n\0", 2)), cached("")},
      {fresh("A"), fresh("e\xCC\x81"), fresh("n"), fresh("")});
  EXPECT_THAT(difference.deleted, UnorderedElementsAre("a", "\xC3\xA9", std::string("n\0", 2)));
  EXPECT_THAT(difference.added, UnorderedElementsAre("A", "e\xCC\x81", "n"));
  EXPECT_THAT(difference.modified, IsEmpty());
}

TEST(CachedEntry, IsEqualInAllFieldsOrNotEqual) {
  EXPECT_EQ(cached("x"), cached("x"));
  EXPECT_NE(cached("x"), cached("y"));
  EXPECT_NE(cached("x"), cached("x", 6));
  EXPECT_NE(cached("x"), cached("x", 5, "directory"));
  EXPECT_NE(cached("x"), cached("x", 5, "file", kTime + 1us));
}

}  // namespace
}  // namespace kestrune
