// Direct uploads in one request and in parts, and their import, over HTTP.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "platform/values/Json.h"
#include "service/test/RunningService.h"
#include "tests/support/Waiting.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;
using platform::Json;

const Json kDone = Json::object();
constexpr std::size_t kPart = 10U << 20U;

class DirectEndpointsTest : public ::testing::Test {
 protected:
  /// Presigns and puts `contents`; returns the key.
  std::string put(const std::string& contents) const {
    const Json presigned = service.post("direct-presign-upload", {{"path", "/x"}}).json();
    EXPECT_TRUE(presigned.at("uploadId").is_string());
    EXPECT_EQ(service.storage("PUT", service.targetOf(presigned.at("url")), {}, contents).status,
              200U);
    return presigned.at("key");
  }
  Answer import(const std::string& key, const std::string& path) const {
    return service.post("direct-import", {{"key", key}, {"path", path}});
  }
  Json init() const { return service.post("direct-multipart-init", {{"path", "/x"}}).json(); }
  std::string partTarget(const Json& upload, int number) const {
    return service.presigned(
        "direct-multipart-part-url",
        {{"key", upload["key"]}, {"s3UploadId", upload["s3UploadId"]}, {"partNumber", number}});
  }
  Json putPart(const Json& upload, int number, const std::string& bytes) const {
    const Answer answer = service.storage("PUT", partTarget(upload, number), {}, bytes);
    EXPECT_EQ(answer.status, 200U);
    return {{"PartNumber", number}, {"Etag", answer.field("etag")}};
  }
  Answer complete(const Json& upload, const Json& parts) const {
    return service.post(
        "direct-multipart-complete",
        {{"key", upload["key"]}, {"s3UploadId", upload["s3UploadId"]}, {"parts", parts}});
  }
  Answer abort(const Json& upload) const {
    return service.post("direct-multipart-abort",
                        {{"key", upload["key"]}, {"s3UploadId", upload["s3UploadId"]}});
  }

  const RunningService service;
};

TEST_F(DirectEndpointsTest, AnUploadAppearsWithItsImport) {
  fs::create_directory(service.inTree("Docs"));
  const std::string key = put("hello");
  EXPECT_TRUE(fs::is_empty(service.inTree("Docs")));
  EXPECT_EQ(import(key, "/Docs/a.txt").json(), kDone);
  EXPECT_EQ(service.contents("Docs/a.txt"), "hello");
  EXPECT_EQ(service.stagedCount(), 0U);
}

TEST_F(DirectEndpointsTest, AnImportNeedsAFolderAndAFreePlace) {
  fs::create_directory(service.inTree("Docs"));
  service.write("old.txt", "old");
  const std::string key = put("new");
  EXPECT_EQ(import(key, "/missing/a.txt").status, 404U);
  EXPECT_EQ(import(key, "/Docs").status, 409U);
  EXPECT_EQ(import(key, "/").status, 409U);
  EXPECT_EQ(import(key, "/../a").status, 400U);
  EXPECT_EQ(import(key, "/old.txt").status, 200U);
  EXPECT_EQ(service.contents("old.txt"), "new");
  EXPECT_EQ(import(key, "/other.txt").status, 404U);
}

TEST_F(DirectEndpointsTest, OnlyWhatWasUploadedCanBeImported) {
  const Json presigned = service.post("direct-presign-upload", {{"path", "/x"}}).json();
  for (const std::string& key :
       {presigned["key"].get<std::string>(), std::string("../signing-key"), std::string()}) {
    EXPECT_EQ(import(key, "/a.txt").status, 404U);
  }
  EXPECT_FALSE(fs::exists(service.inTree("a.txt")));
}

TEST_F(DirectEndpointsTest, PartsBecomeOneFile) {
  const Json upload = init();
  std::string contents;
  Json parts = Json::array();
  for (int number = 1; number <= 3; ++number) {
    const std::string bytes =
        patternBytes(number < 3 ? kPart : 12345, static_cast<unsigned>(number));
    parts.push_back(putPart(upload, number, bytes));
    contents += bytes;
  }
  EXPECT_TRUE(parts[0]["Etag"].get<std::string>().starts_with("\""));
  EXPECT_EQ(complete(upload, parts).json(), kDone);
  EXPECT_EQ(import(upload["key"], "/large.bin").json(), kDone);
  EXPECT_EQ(service.contents("large.bin"), contents);
  EXPECT_EQ(service.stagedCount(), 0U);
}

TEST_F(DirectEndpointsTest, APartThatBreaksOffCanBeSentAgain) {
  const Json upload = init();
  const std::string bytes = patternBytes(kPart, 1);
  Client client(service.port());
  client.send("PUT " + partTarget(upload, 1) + " HTTP/1.1\r\nContent-Length: " +
              std::to_string(kPart) + "\r\n\r\n" + std::string(3'000'000, 'x'));
  ASSERT_TRUE(support::waitUntil([&] { return service.stagedCount() == 1; }))
      << "the part did not begin";
  client.reset();
  const Json part = putPart(upload, 1, bytes);
  EXPECT_EQ(complete(upload, Json::array({part})).status, 200U);
  EXPECT_EQ(import(upload["key"], "/large.bin").status, 200U);
  EXPECT_EQ(service.contents("large.bin"), bytes);
}

TEST_F(DirectEndpointsTest, ListsOfPartsAreCheckedStrictly) {
  const Json upload = init();
  const Json part = putPart(upload, 1, "a");
  for (const Json& parts :
       {Json(), Json("x"), Json::array(), Json::array({1}), Json::array({Json{{"PartNumber", 1}}}),
        Json::array({Json{{"PartNumber", "1"}, {"Etag", part["Etag"]}}}),
        Json::array({Json{{"PartNumber", 1}, {"ETag", part["Etag"]}}}),
        Json::array({Json{{"PartNumber", 1.5}, {"Etag", part["Etag"]}}}),
        Json::array({Json{{"PartNumber", 0}, {"Etag", part["Etag"]}}}),
        Json::array({Json{{"PartNumber", 18446744073709551615U}, {"Etag", part["Etag"]}}}),
        Json::array({part, part})}) {
    EXPECT_EQ(complete(upload, parts).status, 400U) << parts;
  }
  EXPECT_EQ(complete(upload, Json::array({part})).status, 200U);
  EXPECT_EQ(complete(upload, Json::array({part})).status, 404U);
}

TEST_F(DirectEndpointsTest, PartsOfUnknownUploadsAreNotFound) {
  const Json body{{"key", "x"}, {"s3UploadId", "y"}, {"partNumber", 1}};
  EXPECT_EQ(service.post("direct-multipart-part-url", body).status, 404U);
  const Json upload = init();
  const std::string target = partTarget(upload, 1);
  EXPECT_EQ(abort(upload).json(), kDone);
  EXPECT_EQ(service.storage("PUT", target, {}, "x").status, 404U);
  EXPECT_EQ(abort(upload).status, 200U);
  Json wrong{{"key", upload["key"]}, {"s3UploadId", upload["s3UploadId"]}, {"partNumber", "1"}};
  EXPECT_EQ(service.post("direct-multipart-part-url", wrong).status, 400U);
}

TEST_F(DirectEndpointsTest, AnAbortFreesTheParts) {
  const Json upload = init();
  putPart(upload, 1, patternBytes(kPart, 1));
  putPart(upload, 2, "x");
  EXPECT_EQ(service.stagedCount(), 2U);
  EXPECT_EQ(abort(upload).status, 200U);
  EXPECT_EQ(service.stagedCount(), 0U);
}

}  // namespace
}  // namespace kestrune::service
