#include "platform/files/UTType.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "platform/values/UUID.h"

namespace kestrune::platform {
namespace {

namespace fs = std::filesystem;

/// Databases of the test's own: the user's, and two of the system, "first" before "second". They
/// are written before the first question, because a process reads them once; each case runs in a
/// process of its own.
class UTTypeTest : public testing::Test {
 protected:
  UTTypeTest() : root_(fs::path(testing::TempDir()) / ("mime-" + newUUIDString())) {
    ::setenv("XDG_DATA_HOME", (root_ / "home").c_str(), 1);
    const std::string directories =
        "relative:" + (root_ / "first").string() + "::" + (root_ / "second").string() + "/";
    ::setenv("XDG_DATA_DIRS", directories.c_str(), 1);
  }
  ~UTTypeTest() override { fs::remove_all(root_); }

  void database(const std::string& directory, const std::string& globs2) const {
    fs::create_directories(root_ / directory / "mime");
    std::ofstream(root_ / directory / "mime" / "globs2", std::ios::binary) << globs2;
  }

  /// The identifier of the type registered for `extension`, or "none".
  static std::string typeOf(std::string_view extension) {
    const auto type = UTType::typeForFilenameExtension(extension);
    return type ? type->identifier() : "none";
  }

  const fs::path root_;
};

TEST_F(UTTypeTest, FixedTypesHaveTheirNames) {
  EXPECT_EQ(UTType::folder().identifier(), "folder");
  EXPECT_EQ(UTType::data().identifier(), "data");
  EXPECT_EQ(UTType::named("folder"), UTType::folder());
  EXPECT_EQ(UTType::named("data"), UTType::data());
  EXPECT_EQ(UTType::named("application/pdf").identifier(), "application/pdf");
  EXPECT_NE(UTType::folder(), UTType::data());
}

TEST_F(UTTypeTest, RegisteredExtensionsAreFoundAndOthersAreNot) {
  database("second",
           "# comment\n"
           "50:application/pdf:*.pdf\n"
           "50:text/plain:*.txt\n"
           "50:application/x-compressed-tar:*.tar.gz\n"
           "50:application/gzip:*.gz\n"
           "50:text/x-makefile:makefile\n"
           "50:text/x-readme:readme*\n"
           "50:application/x-sharedlib:*.so.[0-9]*\n"
           "50:application/x-part:*.part?\n"
           "50:application/x-any:*.*\n"
           "50:application/x-star:*.st*\n"
           "50:application/x-tail:*tail\n"
           "50:application/x-prefix:a*.pre\n"
           "50:text/x-umlaut:*.gr\u00FC\u00DF\n"
           "50:inode/directory:*.dir\n"
           "80:inode/blockdevice:*.both\n"
           "50:text/x-both:*.both\n"
           "50:text/x-last:*.last");
  struct {
    std::string_view extension;
    const char* expected;
  } const cases[] = {
      {"pdf", "application/pdf"},
      {"txt", "text/plain"},
      {"gz", "application/gzip"},
      {"last", "text/x-last"},
      {"gr\u00FC\u00DF", "text/x-umlaut"},
      {"", "none"},
      {"tar.gz", "none"},
      {".pdf", "none"},
      {"*.pdf", "none"},
      {"pdf ", "none"},
      {" pdf", "none"},
      {"pdf\n", "none"},
      {std::string_view("pdf\0", 4), "none"},
      {"makefile", "none"},
      {"readme", "none"},
      {"so", "none"},
      {"1", "none"},
      {"part1", "none"},
      {"part?", "none"},
      {"*", "none"},
      {"st", "none"},
      {"tail", "none"},
      {"pre", "none"},
      {"dir", "none"},          // folders are no data
      {"both", "text/x-both"},  // the next that is data counts
      {"unknown", "none"},
      {"\xFF", "none"},
      {"pd\xFF", "none"},
      {"comment", "none"},
      {"a/b", "none"},
  };
  for (const auto& [extension, expected] : cases)
    EXPECT_EQ(typeOf(extension), expected) << "'" << extension << "'";
  EXPECT_EQ(typeOf(std::string(100'000, 'x')), "none");
}

TEST_F(UTTypeTest, LettersMatchExactlyFirstThenRegardlessOfCase) {
  database("second",
           "50:text/x-c++src:*.C:cs\n"
           "50:text/x-csrc:*.c:cs\n"
           "50:text/x-genie:*.gs:cs\n"
           "50:image/gif:*.gif\n"
           "50:application/x-flagged:*.Flag:newflag,cs,other:more:fields\n"
           "50:application/x-other:*.other:newflag\n"
           "50:application/x-Upper:*.UP\n"
           "90:application/x-lower:*.up\n"
           "50:text/x-umlaut:*.\u00FC\n");
  struct {
    std::string_view extension;
    const char* expected;
  } const cases[] = {
      {"C", "text/x-c++src"},
      {"c", "text/x-csrc"},
      {"gs", "text/x-genie"},
      {"GS", "none"},
      {"gif", "image/gif"},
      {"GIF", "image/gif"},
      {"Gif", "image/gif"},
      {"Flag", "application/x-flagged"},
      {"flag", "none"},
      {"OTHER", "application/x-other"},
      {"UP", "application/x-Upper"},
      {"up", "application/x-lower"},
      {"Up", "application/x-lower"},
      {"\u00FC", "text/x-umlaut"},
      {"\u00DC", "none"},
  };
  for (const auto& [extension, expected] : cases)
    EXPECT_EQ(typeOf(extension), expected) << "'" << extension << "'";
}

TEST_F(UTTypeTest, HighestWeightCountsThenTheDirectoryThenTheOrder) {
  database("home", "50:home/equal:*.equal\n10:home/light:*.light\n90:home/heavy:*.heavy\n");
  database("first",
           "50:first/equal:*.equal\n50:first/light:*.light\n50:first/heavy:*.heavy\n50:first/"
           "two:*.two\n");
  database("second",
           "60:second/light:*.light\n50:second/two:*.two\n20:second/a:*.x\n70:second/"
           "b:*.x\n70:second/c:*.x\n");
  EXPECT_EQ(typeOf("equal"), "home/equal");
  EXPECT_EQ(typeOf("light"), "second/light");
  EXPECT_EQ(typeOf("heavy"), "home/heavy");
  EXPECT_EQ(typeOf("two"), "first/two");
  EXPECT_EQ(typeOf("x"), "second/b");
}

TEST_F(UTTypeTest, DiscardedPatternsOfLesserDirectoriesDoNotCount) {
  database("home", "0:text/x-diff:__NOGLOBS__\n50:text/x-diff:*.diff\n0:text/x-gone:__NOGLOBS__\n");
  database("first",
           "50:text/x-diff:*.patch\n50:text/x-gone:*.gone\n0:text/x-low:__NOGLOBS__\n50:text/"
           "x-low:*.low\n");
  database("second",
           "90:text/x-gone:*.gone\n40:text/x-heir:*.gone\n50:text/x-low:*.lower\n50:text/"
           "x-diff:*.diff\n");
  EXPECT_EQ(typeOf("diff"), "text/x-diff");
  EXPECT_EQ(typeOf("patch"), "none");
  EXPECT_EQ(typeOf("gone"), "text/x-heir");
  EXPECT_EQ(typeOf("low"), "text/x-low");
  EXPECT_EQ(typeOf("lower"), "none");
}

TEST_F(UTTypeTest, DiscardingSparesTheDirectoriesThatTakePrecedence) {
  database("home", "50:text/x-kept:*.kept\n");
  database("first", "0:text/x-kept:__NOGLOBS__\n");
  EXPECT_EQ(typeOf("kept"), "text/x-kept");
}

TEST_F(UTTypeTest, MalformedLinesAreSkipped) {
  database(
      "first",
      "\n:\n::\n:::::\n50\n50:text/x-short\nx:text/x-weight:*.weight\n5x:text/x-weight:*.weight\n"
      "99999999999999999999:text/x-weight:*.weight\n:text/"
      "x-weight:*.weight\n50::*.typeless\n50:typeless:*.typeless\n"
      "50:text/x-empty:*.\n50:text/x-empty:\n"
      "\xFF\xFE\n50:text/x-raw:*.\xFF\n 50:text/x-blank:*.blank\n50:text/x-spaces:*.a "
      "b\n50:text/x-good:*.good\n");
  for (const char* extension : {"weight", "typeless", "blank"})
    EXPECT_EQ(typeOf(extension), "none") << extension;
  EXPECT_EQ(typeOf(""), "none");
  EXPECT_EQ(typeOf("a b"), "text/x-spaces");
  EXPECT_EQ(typeOf("\xFF"), "text/x-raw");
  EXPECT_EQ(typeOf("good"), "text/x-good");
}

TEST_F(UTTypeTest, UnusableDatabasesDoNotTakeTheOthersAway) {
  fs::create_directories(root_ / "home" / "mime" / "globs2");  // a folder in the file's place
  database("second", "50:text/x-good:*.good\n");
  EXPECT_EQ(typeOf("good"), "text/x-good");
}

TEST_F(UTTypeTest, WithoutAnyDatabaseNothingIsRegistered) { EXPECT_EQ(typeOf("txt"), "none"); }

TEST_F(UTTypeTest, DatabaseIsReadOnce) {
  database("first", "50:text/x-one:*.one\n");
  EXPECT_EQ(typeOf("one"), "text/x-one");
  database("first", "50:text/x-two:*.two\n");
  EXPECT_EQ(typeOf("one"), "text/x-one");
  EXPECT_EQ(typeOf("two"), "none");
}

TEST_F(UTTypeTest, MachinesOwnDatabaseIsUnderstood) {
  ::unsetenv("XDG_DATA_DIRS");
  if (!fs::exists("/usr/share/mime/globs2")) GTEST_SKIP() << "shared-mime-info is not installed";
  EXPECT_EQ(typeOf("pdf"), "application/pdf");
  EXPECT_EQ(typeOf("JPG"), "image/jpeg");
  EXPECT_EQ(typeOf("txt"), "text/plain");
  EXPECT_EQ(typeOf("c"), "text/x-csrc");
  EXPECT_EQ(typeOf("C"), "text/x-c++src");
}

TEST_F(UTTypeTest, ARegistryAnswersInsteadOfTheMachinesOwn) {
  database("second", "50:application/pdf:*.pdf\n50:text/plain:*.txt\n");
  EXPECT_EQ(typeOf("pdf"), "application/pdf");
  UTType::setRegistry([](const std::string& extension) -> std::optional<std::string> {
    if (extension == "txt") return std::nullopt;
    return "com.example." + extension;
  });
  EXPECT_EQ(typeOf("pdf"), "com.example.pdf");
  EXPECT_EQ(typeOf("PDF"), "com.example.PDF") << "what is asked for goes to it as it is";
  EXPECT_EQ(typeOf("txt"), "none") << "where it knows none, nobody else is asked";
  EXPECT_EQ(UTType::folder().identifier(), "folder");
  UTType::setRegistry(nullptr);
  EXPECT_EQ(typeOf("pdf"), "application/pdf");
  EXPECT_EQ(typeOf("txt"), "text/plain");
}

TEST_F(UTTypeTest, ARegistryMayAskForTypesItself) {
  database("second", "50:application/pdf:*.pdf\n");
  UTType::setRegistry([](const std::string&) -> std::optional<std::string> {
    UTType::setRegistry(nullptr);
    return UTType::typeForFilenameExtension("pdf")->identifier() + "+wrapped";
  });
  EXPECT_EQ(typeOf("x"), "application/pdf+wrapped");
  EXPECT_EQ(typeOf("x"), "none");
}

TEST_F(UTTypeTest, RegistriesMayBeSetWhileOthersAsk) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < 500; ++round) {
        const std::string identifier = "com.example." + std::to_string(round % 2);
        UTType::setRegistry([identifier](const std::string&) { return identifier; });
        const std::string type = typeOf("x");
        EXPECT_TRUE(type == "com.example.0" || type == "com.example.1") << type;
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

}  // namespace
}  // namespace kestrune::platform
