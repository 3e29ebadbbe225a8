// Lines that are no calls: each prints one "invalid" line, nothing else happens, and the console
// goes on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "companion/test/ConsoleHarness.h"

namespace kestrune {
namespace {

using namespace platform;
using testing::HasSubstr;

struct BadLine {
  std::string line;
  std::string id;       // as printed
  std::string message;  // a part of it
};

/// No method of its extension may be called: nothing is set for any.
void expectInvalid(const std::vector<BadLine>& table, std::shared_ptr<FakeExtension> extension =
                                                          std::make_shared<FakeFullExtension>()) {
  for (const auto& bad : table) {
    const auto lines = consoleLines(extension, {bad.line, R"({"id":"next","op":"invalidate"})"});
    ASSERT_EQ(lines.size(), 2U) << bad.line.substr(0, 200);
    const auto json = Json::parse(lines[0]);
    EXPECT_EQ(lines[0].substr(0, lines[0].find(R"("message")")),
              R"({"id":)" + bad.id + R"(,"event":"invalid","seq":1,)")
        << bad.line.substr(0, 200);
    EXPECT_THAT(json["message"].get<std::string>(), HasSubstr(bad.message));
    EXPECT_EQ(lines[1], R"({"id":"next","event":"completion","seq":2})");
  }
}

TEST(ConsoleInvalid, LinesThatAreNoObject) {
  expectInvalid(
      {{"", "null", "not a JSON object"},
       {"   ", "null", "not a JSON object"},
       {"hello", "null", "not a JSON object"},
       {"[1]", "null", "array"},
       {"\"item\"", "null", "string"},
       {"17", "null", "number"},
       {"null", "null", "null"},
       {R"({"id":1,"op":"invalidate")", "null", "not a JSON object"},
       {R"({"id":1,"op":"invalidate"} {})", "null", "not a JSON object"},
       {R"({'id':1,'op':'invalidate'})", "null", "not a JSON object"},
       {R"({"id":1,"op":"invalidate",})", "null", "not a JSON object"},
       {"{\"id\":1,\"op\":\"inval\xFF\"}", "null", "not a JSON object"},
       {R"({"id":"\ud800","op":"invalidate"})", "null", "not a JSON object"},
       {R"({"id":NaN,"op":"invalidate"})", "null", "not a JSON object"},
       {R"({"id":1e999,"op":"invalidate"})", "null", "not a JSON object"},
       {std::string("{\"id\":1,\0\"op\":\"invalidate\"}", 25), "null", "not a JSON object"}});
}

TEST(ConsoleInvalid, DeepNesting) {
  const std::size_t depth = 1'000'000;
  expectInvalid(
      {{std::string(depth, '['), "null", "nested"},
       {R"({"op":"invalidate","id":)" + std::string(depth, '[') + std::string(depth, ']') + "}",
        "null", "nested"}});
}

TEST(ConsoleInvalid, ALineBeyondTheLimit) {
  expectInvalid({{R"({"id":1,"op":")" + std::string(std::size_t{65} << 20U, 'x') + "\"}", "null",
                  "longer than"}});
}

TEST(ConsoleInvalid, ALongUnknownOpIsQuotedInPart) {
  std::string op;
  for (int i = 0; i < 1000; ++i) op += "é";
  const auto lines =
      consoleLines(std::make_shared<FakeExtension>(), {R"({"id":1,"op":")" + op + "\"}"});
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_LT(lines[0].size(), 250U);
  EXPECT_THAT(lines[0], HasSubstr("é…"));
}

TEST(ConsoleInvalid, CallsWithoutIdOrOp) {
  expectInvalid({{R"({})", "null", R"("id" is missing)"},
                 {R"({"op":"invalidate"})", "null", R"("id" is missing)"},
                 {R"({"id":1})", "1", R"("op" is missing)"},
                 {R"({"id":1,"op":null})", "1", R"("op" must be a text)"},
                 {R"({"id":[1],"op":5})", "[1]", R"("op" must be a text)"},
                 {R"({"id":1,"op":"Item"})", "1", R"("Item" is no op)"},
                 {R"({"id":1,"op":""})", "1", R"("" is no op)"}});
}

TEST(ConsoleInvalid, MissingArguments) {
  expectInvalid(
      {{R"({"id":1,"op":"item"})", "1", R"("identifier" is missing)"},
       {R"({"id":1,"op":"enumerateItems"})", "1", R"("container" is missing)"},
       {R"({"id":1,"op":"enumerateChanges","container":"/"})", "1", R"("anchor" is missing)"},
       {R"({"id":1,"op":"enumerateChanges","anchor":"a"})", "1", R"("container" is missing)"},
       {R"({"id":1,"op":"currentSyncAnchor"})", "1", R"("container" is missing)"},
       {R"({"id":1,"op":"fetchContents"})", "1", R"("identifier" is missing)"},
       {R"({"id":1,"op":"fetchPartialContents","identifier":"/a","location":0,"length":1})", "1",
        R"("alignment" is missing)"},
       {R"({"id":1,"op":"createItem","parent":"/"})", "1", R"("filename" is missing)"},
       {R"({"id":1,"op":"modifyItem","identifier":"/a","parent":"/","filename":"a"})", "1",
        R"("changedFields" is missing)"},
       {R"({"id":1,"op":"deleteItem"})", "1", R"("identifier" is missing)"},
       {R"({"id":1,"op":"performAction","action":"a"})", "1", R"("items" is missing)"},
       {R"({"id":1,"op":"cancel"})", "1", R"("for" is missing)"},
       {R"({"id":1,"op":"advanceClock"})", "1", R"("seconds" is missing)"}});
}

TEST(ConsoleInvalid, ArgumentsOfAnotherType) {
  const std::string partial =
      R"({"id":1,"op":"fetchPartialContents","identifier":"/a","length":1,"alignment":1,"location":)";
  const std::string create = R"({"id":1,"op":"createItem","parent":"/","filename":"f",)";
  const std::string modify =
      R"({"id":1,"op":"modifyItem","identifier":"/a","parent":"/","filename":"f",)";
  expectInvalid(
      {{R"({"id":1,"op":"item","identifier":7})", "1", R"("identifier" must be a text)"},
       {R"({"id":1,"op":"item","identifier":null})", "1", R"("identifier" must be a text)"},
       {R"({"id":1,"op":"item","identifier":"/a","watch":1})", "1",
        R"("watch" must be true or false)"},
       {R"({"id":1,"op":"enumerateItems","container":["/"]})", "1",
        R"("container" must be a text)"},
       {R"({"id":1,"op":"enumerateItems","container":"/","watch":"yes"})", "1",
        R"("watch" must be)"},
       {R"({"id":1,"op":"enumerateChanges","container":"/","anchor":1})", "1",
        R"("anchor" must be a text)"},
       {R"({"id":1,"op":"enumerateChanges","container":"/","anchorBase64":"YQ"})", "1", "base 64"},
       {R"({"id":1,"op":"enumerateChanges","container":"/","anchor":"a","anchorBase64":"YQ=="})",
        "1", "exclude"},
       {partial + "1.0}", "1", R"("location" must be an integer)"},
       {partial + "1.5}", "1", R"("location" must be an integer)"},
       {partial + "1e3}", "1", R"("location" must be an integer)"},
       {partial + R"("1"})", "1", R"("location" must be an integer)"},
       {partial + "9223372036854775808}", "1", R"("location" must be an integer)"},
       {partial + "-9223372036854775809}", "1", R"("location" must be an integer)"},
       {partial + "true}", "1", R"("location" must be an integer)"},
       {create + R"("contentType":true})", "1", R"("contentType" must be a text)"},
       {create + R"("contents":{}})", "1", R"("contents" must be a text)"},
       {create + R"("contents":""})", "1", R"("contents" must be a local path)"},
       {create + R"("contents":"/tmp/a\u0000b"})", "1", R"("contents" must be a local path)"},
       {modify + R"("changedFields":-1})", "1", R"("changedFields" must be a set)"},
       {modify + R"("changedFields":4294967296})", "1", R"("changedFields" must be a set)"},
       {modify + R"("changedFields":1,"documentSize":"1"})", "1",
        R"("documentSize" must be an integer)"},
       {R"({"id":1,"op":"performAction","action":"a","items":"/a"})", "1",
        R"("items" must be an array of texts)"},
       {R"({"id":1,"op":"performAction","action":"a","items":["/a",1]})", "1",
        R"("items" must be an array of texts)"},
       {R"({"id":1,"op":"manager","present":"no"})", "1", R"("present" must be true or false)"},
       {R"({"id":1,"op":"manager","present":false,"failEvict":"/a"})", "1",
        R"("failEvict" must be an array)"},
       {R"({"id":1,"op":"manager","failDownload":[null]})", "1",
        R"("failDownload" must be an array)"},
       {R"({"id":1,"op":"advanceClock","seconds":"1"})", "1", R"("seconds" must be a number)"}});
}

TEST(ConsoleInvalid, ABrokenOrderToTheManagerChangesNothing) {
  ConsoleHarness console(std::make_shared<FakeExtension>());
  console.send(R"({"id":1,"op":"manager","present":false,"failEvict":7})");
  console.lineWith("invalid");
  EXPECT_NE(NSFileProviderManager::forDomain(*console.domain()), nullptr);
}

TEST(ConsoleInvalid, OpsThatTheExtensionDoesNotOffer) {
  expectInvalid(
      {{R"({"id":1,"op":"fetchPartialContents","identifier":"/a","location":0,"length":1,"alignment":1})",
        "1", "offer"},
       {R"({"id":1,"op":"performAction","action":"a","items":[]})", "1", "offer"}},
      std::make_shared<FakeExtension>());
}

}  // namespace
}  // namespace kestrune
