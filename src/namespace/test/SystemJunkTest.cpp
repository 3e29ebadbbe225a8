#include "namespace/SystemJunk.h"

#include <gtest/gtest.h>

namespace kestrune {
namespace {

TEST(SystemJunk, ExactNamesAndBeginningsAreJunk) {
  for (const char* name : {".Trash", ".trash", ".DS_Store", "._", "._a.txt", "._.DS_Store",
                           ".fseventsd", ".fseventsd-old", ".Spotlight-", ".Spotlight-V100",
                           ".DocumentRevisions", ".DocumentRevisions-V100"}) {
    EXPECT_TRUE(isSystemJunk(name)) << name;
  }
}

TEST(SystemJunk, EverythingElseIsKept) {
  for (const char* name : {"",
                           ".",
                           "..",
                           "a.txt",
                           ".Trashes",
                           ".trashed",
                           ".TRASH",
                           " .Trash",
                           ".Trash ",
                           "x.Trash",
                           ".DS_Store.txt",
                           ".ds_store",
                           ".DS_Stor",
                           "_.a",
                           ".-",
                           ".fsevents",
                           ".Fseventsd",
                           ".Spotlight",
                           ".spotlight-V100",
                           "a._b",
                           ".documentRevisions",
                           ".DocumentRevision",
                           ".Trash/",
                           "/.Trash"}) {
    EXPECT_FALSE(isSystemJunk(name)) << name;
  }
  EXPECT_FALSE(isSystemJunk(std::string_view(".Trash\0", 7)));
}

}  // namespace
}  // namespace kestrune
