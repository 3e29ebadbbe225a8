#include "companion/control/MountTable.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrune {
namespace {

using Place = std::optional<std::filesystem::path>;

const std::string kTable =
    "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
    "40 22 0:50 / /home/u/Kestrune rw,nosuid,nodev shared:9 master:1 - fuse.kestrune kestrune rw\n"
    "41 22 0:51 / /home/u/two\\040words ro - fuse.kestrune kestrune ro\n"
    "42 40 0:52 / /home/u/Kestrune/inner rw - tmpfs tmpfs rw\n"
    "43 22 0:53 / /home/u/covered rw - fuse.kestrune kestrune rw\n"
    "44 43 0:54 / /home/u/covered rw - tmpfs tmpfs rw\n"
    "45 22 0:55 / /home/u/fuse rw - fuse.other other rw\n"
    "broken line\n";

TEST(MountTable, FindsTheMountAroundAPath) {
  EXPECT_EQ(mountPointAround(kTable, "/home/u/Kestrune"), Place("/home/u/Kestrune"));
  EXPECT_EQ(mountPointAround(kTable, "/home/u/Kestrune/a/b"), Place("/home/u/Kestrune"));
  EXPECT_EQ(mountPointAround(kTable, "/home/u/two words/a"), Place("/home/u/two words"));
}

TEST(MountTable, FindsNothingElsewhere) {
  for (const char* path : {"/", "/home/u", "/home/u/Kestrune2", "/home/u/Kestrun", "/home/u/fuse/a",
                           "/home/u/Kestrune/inner/a", "/home/u/covered/a"}) {
    EXPECT_EQ(mountPointAround(kTable, path), Place()) << path;
  }
  EXPECT_EQ(mountPointAround("", "/home/u/Kestrune"), Place());
}

TEST(MountTable, OfThisProcessHasWhatEveryProcessHas) {
  EXPECT_NE(presentMountTable().find(" / /proc "), std::string::npos);
}

TEST(MountTable, TellsAllFoldersOfOurs) {
  const std::string table =
      "36 35 98:0 / /mnt/one\\040two rw - fuse.kestrune kestrune rw\n"
      "37 35 98:0 / /mnt/other rw shared:1 - ext4 /dev/sda rw\n"
      "38 35 98:0 / /k rw shared:1 master:2 - fuse.kestrune kestrune rw\n";
  EXPECT_EQ(mountPointsOfOurs(table), (std::vector<std::filesystem::path>{"/mnt/one two", "/k"}));
  EXPECT_TRUE(mountPointsOfOurs("").empty());
}

}  // namespace
}  // namespace kestrune
