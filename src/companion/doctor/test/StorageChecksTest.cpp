#include "companion/doctor/StorageChecks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/TemporaryDirectory.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using Level = Finding::Level;

constexpr std::uint64_t kGiB = 1ULL << 30U;

TEST(StorageChecks, AFullDiskIsAProblemAndAnAlmostFullOneAWarning) {
  EXPECT_EQ(checkSpace({100 * kGiB, 20 * kGiB}).level, Level::ok);
  EXPECT_EQ(checkSpace({100 * kGiB, 5 * kGiB}).level, Level::ok);
  EXPECT_EQ(checkSpace({100 * kGiB, 4 * kGiB}).level, Level::warning);
  EXPECT_EQ(checkSpace({1000 * kGiB, 10 * kGiB}).level, Level::ok);
  const Finding full = checkSpace({100 * kGiB, 1 << 20U});
  EXPECT_EQ(full.level, Level::problem);
  EXPECT_EQ(full.text, "1.0 MiB of 100.0 GiB are free where contents are kept.");
}

TEST(StorageChecks, ADirectoryMustBePrivateAndUsable) {
  const support::TemporaryDirectory top;
  const fs::path directory = top.path() / "it";
  EXPECT_EQ(checkDirectory("replica", directory).level, Level::ok)
      << "it is made when it is needed";
  fs::create_directory(directory);
  const struct {
    mode_t mode;
    Level level;
    const char* advice;
  } table[] = {{0700, Level::ok, ""},
               {0755, Level::warning, "chmod 700"},
               {0701, Level::warning, "chmod 700"},
               {0500, Level::problem, "chmod 700"}};
  for (const auto& row : table) {
    ASSERT_EQ(::chmod(directory.c_str(), row.mode), 0);
    const Finding finding = checkDirectory("replica", directory);
    EXPECT_EQ(finding.level, row.level) << row.mode << " " << finding.text;
    EXPECT_THAT(finding.advice, HasSubstr(row.advice));
    EXPECT_THAT(finding.text, HasSubstr(directory.string()));
    EXPECT_EQ(finding.about, "replica");
  }
  top.write("file", "");
  EXPECT_EQ(checkDirectory("replica", top.path() / "file").level, Level::problem);
  EXPECT_EQ(checkDirectory("replica", top.path() / "file/below").level, Level::problem);
}

TEST(StorageChecks, FileSystemsThatDoNotKeepThingsAreTold) {
  if (::access("/dev/shm", W_OK) != 0) GTEST_SKIP() << "no tmpfs here";
  std::string name = "/dev/shm/kestrune-test-XXXXXX";
  ASSERT_NE(::mkdtemp(name.data()), nullptr);
  const Finding finding = checkDirectory("replica", name);
  fs::remove(name);
  EXPECT_EQ(finding.level, Level::warning);
  EXPECT_THAT(finding.text, HasSubstr("tmpfs"));
}

TEST(StorageChecks, LooksAtTheDiskOfWhatIsNotThereYet) {
  const support::TemporaryDirectory top;
  const Findings findings = checkStorage(top.path(), {top.path() / "a/b/c"});
  ASSERT_EQ(findings.size(), 3U);
  EXPECT_EQ(findings[2].about, "disk");
  EXPECT_THAT(findings[2].text, HasSubstr("are free"));
}

}  // namespace
}  // namespace kestrune
