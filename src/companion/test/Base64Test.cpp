#include "companion/console/Base64.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace kestrune {
namespace {

TEST(Base64, GivesTheTextsOfTheStandardAndReadsThemBack) {
  const std::vector<std::pair<std::string, std::string>> table = {{"", ""},
                                                                  {"f", "Zg=="},
                                                                  {"fo", "Zm8="},
                                                                  {"foo", "Zm9v"},
                                                                  {"foob", "Zm9vYg=="},
                                                                  {"fooba", "Zm9vYmE="},
                                                                  {"foobar", "Zm9vYmFy"},
                                                                  {"\xFF\xFB\xBF", "//u/"},
                                                                  {std::string(3, '\0'), "AAAA"}};
  for (const auto& [bytes, text] : table) {
    EXPECT_EQ(base64Encoded(bytes), text);
    EXPECT_EQ(base64Decoded(text), bytes);
  }
}

TEST(Base64, RefusesEverythingElse) {
  for (const std::string text : {"Zg", "Zg=", "Zg===", "Z", "=", "====", "Zh==", "Zm9=", "Zm9v\n",
                                 " Zm9v", "Zm-_", "Zg==Zg==", "Zm9v=", "\xC3\xA9=="}) {
    EXPECT_EQ(base64Decoded(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace kestrune
