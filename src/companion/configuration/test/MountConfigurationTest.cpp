#include "companion/configuration/MountConfiguration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "companion/configuration/CommandError.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::string complaintAbout(const std::string& text) {
  try {
    MountConfiguration::decode(text, "/there/mount.json");
  } catch (const CommandError& error) {
    return error.what();
  }
  return "";
}

class MountConfigurationTest : public testing::Test {
 protected:
  support::TemporaryDirectory home_;
  support::ScopedEnvironment dataHome_{"XDG_DATA_HOME", home_.path() / "data"};
  const std::filesystem::path file_ = home_.path() / "data/Kestrune/mount.json";
};

TEST_F(MountConfigurationTest, WithoutAFileTheListStays) {
  EXPECT_THAT(MountConfiguration::read().lookersOn({"a", "b"}), ElementsAre("a", "b"));
}

TEST_F(MountConfigurationTest, AddsToTheListAndTakesFromIt) {
  MountConfiguration::read();  // makes the directory
  home_.write("data/Kestrune/mount.json",
              R"({"programsWithoutDownloads": {"add": ["mysearchd", "b"], "remove": ["a"]}})");
  EXPECT_THAT(MountConfiguration::read().lookersOn({"a", "b"}), ElementsAre("b", "mysearchd"));
}

TEST_F(MountConfigurationTest, ABrokenFileIsNotTakenForNone) {
  MountConfiguration::read();
  home_.write("data/Kestrune/mount.json", "{");
  EXPECT_THROW(MountConfiguration::read(), CommandError);
  std::filesystem::remove(file_);
  std::filesystem::create_directory(file_);
  EXPECT_THROW(MountConfiguration::read(), CommandError);
}

TEST(MountConfiguration, SaysWhatIsWrongAndWhere) {
  EXPECT_EQ(complaintAbout("{}"), "");
  EXPECT_EQ(complaintAbout(R"({"programsWithoutDownloads": {}})"), "");
  for (const char* text :
       {"[]", R"({"programsWithoutDownloads": []})", R"({"programsWithoutDownload": {}})",
        R"({"programsWithoutDownloads": {"added": []}})",
        R"({"programsWithoutDownloads": {"add": "x"}})",
        R"({"programsWithoutDownloads": {"add": [1]}})",
        R"({"programsWithoutDownloads": {"remove": [""]}})",
        R"({"programsWithoutDownloads": {"add": ["/usr/bin/x"]}})"}) {
    EXPECT_THAT(complaintAbout(text), HasSubstr("'/there/mount.json'")) << text;
  }
  EXPECT_THAT(complaintAbout(R"({"programsWithoutDownload": {}})"),
              HasSubstr("no key \"programsWithoutDownload\""));
}

}  // namespace
}  // namespace kestrune
