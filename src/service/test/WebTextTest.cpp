#include "service/WebText.h"

#include <gtest/gtest.h>

#include <string>

#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

TEST(WebText, EscapesWhatHtmlGivesAMeaning) {
  EXPECT_EQ(escapedHtml(R"(<a href="x" id='y'>&amp;)"),
            "&lt;a href=&quot;x&quot; id=&#39;y&#39;&gt;&amp;amp;");
}

TEST(WebText, ReplacesWhatMakesANameLookLikeAnother) {
  EXPECT_EQ(visibleName("a\xE2\x80\xAE"
                        "b"),
            "a\xEF\xBF\xBD"
            "b");
  for (const char* hidden : {"\xE2\x80\xA8", "\xE2\x80\xA9", "\xE2\x80\xAA", "\xE2\x80\xAE",
                             "\xE2\x81\xA6", "\xE2\x81\xA9", "\xC2\x85", "\x1B", "\x7F"}) {
    EXPECT_EQ(visibleName(hidden), "\xEF\xBF\xBD");
  }
  // Marks, joiners, and everything that is next to what is replaced.
  for (const char* kept : {"\xE2\x80\x8D", "\xE2\x80\x8F", "\xE2\x80\xA7", "\xE2\x80\xAF",
                           "\xE2\x81\xA5", "\xE2\x81\xAA", "\xC2\xA0", "\xE8\xB3\x87", "\xC3\xBC"})
    EXPECT_EQ(visibleName(kept), kept);
}

TEST(WebText, SizesAreReadable) {
  const std::pair<std::uint64_t, const char*> cases[] = {{0, "0 bytes"},
                                                         {1, "1 byte"},
                                                         {999, "999 bytes"},
                                                         {1000, "1.0 kB"},
                                                         {9'949, "9.9 kB"},
                                                         {9'950, "10 kB"},
                                                         {999'499, "999 kB"},
                                                         {999'500, "1.0 MB"},
                                                         {1'500'000'000, "1.5 GB"},
                                                         {~std::uint64_t{0}, "18 EB"}};
  for (const auto& [bytes, text] : cases) EXPECT_EQ(readableSize(bytes), text);
  EXPECT_EQ(grouped(0), "0");
  EXPECT_EQ(grouped(999), "999");
  EXPECT_EQ(grouped(1000), "1,000");
  EXPECT_EQ(grouped(1'234'567), "1,234,567");
}

TEST(WebText, TimesAreForProgramsAndForPeople) {
  EXPECT_EQ(timeElement({1'714'566'645, 123'000'000}),
            "<time datetime=\"2024-05-01T12:30:45.123Z\">2024-05-01 12:30</time>");
}

TEST(WebText, FormsAreDecoded) {
  EXPECT_EQ(formField("a=1&token=x+y%26z&token=2", "token"), "x y&z");
  EXPECT_EQ(formField("token=", "token"), "");
  EXPECT_EQ(formField("tokens=1&token", "token"), std::nullopt);
  EXPECT_THROW(formField("token=%2", "token"), ServiceError);
}

TEST(WebText, AFileNameCannotLeaveItsHeaderField) {
  EXPECT_EQ(contentDisposition("attachment", "a\"b\\c%.t\xC3\xBC\xE2\x80\xAE"),
            "attachment; filename=\"a_b_c_.t__\"; "
            "filename*=UTF-8''a%22b%5Cc%25.t%C3%BC%EF%BF%BD");
}

}  // namespace
}  // namespace kestrune::service
