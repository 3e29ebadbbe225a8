#include "host/launch/CrashReports.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "platform/values/NSError.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::host {
namespace {

namespace fs = std::filesystem;

class CrashReportsTest : public testing::Test {
 protected:
  void keep(const std::string& words, const std::string& heading = "it ended") const {
    const Descriptor file = reports.open();
    ASSERT_EQ(::write(file.number(), words.data(), words.size()),
              static_cast<ssize_t>(words.size()));
    reports.keep(file, heading);
  }
  std::set<fs::path> kept() const {
    std::set<fs::path> files;
    for (const auto& entry : fs::directory_iterator(directory)) files.insert(entry.path());
    return files;
  }
  static unsigned modeOf(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return status.st_mode & 07777U;
  }

  const support::TemporaryDirectory temporary;
  const fs::path directory = temporary.path() / "crashes";
  const CrashReports reports{directory, std::make_shared<HostLog>()};
};

TEST_F(CrashReportsTest, AreForTheOwnerAlone) {
  keep("calls");
  EXPECT_EQ(modeOf(directory), 0700U);
  ASSERT_EQ(kept().size(), 1U);
  EXPECT_EQ(modeOf(*kept().begin()), 0600U);
}

TEST_F(CrashReportsTest, AFileThatIsNotKeptLeavesNothing) {
  reports.open();
  EXPECT_EQ(kept().size(), 0U);
}

TEST_F(CrashReportsTest, HaveAHeadingAndTheProgramsWords) {
  keep("first\nsecond", "it ended by a signal");
  const std::string text = support::contentsOf(*kept().begin());
  const auto line = text.find('\n');
  EXPECT_TRUE(text.substr(0, line).ends_with(" it ended by a signal")) << text;
  EXPECT_EQ(text.substr(line + 1), "first\nsecond\n");
}

TEST_F(CrashReportsTest, HaveNothingThatDisturbsATerminal) {
  keep(std::string("a\x1b[2Jb\0c\r", 9));
  for (const char byte : support::contentsOf(*kept().begin()))
    EXPECT_TRUE(byte == '\n' || (byte >= ' ' && byte != '\x7f')) << static_cast<int>(byte);
}

TEST_F(CrashReportsTest, AreNeverLong) {
  keep(std::string(CrashReports::kMostBytes + 1000, 'x'), "");
  const std::string text = support::contentsOf(*kept().begin());
  EXPECT_EQ(text.size() - text.find('\n') - 2, CrashReports::kMostBytes);
}

TEST_F(CrashReportsTest, AreTheLastTen) {
  keep("the oldest");
  const fs::path oldest = *kept().begin();
  temporary.write("crashes/other.txt", "of somebody else");
  for (std::size_t i = 0; i < CrashReports::kMost + 2; ++i) {
    ::usleep(2000);  // their names tell milliseconds
    keep(std::to_string(i));
  }
  EXPECT_EQ(kept().size(), CrashReports::kMost + 1);
  EXPECT_FALSE(fs::exists(oldest));
  EXPECT_TRUE(fs::exists(directory / "other.txt"));
  EXPECT_EQ(support::contentsOf(*kept().begin()).substr(34), "2\n");
}

TEST_F(CrashReportsTest, WhereNoneCanBeMadeItSaysWhere) {
  const CrashReports nowhere(temporary.path() / "missing" / "crashes", std::make_shared<HostLog>());
  try {
    nowhere.open();
    FAIL() << "opened";
  } catch (const platform::NSPOSIXError& error) {
    EXPECT_EQ(error.code(), ENOENT);
    EXPECT_NE(error.localizedDescription().find("missing/crashes"), std::string::npos);
  }
}

TEST_F(CrashReportsTest, OneThatCannotBeKeptIsLost) {
  const Descriptor file = reports.open();
  fs::remove_all(directory);
  reports.keep(file, "it ended");  // says so in the log, no more
  EXPECT_FALSE(fs::exists(directory));
}

}  // namespace
}  // namespace kestrune::host
