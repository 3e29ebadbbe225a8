#include "service/FilePreview.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrune::service {
namespace {

using namespace std::string_literals;

TEST(FilePreview, OnlyWhatIsHarmlessIsShown) {
  EXPECT_EQ(previewOf("a.PNG").contentType, "image/png");
  EXPECT_EQ(previewOf("a.b.jpeg").kind, PreviewKind::picture);
  EXPECT_EQ(previewOf("a.mp3").kind, PreviewKind::audio);
  EXPECT_EQ(previewOf("a.webm").kind, PreviewKind::video);
  EXPECT_EQ(previewOf("a.pdf").kind, PreviewKind::pdf);
  for (const char* name : {"a.html", "a.htm", "a.xhtml", "a.svg", "a.svgz", "a.xml", "a.js",
                           "a.css", "a.txt", "a.swf", "a", "png", ".png", "a.png.exe"}) {
    EXPECT_EQ(previewOf(name).kind, PreviewKind::none) << name;
    EXPECT_EQ(previewOf(name).contentType, "") << name;
  }
}

TEST(FilePreview, TextIsWhatReadsAsUTF8) {
  EXPECT_EQ(shownText("a\tb\r\n\xC3\xBC", false), "a\tb\r\n\xC3\xBC");
  EXPECT_FALSE(shownText("a\0b"s, false));
  EXPECT_FALSE(shownText("a\xFF", false));
  EXPECT_FALSE(
      shownText("a\xFF"
                "b",
                true));
  EXPECT_EQ(shownText("\x1B[1m\x7F", false), "\xE2\x90\x9B[1m\xE2\x90\xA1");
}

TEST(FilePreview, ACharacterThatTheEndHasCutIsLeftOut) {
  for (const std::string character : {"\xC3\xBC", "\xE8\xB3\x87", "\xF0\x9F\x98\x80"}) {
    for (std::size_t cut = 1; cut < character.size(); ++cut) {
      const std::string text = "ab" + character.substr(0, cut);
      EXPECT_EQ(shownText(text, true), "ab");
      EXPECT_FALSE(shownText(text, false));
    }
    EXPECT_EQ(shownText("ab" + character, true), "ab" + character);
  }
}

}  // namespace
}  // namespace kestrune::service
