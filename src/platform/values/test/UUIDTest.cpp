#include "platform/values/UUID.h"

#include <gtest/gtest.h>

#include <set>

namespace kestrune::platform {
namespace {

TEST(UUIDTest, HasTheStandardFormWithUpperCaseDigits) {
  for (int i = 0; i < 64; ++i) {
    const std::string text = newUUIDString();
    ASSERT_EQ(text.size(), 36U) << text;
    for (std::size_t at = 0; at < text.size(); ++at) {
      const bool hyphen = at == 8 || at == 13 || at == 18 || at == 23;
      const std::string_view allowed = hyphen ? "-" : "0123456789ABCDEF";
      ASSERT_NE(allowed.find(text[at]), std::string_view::npos) << text << " at " << at;
    }
    ASSERT_EQ(text[14], '4') << "version: " << text;
    ASSERT_NE(std::string_view("89AB").find(text[19]), std::string_view::npos)
        << "variant: " << text;
  }
}

TEST(UUIDTest, NoTwoAreEqual) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(seen.insert(newUUIDString()).second);
}

}  // namespace
}  // namespace kestrune::platform
