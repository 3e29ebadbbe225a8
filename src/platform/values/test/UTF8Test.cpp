#include "platform/values/UTF8.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kestrune::platform {
namespace {

TEST(UTF8, WellFormedTextIsValid) {
  const std::vector<std::string> texts = {
      "",
      "plain",
      std::string("\0", 1),
      "\x7F",
      "\xC2\x80",
      "\xDF\xBF",
      "\xE0\xA0\x80",
      "\xED\x9F\xBF",
      "\xEE\x80\x80",
      "\xEF\xBF\xBF",
      "\xF0\x90\x80\x80",
      "\xF4\x8F\xBF\xBF",
      "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z",
  };
  for (const auto& text : texts) EXPECT_TRUE(isValidUTF8(text)) << testing::PrintToString(text);
}

TEST(UTF8, EverythingElseIsNot) {
  const std::vector<std::string> texts = {
      "\x80",              // a continuation without a lead
      "a\xBF",             //
      "\xC0\x80",          // overlong
      "\xC1\xBF",          //
      "\xE0\x9F\xBF",      //
      "\xF0\x8F\xBF\xBF",  //
      "\xED\xA0\x80",      // surrogates
      "\xED\xBF\xBF",      //
      "\xF4\x90\x80\x80",  // beyond U+10FFFF
      "\xF5\x80\x80\x80",  //
      "\xFF",              //
      "\xC2",              // cut off
      "\xE2\x82",          //
      "\xF0\x9F\x98",      //
      "\xC2\x41",          // a continuation that is none
      "\xE2\x82\x41",      //
      "\xF0\x9F\x41\x80",  //
      "\xF0\x9F\x98\xC0",  //
      "fine until the \xE2\x28 end",
  };
  for (const auto& text : texts) EXPECT_FALSE(isValidUTF8(text)) << testing::PrintToString(text);
}

}  // namespace
}  // namespace kestrune::platform
