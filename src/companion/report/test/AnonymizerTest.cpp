#include "companion/report/Anonymizer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kestrune {
namespace {

using testing::HasSubstr;
using testing::Not;

const Anonymizer kAnonymizer("key");
std::string hash(const std::string& name) { return kAnonymizer.name(name); }

TEST(Anonymizer, AHashIsTheSameForTheSameNameAndKeyAlone) {
  EXPECT_EQ(hash("a.txt"), Anonymizer("key").name("a.txt"));
  EXPECT_NE(hash("a.txt"), Anonymizer("other").name("a.txt"));
  EXPECT_NE(hash("a.txt"), hash("b.txt"));
  EXPECT_EQ(hash("a.txt").size(), 12U);
  EXPECT_EQ(Anonymizer::here().name("x"), Anonymizer::here().name("x")) << "this machine has an id";
}

TEST(Anonymizer, PathsKeepTheirShape) {
  EXPECT_EQ(kAnonymizer.path("/"), "/");
  EXPECT_EQ(kAnonymizer.path("/Docs/a.txt"), "/" + hash("Docs") + "/" + hash("a.txt"));
}

TEST(Anonymizer, WhatIsQuotedBecomesAHash) {
  EXPECT_EQ(kAnonymizer.text("fetch '/Docs/a b': HTTP 500"),
            "fetch '/" + hash("Docs") + "/" + hash("a b") + "': HTTP 500");
  EXPECT_EQ(kAnonymizer.text("no \"x y\" there"), "no \"" + hash("x y") + "\" there");
  EXPECT_EQ(kAnonymizer.text("it can't be, since it isn't"), "it can't be, since it isn't");
}

TEST(Anonymizer, WhatCannotBeToldApartIsLeftOut) {
  for (const char* text :
       {"move '/secret' to '/other secret'", "'it's secret' is", "list /secret/x: 3", "in 'secret",
        "(/secret) x", "host.example/secret", "fetch 'a' of /secret b", "file:///secret",
        "\"secret", "'/a': open '/secret': no", "isn't '/secret'", "'/usr/bin/x secret'",
        "a\n/secret"}) {
    EXPECT_THAT(kAnonymizer.text(text), Not(HasSubstr("secret"))) << text;
  }
  EXPECT_EQ(kAnonymizer.text("list /x y: 3"), "list (left out)");
}

TEST(Anonymizer, FilesOfTheSystemStay) {
  for (const char* text : {"not installed (/usr/bin/bwrap)", "(/proc/sys/user/max is 0)",
                           "'/dev/fuse' can be opened.", "/usr/bin/x and /usr/bin/y"})
    EXPECT_EQ(kAnonymizer.text(text), text);
}

TEST(Anonymizer, HidesWhatItIsTold) {
  Anonymizer anonymizer("key");
  anonymizer.hide("files.example");
  anonymizer.hide("a");
  EXPECT_EQ(anonymizer.text("Could not find files.example, files.example"),
            "Could not find " + hash("files.example") + ", " + hash("files.example"));
}

TEST(Anonymizer, OfPendingChangesAllButNamesStays) {
  const platform::Json pending{
      {"count", 2},
      {"changes",
       {{{"path", "/secret"}, {"bytes", 5}, {"reason", "'/secret' is full"}},
        {{"path", {{"hex", "2fff"}}}, {"bytes", 6}}}}};
  const auto told = kAnonymizer.pending(pending);
  EXPECT_EQ(told["changes"][0]["path"], "/" + hash("secret"));
  EXPECT_EQ(told["changes"][0]["bytes"], 5);
  EXPECT_EQ(told["changes"][1]["path"], "/" + hash("\xff"));
  EXPECT_THAT(platform::encodeJson(told), Not(HasSubstr("secret")));
}

}  // namespace
}  // namespace kestrune
