#include "companion/console/ConsoleJson.h"

#include <gtest/gtest.h>

#include <thread>

#include "api/APIError.h"
#include "companion/console/ConsoleWriter.h"
#include "companion/test/FakeExtension.h"
#include "platform/net/URLError.h"
#include "transfer/MPError.h"

namespace kestrune {
namespace {

using namespace platform;

std::string text(const OrderedJson& value) { return value.dump(); }

TEST(ConsoleJson, DatesHaveMillisecondsAndAreCut) {
  auto item = std::make_shared<FakeItem>("/a", "/", "a");
  item->modified = Date(std::chrono::microseconds(1'999'999));
  item->created = Date(std::chrono::microseconds(-1));
  const auto json = itemJson(item);
  EXPECT_EQ(json["contentModificationDate"], "1970-01-01T00:00:01.999Z");
  EXPECT_EQ(json["creationDate"], "1969-12-31T23:59:59.999Z");
}

TEST(ConsoleJson, SizesAreIntegersOfAllSixtyFourBits) {
  auto item = std::make_shared<FakeItem>("/a", "/", "a");
  item->size = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(text(itemJson(item)["documentSize"]), "9223372036854775807");
  item->size = -1;
  EXPECT_EQ(text(itemJson(item)["documentSize"]), "-1");
}

TEST(ConsoleJson, ErrorsOfTheServiceNameTheirCase) {
  const NSCocoaError underlying(NSCocoaError::coderInvalidValue, "no date");
  EXPECT_EQ(
      text(errorJson(APIError::http(404, "not found").share())),
      R"({"domain":"KestruneAPI.APIError","code":0,"description":"HTTP 404: not found","case":"http","status":404})");
  EXPECT_EQ(
      text(errorJson(APIError::decode(underlying).share())),
      R"({"domain":"KestruneAPI.APIError","code":1,"description":"Decode error: no date","case":"decode"})");
  EXPECT_EQ(
      text(errorJson(APIError::notConfigured().share())),
      R"({"domain":"KestruneAPI.APIError","code":2,"description":"API URL or auth token missing","case":"notConfigured"})");
}

TEST(ConsoleJson, ErrorsOfAnUploadInPartsNameTheirCase) {
  const struct {
    MPError error;
    const char* printed;
  } cases[] = {
      {MPError::initFailed("m"),
       R"("code":0,"description":"multipart init: m","case":"initFailed")"},
      {MPError::partFailed(3, "HTTP 503"),
       R"("code":1,"description":"part 3: HTTP 503","case":"partFailed")"},
      {MPError::completeFailed("m"),
       R"("code":2,"description":"multipart complete: m","case":"completeFailed")"},
      {MPError::readFailed("/x"), R"("code":3,"description":"file read: /x","case":"readFailed")"},
  };
  for (const auto& [error, printed] : cases) {
    EXPECT_EQ(text(errorJson(error.share())),
              std::string(R"({"domain":"MultipartUploader.MPError",)") + printed + "}");
  }
}

TEST(ConsoleJson, OtherErrorsAreDomainCodeAndDescription) {
  EXPECT_EQ(
      text(errorJson(NSPOSIXError(2, "open '/x'").share())),
      R"({"domain":"NSPOSIXErrorDomain","code":2,"description":"open '/x': No such file or directory"})");
  EXPECT_EQ(text(errorJson(URLError(URLError::cancelled).share())),
            R"({"domain":"NSURLErrorDomain","code":-999,"description":"cancelled"})");
  EXPECT_EQ(text(errorJson(nullptr)), "null");
}

std::vector<std::string> linesOf(const std::function<void(ConsoleWriter&)>& work) {
  std::vector<std::string> lines;
  ConsoleWriter writer([&lines](std::string_view line) { lines.emplace_back(line); });
  work(writer);
  return lines;
}

TEST(ConsoleWriter, BytesThatAreNoTextAreReplaced) {
  const auto lines = linesOf([](ConsoleWriter& writer) {
    writer.write("id", "e",
                 {{"name",
                   "a\xFF"
                   "b\n\x01é\xED\xA0\x80"}});
  });
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].find('\n'), lines[0].size() - 1);
  const auto name = Json::parse(lines[0])["name"].get<std::string>();
  EXPECT_TRUE(
      name.starts_with("a\xEF\xBF\xBD"
                       "b\n\x01é"));
}

TEST(ConsoleWriter, LinesOfManyThreadsAreWholeAndNumberedInOrder) {
  constexpr int kThreads = 4, kLines = 500;
  const auto lines = linesOf([](ConsoleWriter& writer) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&writer, t] {
        for (int i = 0; i < kLines; ++i) writer.write(t, "e", {{"i", i}});
      });
    }
    for (auto& thread : threads) thread.join();
  });
  ASSERT_EQ(lines.size(), std::size_t{kThreads * kLines});
  std::vector<int> next(kThreads, 0);
  for (std::size_t n = 0; n < lines.size(); ++n) {
    const auto json = Json::parse(lines[n]);
    EXPECT_EQ(json["seq"], n + 1);
    EXPECT_EQ(json["i"], next.at(json["id"].get<std::size_t>())++);
  }
}

}  // namespace
}  // namespace kestrune
