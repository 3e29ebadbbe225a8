// Uploads from files and from memory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "platform/net/test/SessionTesting.h"
#include "tests/support/Digest.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::platform {
namespace {

using support::Answer;
using support::HttpFixture;
using support::ReceivedRequest;
using support::runTask;
using support::startTask;
using support::TemporaryDirectory;
using ::testing::ElementsAre;

std::shared_ptr<const std::string> shared(std::string body) {
  return std::make_shared<const std::string>(std::move(body));
}

// The same upload from memory and from a file must be the same request.
class UploadFrom : public ::testing::TestWithParam<bool> {
 protected:
  Task<URLReply> upload(URLSession& session, URLRequest request, const std::string& body) {
    if (!GetParam()) return session.uploadFromData(std::move(request), shared(body));
    return session.uploadFromFile(std::move(request), directory_.write("body", body));
  }

  TemporaryDirectory directory_;
};

INSTANTIATE_TEST_SUITE_P(Sources, UploadFrom, ::testing::Bool(),
                         [](const auto& source) { return source.param ? "File" : "Data"; });

TEST_P(UploadFrom, SendsTheBytesTheirLengthAndNothingElse) {
  for (const std::size_t size : {0U, 1U, 65'535U, 65'536U, 1'048'577U, 5'000'001U}) {
    HttpFixture fixture;
    fixture.on("PUT", "/part", Answer(200, "stored").with("ETag", "\"1\""));
    URLSession session({});
    const std::string body = support::patternBytes(0, size);
    const URLReply reply =
        runTask(upload(session, requestTo(fixture.url("/part?n=1"), "PUT"), body));
    EXPECT_EQ(reply.data, "stored");
    EXPECT_EQ(reply.response.valueForHTTPHeaderField("etag"), "\"1\"");
    const ReceivedRequest request = fixture.onlyRequest();
    EXPECT_EQ(request.method, "PUT");
    EXPECT_EQ(request.target, "/part?n=1");
    EXPECT_THAT(request.headerNames(), ElementsAre("content-length", "host")) << size;
    EXPECT_EQ(request.header("Content-Length"), std::to_string(size));
    EXPECT_EQ(request.bodyBytes, size);
    EXPECT_EQ(request.bodySha256, support::sha256Hex(body));
  }
}

TEST_P(UploadFrom, ALengthThatTheCallerSetNeitherRepeatsNorReplacesTheTrueOne) {
  for (const char* length : {"5", "99", "1"}) {
    HttpFixture fixture;
    fixture.on("PUT", "/", Answer(200));
    URLSession session(withIdleTimeout(std::chrono::seconds(2)));
    URLRequest request = requestTo(fixture.url("/"), "PUT");
    request.headers = {{"Content-Length", length}};
    runTask(upload(session, request, "12345"));
    EXPECT_EQ(fixture.onlyRequest().headerCount("Content-Length"), 1U);
    EXPECT_EQ(fixture.onlyRequest().header("Content-Length"), "5");
    EXPECT_EQ(fixture.onlyRequest().body, "12345");
  }
}

TEST_P(UploadFrom, TheBodyOfTheRequestIsIgnored) {
  HttpFixture fixture;
  fixture.on("POST", "/", Answer(200));
  URLSession session({});
  URLRequest request = requestTo(fixture.url("/"), "POST");
  request.httpBody = "not this";
  runTask(upload(session, request, "this"));
  EXPECT_EQ(fixture.onlyRequest().body, "this");
}

TEST_P(UploadFrom, AnEarlyRefusalIsAnAnswer) {
  const Answer refusal = Answer(400, "too much").early();
  for (const Answer& answer :
       {refusal, refusal.closingConnection(), Answer(403, "too much").afterRequestBytes(100'000)}) {
    HttpFixture fixture;
    fixture.on("PUT", "/", answer);
    URLSession session({});
    const std::string body = support::patternBytes(0, 16U << 20U);
    const URLReply reply = runTask(upload(session, secretRequest(fixture.url("/"), "PUT"), body));
    EXPECT_EQ(reply.response.statusCode, answer.plan().status);
    EXPECT_EQ(reply.data, "too much");
  }
}

TEST_P(UploadFrom, TheSessionGoesOnAfterAnEarlyRefusal) {
  HttpFixture fixture;
  fixture.on("PUT", "/", Answer(400).early());
  fixture.on("GET", "/", Answer(200, "x"));
  URLSession session({});
  const std::string body = support::patternBytes(0, 4U << 20U);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(
        runTask(upload(session, requestTo(fixture.url("/"), "PUT"), body)).response.statusCode,
        400);
    EXPECT_EQ(runTask(session.data(requestTo(fixture.url("/")))).data, "x");
  }
}

TEST_P(UploadFrom, ABodyIsSentAgainWhereTheRedirectSaysSo) {
  HttpFixture fixture;
  fixture.on("PUT", "/from", Answer::redirect(307, "/to"));
  fixture.on("PUT", "/to", Answer(200));
  URLSession session({});
  const std::string body = support::patternBytes(0, 300'000);
  runTask(upload(session, requestTo(fixture.url("/from"), "PUT"), body));
  ASSERT_EQ(fixture.requestCount(), 2U);
  EXPECT_EQ(fixture.request(1).bodySha256, support::sha256Hex(body));
}

TEST_P(UploadFrom, ARedirectToAnotherResourceBecomesAGet) {
  HttpFixture fixture;
  fixture.on("PUT", "/from", Answer::redirect(303, "/to"));
  fixture.on("GET", "/to", Answer(200, "x"));
  URLSession session({});
  EXPECT_EQ(runTask(upload(session, requestTo(fixture.url("/from"), "PUT"), "body")).data, "x");
  EXPECT_THAT(fixture.request(1).headerNames(), ElementsAre("host"));
}

TEST_P(UploadFrom, AConnectionLostInTheMiddleIsAnError) {
  for (const std::uint64_t at : {std::uint64_t{0}, std::uint64_t{1'000'000}}) {
    HttpFixture fixture;
    fixture.on("PUT", "/", Answer(200).afterRequestBytes(at).resettingInHead(0));
    URLSession session({});
    const std::string body = support::patternBytes(0, 16U << 20U);
    EXPECT_EQ(codeOf(upload(session, secretRequest(fixture.url("/"), "PUT"), body)),
              URLError::networkConnectionLost);
    EXPECT_EQ(fixture.waitForOutcome(0), support::AnswerOutcome::faulted);
  }
}

TEST(URLSessionUpload, AnAnswerBeyondTheLimitFails) {
  HttpFixture fixture;
  fixture.on("PUT", "/", Answer::endless());
  URLSessionConfiguration configuration;
  configuration.maximumDataBytes = 1000;
  URLSession session(configuration);
  EXPECT_EQ(codeOf(session.uploadFromData(secretRequest(fixture.url("/"), "PUT"), shared("x"))),
            URLError::dataLengthExceedsMaximum);
}

TEST(URLSessionUpload, AFileThatIsNotThereFailsWithoutARequest) {
  const TemporaryDirectory directory;
  HttpFixture fixture;
  URLSession session({});
  for (const auto& file : {directory.path() / "missing", directory.path()}) {
    EXPECT_NE(support::failureOf(session.uploadFromFile(requestTo(fixture.url("/"), "PUT"), file)),
              nullptr)
        << file;
  }
  EXPECT_EQ(fixture.requestCount(), 0U);
}

TEST(URLSessionUpload, TheBodyIsKeptUntilTheAnswerAndThenReleased) {
  HttpFixture fixture;
  fixture.hold("PUT", "/");
  URLSession session({});
  auto body = shared("kept");
  const std::weak_ptr<const std::string> watched = body;
  auto running =
      startTask(session.uploadFromData(requestTo(fixture.url("/"), "PUT"), std::move(body)));
  const auto held = fixture.nextHeld();
  EXPECT_FALSE(watched.expired());
  held.answer(Answer(200));
  running.value();
  EXPECT_TRUE(watched.expired()) << "the memory is free when the answer is known";
}

#ifdef KESTRUNE_SANITIZED
constexpr long kAllowedGrowthKiB = 1024 << 10;  // they keep what is freed: no check there
#else
constexpr long kAllowedGrowthKiB = 40 << 10;
#endif

long peakMemoryKiB() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST(URLSessionUpload, ALargeFileIsStreamed) {
  constexpr std::uint64_t kSize = 100U << 20U;
  const TemporaryDirectory directory;
  const auto file = directory.write("large", support::patternBytes(0, 1000));
  std::filesystem::resize_file(file, kSize);  // the rest is zeros that take no room on the disk
  HttpFixture fixture;
  fixture.on("PUT", "/", Answer(200));
  URLSession session({});
  const long before = peakMemoryKiB();
  EXPECT_EQ(
      runTask(session.uploadFromFile(requestTo(fixture.url("/"), "PUT"), file)).response.statusCode,
      200);
  EXPECT_LT(peakMemoryKiB() - before, kAllowedGrowthKiB);
  const ReceivedRequest request = fixture.onlyRequest();
  EXPECT_EQ(request.bodyBytes, kSize);
  EXPECT_EQ(request.bodySha256, support::sha256Hex(support::contentsOf(file)));
  EXPECT_EQ(request.header("Content-Length"), std::to_string(kSize));
}

}  // namespace
}  // namespace kestrune::platform
