#include "platform/values/Json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/values/JsonDocument.h"
#include "platform/values/NSError.h"

namespace kestrune::platform {
namespace {

using testing::HasSubstr;
using testing::Not;

/// The description of the error that decoding `text` throws; fails the test if it throws none or
/// another one.
std::string refusal(std::string_view text) {
  try {
    const Json value = decodeJson(text);
    ADD_FAILURE() << "accepted: " << value.dump(-1, ' ', true, Json::error_handler_t::replace);
  } catch (const NSCocoaError& error) {
    EXPECT_EQ(error.code(), NSCocoaError::coderInvalidValue);
    EXPECT_EQ(error.domain(), kNSCocoaErrorDomain);
    return error.localizedDescription();
  }
  return "";
}

std::string repeated(std::string_view text, int times) {
  std::string result;
  for (int i = 0; i < times; ++i) result += text;
  return result;
}

TEST(JsonTest, EncodesCompactlyWithEscapedSlashes) {
  struct {
    Json value;
    const char* expected;
  } const cases[] = {
      {Json(nullptr), "null"},
      {Json(true), "true"},
      {Json(-12), "-12"},
      {Json(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808"},
      {Json(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615"},
      {Json(""), R"("")"},
      {Json("/"), R"("\/")"},
      {Json("/Docs/a.pdf"), R"("\/Docs\/a.pdf")"},
      {Json("\\/"), R"("\\\/")"},
      {Json("a\"b\n\t\x01"), R"("a\"b\n\t\u0001")"},
      {Json("Gr\u00FC\u00DFe \U0001F600"), "\"Gr\u00FC\u00DFe \U0001F600\""},
      {Json::array(), "[]"},
      {Json::object(), "{}"},
      {Json::array({"/x", 1}), R"(["\/x",1])"},
      {Json{{"a/b", "c"}}, R"({"a\/b":"c"})"},
  };
  for (const auto& [value, expected] : cases) {
    EXPECT_EQ(encodeJson(value), expected);
    EXPECT_EQ(decodeJson(encodeJson(value)), value) << expected;
  }
}

TEST(JsonTest, EncodingInvalidUTF8IsRefused) {
  for (const char* text : {"\xFF", "a\xC3", "\xED\xA0\x80", "\xC0\x80"}) {
    EXPECT_THROW(encodeJson(Json(text)), NSCocoaError) << text;
    EXPECT_THROW(encodeJson(Json{{text, 1}}), NSCocoaError) << text;
  }
}

TEST(JsonTest, DecodesValuesWithWhiteSpaceAround) {
  EXPECT_EQ(decodeJson("{}"), Json::object());
  EXPECT_EQ(decodeJson(" \t\r\n[1, 2.5, \"\\u00e9\", null] \n"),
            Json::array({1, 2.5, "\u00E9", nullptr}));
  EXPECT_EQ(decodeJson("\"\\ud83d\\ude00\""), Json("\U0001F600"));
  EXPECT_EQ(decodeJson("7"), Json(7));
}

TEST(JsonTest, ByteOrderMarkIsSkipped) {
  EXPECT_EQ(decodeJson("\xEF\xBB\xBF{\"a\":1}"), (Json{{"a", 1}}));
  EXPECT_THAT(refusal("\xEF\xBB\xBF"), HasSubstr("invalid JSON at byte"));
  EXPECT_THAT(refusal("\xEF\xBB{}"), HasSubstr("invalid JSON at byte"));
  EXPECT_THAT(refusal(" \xEF\xBB\xBF{}"), HasSubstr("invalid JSON at byte 2"));
  EXPECT_THAT(refusal("\xEF\xBB\xBF\xEF\xBB\xBF{}"), HasSubstr("invalid JSON at byte 4"));
}

TEST(JsonTest, LastOfRepeatedKeysCounts) {
  EXPECT_EQ(decodeJson(R"({"a":1,"b":2,"a":3})"), (Json{{"a", 3}, {"b", 2}}));
}

TEST(JsonTest, NumbersBeyondSixtyFourBitsAreDoubles) {
  EXPECT_EQ(decodeJson("9223372036854775807").get<std::int64_t>(),
            std::numeric_limits<std::int64_t>::max());
  EXPECT_TRUE(decodeJson("18446744073709551616").is_number_float());
  EXPECT_TRUE(decodeJson("-9223372036854775809").is_number_float());
}

TEST(JsonTest, MalformedTextIsRefusedWithItsPlace) {
  struct {
    std::string_view text;
    const char* description;
  } const cases[] = {
      {"", "at byte 1:"},
      {"   ", "at byte 4:"},
      {"{", "at byte 2:"},
      {"[1,2", "at byte 5:"},
      {"{}x", "at byte 3:"},
      {"{} {}", "at byte 4:"},
      {"[1,]", "at byte 4:"},
      {"{\"a\":}", "at byte 6:"},
      {"{\"a\" 1}", "at byte 6:"},
      {"{a:1}", "at byte 2:"},
      {"'a'", "at byte 1:"},
      {"nul", "at byte 4:"},
      {"NaN", "at byte 1:"},
      {"01", "at byte 2:"},
      {"+1", "at byte 1:"},
      {"1.", "at byte 3:"},
      {"// c\n1", "at byte 1:"},
      {"]", "at byte 1:"},
      {"[}", "at byte 2:"},
      {"\"a", "at byte 3:"},
      {"\"a\nb\"", "at byte 3:"},
      {"\"\\q\"", "at byte 3:"},
      {"\"\\ud800\"", "at byte 8:"},
      {"\"\\udc00\"", "at byte 7:"},
      {"1e999", "at byte 5: a number too large"},
      {"[-1e999]", "a number too large"},
      {std::string_view("{}\0", 3), "at byte 3: a zero byte"},
      {std::string_view("{}\0x", 4), "at byte 3: a zero byte"},
      {std::string_view("\"a\0b\"", 5), "at byte 3: a zero byte"},
      {std::string_view("\0", 1), "at byte 1: a zero byte"},
  };
  for (const auto& [text, description] : cases) {
    EXPECT_THAT(refusal(text), HasSubstr(description)) << text;
    EXPECT_THAT(refusal(text), testing::StartsWith("invalid JSON at byte ")) << text;
  }
}

TEST(JsonTest, InvalidUTF8IsRefusedWithItsPlace) {
  for (const char* text : {"\"\xFF\"", "\"\xC3\"", "\"\xC0\x80\"", "\"\xED\xA0\x80\"",
                           "\"\xF5\x80\x80\x80\"", "\x80"}) {
    EXPECT_THAT(refusal(text), HasSubstr("at byte ")) << testing::PrintToString(text);
  }
  EXPECT_THAT(refusal("[\"abc\xFFzzz\"]"), HasSubstr("at byte 6:"));
}

TEST(JsonTest, NestingUpToTheBoundIsRead) {
  for (const auto& [open, close] : {std::pair("[", "]"), std::pair("{\"a\":", "}")}) {
    const bool array = open == std::string_view("[");
    const std::string core = array ? "" : "1";
    EXPECT_NO_THROW(
        decodeJson(repeated(open, kMaxJsonDepth) + core + repeated(close, kMaxJsonDepth)));
    EXPECT_THAT(
        refusal(repeated(open, kMaxJsonDepth + 1) + core + repeated(close, kMaxJsonDepth + 1)),
        HasSubstr("nested too deeply"));
  }
  // The reader of large texts has the same bound.
  const std::string deepest =
      repeated("{\"a\":", kMaxJsonDepth) + "1" + repeated("}", kMaxJsonDepth);
  EXPECT_NO_THROW(JsonDocument{deepest});
  EXPECT_THROW(JsonDocument{"[" + deepest + "]"}, NSCocoaError);
  EXPECT_THAT(refusal(repeated("[", kMaxJsonDepth + 1)),
              HasSubstr("at byte 129: nested too deeply"));
}

TEST(JsonTest, HugeNestingIsRefusedWithoutRecursion) {
  EXPECT_THAT(refusal(repeated("[", 5'000'000)), HasSubstr("nested too deeply"));
  EXPECT_THAT(refusal(repeated("{\"a\":", 1'000'000)), HasSubstr("nested too deeply"));
}

TEST(JsonTest, BracketsSideBySideOrInTextsAreNoNesting) {
  EXPECT_EQ(decodeJson("[" + repeated("[],", 1000) + "{}]").size(), 1001U);
  EXPECT_EQ(decodeJson("\"" + repeated("[{", 1000) + "\"").get<std::string>().size(), 2000U);
  EXPECT_EQ(decodeJson("\"\\\"" + repeated("[", 1000) + "\"").get<std::string>().size(), 1001U);
  EXPECT_EQ(decodeJson("[\"\\\\\"," + repeated("[],", 1000) + "1]").size(), 1002U);
}

TEST(JsonTest, BracketsAfterAnErrorDoNotHideIt) {
  // Closing brackets that close nothing must not make room for more opening ones.
  EXPECT_THAT(refusal("]" + repeated("[", 10)), HasSubstr("at byte 1:"));
  EXPECT_THAT(refusal(repeated("]", 1000) + repeated("[", 1000)), HasSubstr("at byte 1:"));
}

TEST(JsonTest, RefusalNeverQuotesTheText) {
  for (const char* text :
       {"{\"token\": \"hunter2}", "{\"token\": \"hunter2\xFF\"}", "{\"token\": hunter2}",
        "[hunter2", "{\"hunter2\" 1}", "\"hunter2\" x"}) {
    EXPECT_THAT(refusal(text), Not(HasSubstr("hunter"))) << text;
  }
  EXPECT_THAT(refusal("12345e98765"), Not(HasSubstr("12345e")));
}

}  // namespace
}  // namespace kestrune::platform
