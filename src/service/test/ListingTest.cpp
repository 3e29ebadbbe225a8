#include "service/Listing.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "platform/values/Date.h"
#include "platform/values/Json.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;
using platform::Json;

class ListingTest : public ::testing::Test {
 protected:
  Listing open() {
    FileDescriptor folder(::open(files.path().c_str(), O_RDONLY | O_DIRECTORY));
    return {std::move(folder), RemotePath::parse("/Docs \"x\""), types};
  }

  /// The whole text, made in pieces of at least `enough` bytes.
  std::string read(std::size_t enough, std::uint64_t* refused = nullptr) {
    Listing listing = open();
    std::string text;
    std::string piece;
    bool more = true;
    while (more) {
      piece.clear();
      more = listing.next(piece, enough);
      EXPECT_TRUE(!more || piece.size() >= enough);
      text += piece;
    }
    if (refused != nullptr) *refused = listing.refusedNames();
    return text;
  }

  std::vector<std::string> names(std::uint64_t* refused = nullptr) {
    std::vector<std::string> names;
    const Json listing = Json::parse(read(1U << 20U, refused));
    for (const auto& entry : listing["entries"]) names.push_back(entry["name"]);
    std::sort(names.begin(), names.end());
    return names;
  }

  support::TemporaryDirectory files;
  MimeTypes types;
};

TEST_F(ListingTest, AnEmptyFolderIsAnEmptyArray) {
  EXPECT_EQ(read(1), "{\"path\":\"/Docs \\\"x\\\"\",\"entries\":[]}");
}

TEST_F(ListingTest, AFileShowsAllThatClientsAskFor) {
  files.write("a.txt", "hello");
  const timespec times[2] = {{0, UTIME_OMIT}, {1'714'566'645, 123'999'999}};
  ASSERT_EQ(::utimensat(AT_FDCWD, (files.path() / "a.txt").c_str(), times, 0), 0);
  EXPECT_EQ(Json::parse(read(1))["entries"][0], (Json{{"name", "a.txt"},
                                                      {"type", "file"},
                                                      {"size", 5},
                                                      {"modified_at", "2024-05-01T12:30:45.123Z"},
                                                      {"mime_type", "text/plain"}}));
}

TEST_F(ListingTest, AFolderHasSizeZeroAndNoMediaType) {
  fs::create_directory(files.path() / "Sub.txt");
  const Json entry = Json::parse(read(1))["entries"][0];
  EXPECT_EQ(entry["type"], "directory");
  EXPECT_EQ(entry["size"], 0);
  EXPECT_FALSE(entry.contains("mime_type"));
  EXPECT_TRUE(
      platform::parseISO8601WithFraction(entry["modified_at"].get<std::string>()).has_value());
}

TEST_F(ListingTest, EveryAcceptableNameComesThroughUnchanged) {
  std::vector<std::string> expected{"quote\"",  "back\\slash", "Äpfel 日本語", " ",
                                    "&=+;@%2F", "...",         "plain",        "\xc2\x80"};
  for (const std::string& name : expected) files.write(name, "");
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(names(), expected);
}

TEST_F(ListingTest, NamesThatCouldNotBeAskedForAreLeftOutAndCounted) {
  for (const char* name : {"good", "line\nbreak", "\x1b[31m", "\xff\xfe", "\xc0\xaf"})
    files.write(name, "");
  std::uint64_t refused = 0;
  EXPECT_EQ(names(&refused), std::vector<std::string>{"good"});
  EXPECT_EQ(refused, 4U);
}

TEST_F(ListingTest, OnlyFilesAndFoldersAreListed) {
  files.write("file", "");
  fs::create_symlink("file", files.path() / "link");
  ASSERT_EQ(::mkfifo((files.path() / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(names(), std::vector<std::string>{"file"});
}

TEST_F(ListingTest, PiecesOfAnySizeGiveTheSameText) {
  for (int i = 0; i < 300; ++i) files.write("file " + std::to_string(i) + ".pdf", "x");
  const std::string whole = read(1U << 20U);
  EXPECT_EQ(Json::parse(whole)["entries"].size(), 300U);
  for (const std::size_t enough : {1U, 7U, 100U, 4096U}) EXPECT_EQ(read(enough), whole);
}

TEST_F(ListingTest, AFolderRemovedMeanwhileEndsTheListing) {
  fs::create_directory(files.path() / "gone");
  FileDescriptor folder(::open((files.path() / "gone").c_str(), O_RDONLY | O_DIRECTORY));
  fs::remove(files.path() / "gone");
  Listing listing(std::move(folder), RemotePath::parse("/gone"), types);
  std::string text;
  EXPECT_FALSE(listing.next(text, 4096));
  EXPECT_EQ(text, "{\"path\":\"/gone\",\"entries\":[]}");
}

TEST(Timestamp, NamesAnyYearThatTheFormCan) {
  const std::pair<FileTime, const char*> cases[] = {
      {{0, 0}, "1970-01-01T00:00:00.000Z"},
      {{1'714'566'645, 999'999'999}, "2024-05-01T12:30:45.999Z"},
      {{951'782'400, 5'000'000}, "2000-02-29T00:00:00.005Z"},
      {{-1, 500'000'000}, "1969-12-31T23:59:59.500Z"},
      {{-2'208'988'800, 0}, "1900-01-01T00:00:00.000Z"},
      {{32'503'680'000, 0}, "3000-01-01T00:00:00.000Z"},
      {{INT64_MAX, 0}, "9999-12-31T23:59:59.000Z"},
      {{INT64_MIN, 0}, "0000-01-01T00:00:00.000Z"},
  };
  for (const auto& [time, text] : cases) {
    std::string out;
    appendTimestamp(out, time);
    EXPECT_EQ(out, text);
  }
}

TEST(JsonString, EscapesWhatMustBeEscaped) {
  const std::pair<std::string, const char*> cases[] = {
      {"", "\"\""},
      {"a\"b\\c", "\"a\\\"b\\\\c\""},
      {std::string("\0\n\x1f", 3), "\"\\u0000\\u000a\\u001f\""},
      {"ä/", "\"ä/\""}};
  for (const auto& [text, json] : cases) {
    std::string out;
    appendJsonString(out, text);
    EXPECT_EQ(out, json);
    EXPECT_EQ(Json::parse(out), text);
  }
}

}  // namespace
}  // namespace kestrune::service
