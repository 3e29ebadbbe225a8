// Downloads and uploads through pre-signed URLs, over HTTP.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include "platform/values/Json.h"
#include "service/ServiceError.h"
#include "service/StorageEndpoint.h"
#include "service/test/RunningService.h"
#include "tests/support/Waiting.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;

class Downloads : public ::testing::Test {
 protected:
  Downloads() { service.write("Docs/a b.bin", contents); }
  Answer get(const Client::Fields& fields = {}) const {
    return service.storage("GET", target(), fields);
  }
  std::string target() const {
    return service.presigned("presign-download", {{"path", "/Docs/a b.bin"}});
  }

  const RunningService service;
  const std::string contents = patternBytes(5'000'000, 1);
};

TEST_F(Downloads, TheWholeFile) {
  const Answer answer = get();
  EXPECT_EQ(answer.status, 200U);
  EXPECT_EQ(answer.body, contents);
  EXPECT_EQ(answer.field("accept-ranges"), "bytes");
  EXPECT_EQ(answer.field("content-length"), "5000000");
  EXPECT_TRUE(answer.field("etag").starts_with("\"") && answer.field("etag").ends_with("\""));
  EXPECT_TRUE(answer.field("last-modified").ends_with(" GMT"));
  EXPECT_TRUE(answer.keepAlive);
}

TEST_F(Downloads, AnEmptyFile) {
  service.write("empty.txt", "");
  const Answer answer =
      service.storage("GET", service.presigned("presign-download", {{"path", "/empty.txt"}}));
  EXPECT_EQ(answer.status, 200U);
  EXPECT_EQ(answer.body, "");
  EXPECT_EQ(answer.field("content-type"), "text/plain");
}

TEST_F(Downloads, OneRangeIsAPart) {
  const Answer answer = get({{"Range", "bytes=1000000-3999999"}});
  EXPECT_EQ(answer.status, 206U);
  EXPECT_EQ(answer.field("content-range"), "bytes 1000000-3999999/5000000");
  EXPECT_EQ(answer.body, contents.substr(1'000'000, 3'000'000));
}

TEST_F(Downloads, ARangeBehindTheEndIsRefusedWithTheSize) {
  const Answer answer = get({{"Range", "bytes=5000000-"}});
  EXPECT_EQ(answer.status, 416U);
  EXPECT_EQ(answer.field("content-range"), "bytes */5000000");
}

TEST_F(Downloads, WhatIsNoSingleRangeIsTheWhole) {
  for (const char* range : {"bytes=0-1,5-6", "bytes=5-1", "lines=1-2", "bytes"}) {
    const Answer answer = get({{"Range", range}});
    EXPECT_EQ(answer.status, 200U) << range;
    EXPECT_EQ(answer.body.size(), contents.size()) << range;
  }
}

TEST_F(Downloads, ARangeOfOtherContentsIsTheWhole) {
  const std::string tag = get({{"Range", "bytes=0-0"}}).field("etag");
  EXPECT_EQ(get({{"Range", "bytes=0-0"}, {"If-Range", tag}}).status, 206U);
  service.write("Docs/a b.bin", patternBytes(5'000'001, 2));
  const Answer changed = get({{"Range", "bytes=0-0"}, {"If-Range", tag}});
  EXPECT_EQ(changed.status, 200U);
  EXPECT_NE(changed.field("etag"), tag);
}

TEST_F(Downloads, HeadHasTheSameFieldsAndNoBody) {
  Client client(service.port());
  const Answer head = client.call("HEAD", target());
  EXPECT_EQ(head.status, 200U);
  EXPECT_EQ(head.field("content-length"), "5000000");
  EXPECT_EQ(head.body, "");
  EXPECT_EQ(client.call("GET", target()).body, contents);
}

TEST_F(Downloads, AnExpiredOrChangedURLIsForbidden) {
  const std::string good = target();
  EXPECT_EQ(service.storage("GET", good + "0").status, 403U);
  EXPECT_EQ(service.storage("PUT", good, {}, "x").status, 403U);
  std::string other = good;
  other.replace(other.find("a%20b"), 5, "a%20c");
  EXPECT_EQ(service.storage("GET", other).status, 403U);
  EXPECT_EQ(service.storage("GET", good.substr(0, good.find('?'))).status, 403U);
  EXPECT_EQ(service.storage("GET", good).status, 200U);
  const RunningService shortLived(
      [](Options& options) { options.urlLifetime = std::chrono::seconds(0); });
  shortLived.write("a", "");
  EXPECT_EQ(
      shortLived.storage("GET", shortLived.presigned("presign-download", {{"path", "/a"}})).status,
      403U);
}

TEST_F(Downloads, TheFileIsOpenedBeneathTheRootForEachRequest) {
  const std::string good = target();
  service.write("../secret.bin", "secret");
  fs::remove(service.inTree("Docs/a b.bin"));
  EXPECT_EQ(service.storage("GET", good).status, 404U);
  fs::create_symlink("../../secret.bin", service.inTree("Docs/a b.bin"));
  EXPECT_EQ(service.storage("GET", good).status, 400U);
  fs::remove(service.inTree("Docs/a b.bin"));
  fs::create_directory(service.inTree("Docs/a b.bin"));
  EXPECT_EQ(service.storage("GET", good).status, 409U);
}

TEST_F(Downloads, AFileThatShrinksMeanwhileCutsTheAnswerOff) {
  const std::string large(64U << 20U, 'x');
  service.write("large.bin", large);
  Client client(service.port());
  client.send("GET " + service.presigned("presign-download", {{"path", "/large.bin"}}) +
              " HTTP/1.1\r\n\r\n");
  client.readUntil("\r\n\r\n");
  fs::resize_file(service.inTree("large.bin"), 1000);
  EXPECT_THROW(client.readUntil("not in this file"), ConnectionEnded);
}

TEST_F(Downloads, AReplacedFileIsStillReadWhole) {
  const std::string large = patternBytes(50U << 20U, 3);
  service.write("large.bin", large);
  Client client(service.port());
  client.send("GET " + service.presigned("presign-download", {{"path", "/large.bin"}}) +
              " HTTP/1.1\r\nConnection: close\r\n\r\n");
  const std::string head = client.readUntil("\r\n\r\n");
  EXPECT_EQ(
      service
          .storage("PUT", service.presigned("presign-upload", {{"path", "/large.bin"}}), {}, "new")
          .status,
      200U);
  std::string body = client.readUntil(large.substr(large.size() - 64));
  EXPECT_EQ(body, large);
}

class Uploads : public ::testing::Test {
 protected:
  std::string target(const std::string& path) const {
    return service.presigned("presign-upload", {{"path", path}});
  }
  std::string headFor(const std::string& target, const std::string& fields) const {
    return "PUT " + target + " HTTP/1.1\r\n" + fields + "\r\n\r\n";
  }

  const RunningService service{
      [](Options& options) { options.timeouts.body = std::chrono::milliseconds(300); }};
};

TEST_F(Uploads, OfAnySizeArriveUnchanged) {
  for (const std::size_t size : {0U, 1U, 1U << 20U, (1U << 20U) + 1, 20'000'001U}) {
    const std::string contents = patternBytes(size, 4);
    const Answer answer = service.storage("PUT", target("/up.bin"), {}, contents);
    EXPECT_EQ(answer.status, 200U);
    EXPECT_TRUE(answer.keepAlive);
    EXPECT_EQ(service.contents("up.bin"), contents);
    EXPECT_EQ(answer.field("etag"),
              service.storage("GET", service.presigned("presign-download", {{"path", "/up.bin"}}))
                  .field("etag"));
  }
  EXPECT_EQ(service.stagedCount(), 0U);
}

TEST_F(Uploads, WithoutALengthArriveUnchangedToo) {
  const std::string piece = patternBytes(0x10001, 5);
  Client client(service.port());
  client.send(headFor(target("/up.bin"), "Transfer-Encoding: chunked"));
  std::string contents;
  for (int i = 0; i < 40; ++i) {
    client.send("10001\r\n" + piece + "\r\n");
    contents += piece;
  }
  client.send("0\r\n\r\n");
  EXPECT_EQ(client.readAnswer().status, 200U);
  EXPECT_EQ(service.contents("up.bin"), contents);
}

TEST_F(Uploads, MalformedChunksLeaveNothing) {
  Client client(service.port());
  client.send(headFor(target("/up.bin"), "Transfer-Encoding: chunked") + "5\r\nhello\r\nxyz\r\n");
  EXPECT_EQ(client.readAnswer().status, 400U);
  EXPECT_FALSE(fs::exists(service.inTree("up.bin")));
  EXPECT_TRUE(support::waitUntil([&] { return service.stagedCount() == 0; }));
}

TEST_F(Uploads, WhoAsksFirstIsToldToGoOn) {
  Client client(service.port());
  client.send(headFor(target("/up.bin"), "Content-Length: 5\r\nExpect: 100-continue"));
  EXPECT_EQ(client.readUntil("\r\n\r\n"), "HTTP/1.1 100 Continue\r\n\r\n");
  client.send("hello");
  EXPECT_EQ(client.readAnswer().status, 200U);
  EXPECT_EQ(service.contents("up.bin"), "hello");
}

TEST_F(Uploads, WhoMayNotIsToldBeforeTheBodyIsSent) {
  Client client(service.port());
  client.send(headFor(target("/up.bin") + "0", "Content-Length: 5000000\r\nExpect: 100-continue"));
  const Answer answer = client.readAnswer();
  EXPECT_EQ(answer.status, 403U);
  EXPECT_FALSE(answer.keepAlive);
  EXPECT_TRUE(client.closedByPeer());
}

TEST_F(Uploads, BeyondTheLimitAreRefusedBeforeTheBodyIsSent) {
  Client client(service.port());
  client.send(headFor(target("/up.bin"), "Content-Length: 5497558138881"));
  EXPECT_EQ(client.readAnswer().status, 413U);
}

TEST_F(Uploads, WhatTheDiskCannotHoldIsRefusedBeforeTheBodyIsSent) {
  // Less than the limit, more than any disk that this test runs on has free.
  const auto space = fs::space(service.staging());
  if (space.available > (4ULL << 40U)) GTEST_SKIP() << "this disk holds the largest upload";
  Client client(service.port());
  client.send(headFor(target("/up.bin"), "Content-Length: 5497558138880"));
  EXPECT_EQ(client.readAnswer().status, 507U);
  EXPECT_FALSE(fs::exists(service.inTree("up.bin")));
  EXPECT_TRUE(support::waitUntil([&] { return service.stagedCount() == 0; }));
}

TEST_F(Uploads, HalfABodyLeavesTheOldFile) {
  service.write("up.bin", "old");
  const std::string lengths[] = {"Content-Length: 3000000\r\n\r\n",
                                 "Transfer-Encoding: chunked\r\n\r\n2dc6c0\r\n"};
  for (const std::string& length : lengths) {
    for (void (Client::*end)() : {&Client::close, &Client::reset}) {
      Client client(service.port());
      client.send("PUT " + target("/up.bin") + " HTTP/1.1\r\n" + length +
                  patternBytes(2'999'999, 6));
      ASSERT_TRUE(support::waitUntil([&] { return service.stagedCount() == 1; }))
          << "did not begin";
      (client.*end)();
      EXPECT_TRUE(support::waitUntil([&] { return service.stagedCount() == 0; }));
      EXPECT_EQ(service.contents("up.bin"), "old");
    }
  }
}

TEST_F(Uploads, ASenderThatFallsSilentIsToldSo) {
  Client client(service.port());
  client.send(headFor(target("/up.bin"), "Content-Length: 3000000") + std::string(2'000'000, 'x'));
  EXPECT_EQ(client.readAnswer().status, 408U);
  EXPECT_FALSE(fs::exists(service.inTree("up.bin")));
  EXPECT_EQ(service.stagedCount(), 0U);
}

TEST_F(Uploads, AnUploadWhoseParentVanishedIsNotFound) {
  fs::create_directory(service.inTree("Docs"));
  const std::string url = target("/Docs/up.bin");
  fs::remove(service.inTree("Docs"));
  EXPECT_EQ(service.storage("PUT", url, {}, "x").status, 404U);
  EXPECT_EQ(service.stagedCount(), 0U);
}

TEST_F(Uploads, TwoAtOnceLeaveOneOfTheTwo) {
  const std::string a = patternBytes(8U << 20U, 7);
  const std::string b = patternBytes(8U << 20U, 8);
  const std::string url = target("/up.bin");
  std::thread other([&] { service.storage("PUT", url, {}, a); });
  service.storage("PUT", url, {}, b);
  other.join();
  const std::string stored = service.contents("up.bin");
  EXPECT_TRUE(stored == a || stored == b);
  EXPECT_EQ(service.stagedCount(), 0U);
}

TEST(PartKey, ComesBackAsItWas) {
  EXPECT_EQ(parsePartKey(partKey("abc", 17)), std::make_pair(std::string("abc"), 17));
  for (const char* key : {"", "abc", "abc/", "abc/x", "abc/1x", "abc/99999999999"}) {
    EXPECT_THROW(parsePartKey(key), ServiceError) << key;
  }
}

}  // namespace
}  // namespace kestrune::service
