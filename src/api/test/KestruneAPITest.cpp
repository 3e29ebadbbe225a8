// Every endpoint's form on the wire, and what each makes of the answer.
#include "api/KestruneAPI.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/CapturingLogSink.h"
#include "tests/support/DeadEnds.h"
#include "tests/support/RunTask.h"
#include "tests/support/ServiceFixture.h"
#include "tests/support/Waiting.h"

namespace kestrune {
namespace {

using platform::Json;
using platform::NSErrorPtr;
using platform::Task;
using platform::URLError;
using support::Answer;
using support::failureOf;
using support::ReceivedRequest;
using support::runTask;
using support::ServiceFixture;
using support::startTask;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr const char* kPresigned = R"({"url":"u","method":"PUT","path":"/p","more":1})";

/// One endpoint: how it is called, and what goes over the wire. Results are dropped.
struct Endpoint {
  const char* name;
  std::function<Task<void>()> call;
  std::string method;
  std::string path;
  /// The request's body; null for none.
  Json body;
  std::string goodReply;
  /// What is thrown where the reply is no such record: not by import, which does not look at it.
  bool decodes = true;
  bool throws = true;
};

template <class T>
Task<void> dropResult(Task<T> task) {
  co_await std::move(task);
}

std::vector<Endpoint> endpoints() {
  using A = KestruneAPI;
  return {
      {"list", [] { return dropResult(A::list("/p")); }, "GET", "/files", nullptr,
       R"({"entries":[],"path":"/p"})"},
      {"mkdir",
       [] { return A::mkdir("/p/\xC3\xA9"); },
       "POST",
       "/files/mkdir",
       {{"path", "/p/\xC3\xA9"}},
       "{}"},
      {"move",
       [] { return A::move("/a", "/b"); },
       "POST",
       "/files/move",
       {{"src", "/a"}, {"dst", "/b"}},
       R"({"any":"text"})"},
      {"notify",
       [] { return A::notify("/p", 1048576); },
       "POST",
       "/files/presign-notify",
       {{"path", "/p"}, {"size", "1048576"}},
       "null",
       true,
       false},
      {"presignDownload",
       [] { return dropResult(A::presignDownload("/p")); },
       "POST",
       "/files/presign-download",
       {{"path", "/p"}},
       kPresigned},
      {"presignUpload",
       [] { return dropResult(A::presignUpload("/p")); },
       "POST",
       "/files/presign-upload",
       {{"path", "/p"}},
       kPresigned},
      {"directPresignUpload",
       [] { return dropResult(A::directPresignUpload("/p")); },
       "POST",
       "/files/direct-presign-upload",
       {{"path", "/p"}},
       R"({"uploadId":"i","url":"u","key":"k"})"},
      {"directMultipartInit",
       [] { return dropResult(A::directMultipartInit("/p")); },
       "POST",
       "/files/direct-multipart-init",
       {{"path", "/p"}},
       R"({"uploadId":"i","s3UploadId":"s","key":"k"})"},
      {"directMultipartPartURL",
       [] { return dropResult(A::directMultipartPartURL("k", "s", 7)); },
       "POST",
       "/files/direct-multipart-part-url",
       {{"key", "k"}, {"s3UploadId", "s"}, {"partNumber", 7}},
       R"({"url":"u"})"},
      {"directMultipartComplete",
       [] {
         return A::directMultipartComplete("k", "s", {{2, "\"b\""}, {1, "\"a\""}});
       },
       "POST", "/files/direct-multipart-complete",
       Json::parse(R"({"key":"k","s3UploadId":"s","parts":[
           {"PartNumber":2,"Etag":"\"b\""},{"PartNumber":1,"Etag":"\"a\""}]})"),
       "{}"},
      {"directMultipartAbort",
       [] { return A::directMultipartAbort("k", "s"); },
       "POST",
       "/files/direct-multipart-abort",
       {{"key", "k"}, {"s3UploadId", "s"}},
       "null",
       true,
       false},
      {"directImport",
       [] { return A::directImport("k", "/p"); },
       "POST",
       "/files/direct-import",
       {{"key", "k"}, {"path", "/p"}},
       "whatever",
       false},
  };
}

class KestruneAPITest : public testing::Test {
 protected:
  void expectError(const NSErrorPtr& error, const Endpoint& endpoint, APIError::Case which) {
    if (!endpoint.throws) {
      EXPECT_EQ(error, nullptr) << endpoint.name;
      return;
    }
    ASSERT_NE(error, nullptr) << endpoint.name;
    const auto* apiError = dynamic_cast<const APIError*>(error.get());
    ASSERT_NE(apiError, nullptr) << endpoint.name << ": " << error->localizedDescription();
    EXPECT_EQ(apiError->which(), which) << endpoint.name;
  }

  ServiceFixture service_;
};

TEST_F(KestruneAPITest, EveryEndpointHasItsFormOnTheWire) {
  for (const Endpoint& endpoint : endpoints()) {
    service_.http().next(endpoint.method, endpoint.path, Answer(200, endpoint.goodReply));
    const std::size_t before = service_.http().requestCount();
    EXPECT_EQ(failureOf(endpoint.call()), nullptr) << endpoint.name;
    ASSERT_EQ(service_.http().requestCount(), before + 1) << endpoint.name;
    const ReceivedRequest request = service_.http().request(before);
    EXPECT_EQ(request.method, endpoint.method) << endpoint.name;
    EXPECT_EQ(request.header("Authorization"), "Bearer " + std::string(ServiceFixture::kToken));
    EXPECT_EQ(request.header("Content-Type"), "application/json") << endpoint.name;
    if (endpoint.body.is_null()) {
      EXPECT_EQ(request.target, "/files?path=%2Fp");
      EXPECT_EQ(request.body, "");
    } else {
      EXPECT_EQ(request.target, endpoint.path);
      EXPECT_EQ(Json::parse(request.body), endpoint.body) << endpoint.name;
      EXPECT_THAT(request.body, Not(HasSubstr("\n"))) << endpoint.name;
    }
  }
}

TEST_F(KestruneAPITest, RepliesComeBackWithTheirFields) {
  using A = KestruneAPI;
  service_.setListing("/", {{.name = "b", .size = 2}, {.name = "a", .type = "directory"}});
  const auto entries = runTask(A::list("/"));
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[0].name, "b");
  EXPECT_EQ(entries[1].type, "directory");

  const auto reply = [this](const char* path, const char* body) {
    service_.http().next("POST", path, Answer(200, body));
  };
  reply("/files/presign-download", kPresigned);
  EXPECT_EQ(runTask(A::presignDownload("/p")), (PresignResponse{"u", "PUT", "/p"}));
  reply("/files/presign-upload", kPresigned);
  EXPECT_EQ(runTask(A::presignUpload("/p")), (PresignResponse{"u", "PUT", "/p"}));
  reply("/files/direct-presign-upload", R"({"uploadId":"i","url":"u","key":"k"})");
  EXPECT_EQ(runTask(A::directPresignUpload("/p")), (DirectPresignResponse{"i", "u", "k"}));
  reply("/files/direct-multipart-init", R"({"uploadId":"i","s3UploadId":"s","key":"k"})");
  EXPECT_EQ(runTask(A::directMultipartInit("/p")), (DirectMultipartInitResponse{"i", "s", "k"}));
  reply("/files/direct-multipart-part-url", R"({"url":"u"})");
  EXPECT_EQ(runTask(A::directMultipartPartURL("k", "s", 1)), "u");
}

TEST_F(KestruneAPITest, NotifySendsTheSizeAsDecimalText) {
  service_.http().on("POST", "/files/presign-notify", Answer(200, "{}"));
  for (const char* digits : {"0", "9223372036854775807", "-1"}) {
    runTask(KestruneAPI::notify("/p", std::stoll(digits)));
    EXPECT_EQ(Json::parse(service_.http().requests().back().body).at("size"), Json(digits));
  }
}

TEST_F(KestruneAPITest, PartsKeepTheirOrderAndRepetitions) {
  service_.http().on("POST", "/files/direct-multipart-complete", Answer(200, "{}"));
  runTask(KestruneAPI::directMultipartComplete("k", "s", {{3, "c"}, {1, ""}, {3, "c"}}));
  EXPECT_EQ(Json::parse(service_.http().onlyRequest().body).at("parts"), Json::parse(R"([
      {"PartNumber":3,"Etag":"c"},{"PartNumber":1,"Etag":""},{"PartNumber":3,"Etag":"c"}])"));
  runTask(KestruneAPI::directMultipartComplete("k", "s", {}));
  EXPECT_EQ(Json::parse(service_.http().requests().back().body).at("parts"), Json::array());
}

TEST_F(KestruneAPITest, AStatusBelow400IsAnAnswer) {
  for (const int status : {200, 201, 202, 204, 300, 301, 302, 303, 304, 307, 308, 399}) {
    const std::string body = status == 204 || status == 304 ? "" : "body";
    service_.http().on("GET", "/x", Answer(status, body));
    const auto reply = runTask(KestruneAPI::checkedResponse(KestruneAPI::makeRequest("GET", "/x")));
    EXPECT_EQ(reply.response.statusCode, status);
    EXPECT_EQ(reply.data, body) << status;
  }
}

TEST_F(KestruneAPITest, AStatusFrom400OnIsAnErrorWithTheBody) {
  const struct {
    int status;
    std::string body;
    std::string text;
  } cases[] = {
      {400, "", ""},
      {401, "sign in", "sign in"},
      {404, "not found", "not found"},
      {409, "\xC3\xA9\n\xF0\x9F\x98\x80", "\xC3\xA9\n\xF0\x9F\x98\x80"},
      {416, "{\"error\":1}", "{\"error\":1}"},
      {429, "slow down", "slow down"},
      {500, "\xFF\xFE", ""},
      {500, "good until here\xC3", ""},
      {503, std::string("a\0b", 3), std::string("a\0b", 3)},
      {599, "x", "x"},
      {999, "x", "x"},
  };
  for (const auto& [status, body, text] : cases) {
    service_.http().on("GET", "/files", Answer(status, body));
    service_.http().on("POST", "/files/direct-import", Answer(status, body));
    for (const auto& error :
         {failureOf(KestruneAPI::list("/")), failureOf(KestruneAPI::directImport("k", "/p"))}) {
      const auto* apiError = dynamic_cast<const APIError*>(error.get());
      ASSERT_NE(apiError, nullptr) << status;
      EXPECT_EQ(apiError->which(), APIError::Case::http) << status;
      EXPECT_EQ(apiError->status(), status);
      EXPECT_EQ(apiError->localizedDescription(), "HTTP " + std::to_string(status) + ": " + text);
    }
  }
}

TEST_F(KestruneAPITest, EveryEndpointReportsAnErrorStatusOrSwallowsIt) {
  for (const Endpoint& endpoint : endpoints()) {
    service_.http().next(endpoint.method, endpoint.path, Answer(503, endpoint.goodReply));
    expectError(failureOf(endpoint.call()), endpoint, APIError::Case::http);
  }
}

TEST_F(KestruneAPITest, EveryEndpointRefusesRepliesThatAreNoRecord) {
  const std::string deep(100'000, '[');
  for (const Endpoint& endpoint : endpoints()) {
    for (const std::string& reply :
         {std::string(), std::string("[]"), std::string("\"x\""), std::string("{\"ok\":true}"),
          std::string("{"), std::string("<html>"), deep, std::string("{\"url\":\"\xFF\"}")}) {
      service_.http().next(endpoint.method, endpoint.path, Answer(200, reply));
      const NSErrorPtr error = failureOf(endpoint.call());
      if (!endpoint.decodes) {
        EXPECT_EQ(error, nullptr) << endpoint.name;
        continue;
      }
      expectError(error, endpoint, APIError::Case::decode);
      if (!error) continue;
      EXPECT_THAT(error->localizedDescription(), testing::StartsWith("Decode error: "));
      EXPECT_GT(error->localizedDescription().size(), std::string("Decode error: ").size());
    }
  }
}

TEST_F(KestruneAPITest, NullIsARecordForNobodyButNotifyAndAbort) {
  for (const Endpoint& endpoint : endpoints()) {
    service_.http().next(endpoint.method, endpoint.path, Answer(200, "null"));
    const NSErrorPtr error = failureOf(endpoint.call());
    if (endpoint.decodes) {
      expectError(error, endpoint, APIError::Case::decode);
    } else {
      EXPECT_EQ(error, nullptr) << endpoint.name;
    }
  }
}

TEST_F(KestruneAPITest, TransportErrorsPassUnchangedOrAreSwallowed) {
  const support::RefusingPort nobody;
  const struct {
    std::function<void(const Endpoint&)> prepare;
    URLError::Code code;
  } faults[] = {
      {[&](const Endpoint&) { service_.configure(nobody.origin()); },
       URLError::cannotConnectToHost},
      {[&](const Endpoint& endpoint) {
         service_.configure(service_.http().origin());
         service_.http().next(endpoint.method, endpoint.path,
                              Answer(200, "{\"url\":\"u\"}").closingAt(3));
       },
       URLError::networkConnectionLost},
      {[&](const Endpoint& endpoint) {
         service_.http().next(endpoint.method, endpoint.path, Answer(200, "").resettingInHead(5));
       },
       URLError::networkConnectionLost},
  };
  for (const Endpoint& endpoint : endpoints()) {
    for (const auto& [prepare, code] : faults) {
      prepare(endpoint);
      const NSErrorPtr error = failureOf(endpoint.call());
      if (!endpoint.throws) {
        EXPECT_EQ(error, nullptr) << endpoint.name;
        continue;
      }
      ASSERT_NE(error, nullptr) << endpoint.name;
      EXPECT_NE(dynamic_cast<const URLError*>(error.get()), nullptr) << endpoint.name;
      EXPECT_EQ(error->code(), code) << endpoint.name;
    }
  }
}

TEST_F(KestruneAPITest, ACancelledCallFailsAsCancelled) {
  service_.http().hold("GET", "/files");
  auto running = startTask(KestruneAPI::list("/"));
  ASSERT_TRUE(service_.http().waitForRequests(1));
  EXPECT_FALSE(running.isDone());
  running.cancel();
  const NSErrorPtr error = running.failure();
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), platform::kNSURLErrorDomain);
  EXPECT_EQ(error->code(), URLError::cancelled);
}

TEST_F(KestruneAPITest, RedirectsAreFollowedUpToSixteen) {
  service_.http().on("GET", "/files", Answer::redirect(302, "/files?path=%2F"));
  EXPECT_EQ(failureOf(KestruneAPI::list("/"))->code(), URLError::httpTooManyRedirects);
  EXPECT_EQ(service_.http().requestCount(), 17U);
}

TEST_F(KestruneAPITest, TextsThatCannotBeSentFailBeforeAnythingIsSent) {
  const std::string bad = "/\xFF";
  const Task<void> calls[] = {
      KestruneAPI::mkdir(bad),
      KestruneAPI::move("/a", bad),
      dropResult(KestruneAPI::presignDownload(bad)),
      dropResult(KestruneAPI::directMultipartPartURL(bad, "s", 1)),
      KestruneAPI::directMultipartComplete("k", "s", {{1, bad}}),
      KestruneAPI::directImport(bad, "/p"),
  };
  for (const Task<void>& call : calls) {
    const NSErrorPtr error = failureOf(std::move(const_cast<Task<void>&>(call)));
    ASSERT_NE(error, nullptr);
    EXPECT_NE(dynamic_cast<const platform::NSCocoaError*>(error.get()), nullptr)
        << error->localizedDescription();
    EXPECT_EQ(dynamic_cast<const APIError*>(error.get()), nullptr);
  }
  EXPECT_EQ(failureOf(KestruneAPI::notify(bad, 1)), nullptr);
  EXPECT_EQ(failureOf(KestruneAPI::directMultipartAbort(bad, "s")), nullptr);
  EXPECT_EQ(failureOf(KestruneAPI::list(bad))->localizedDescription(),
            "API URL or auth token missing");
  EXPECT_EQ(service_.http().requestCount(), 0U);
}

TEST_F(KestruneAPITest, CallsShareConnectionsAndImportsShareOthers) {
  service_.setListing("/", {});
  service_.http().on("POST", "/files/mkdir", Answer(200, "{}"));
  service_.http().on("POST", "/files/direct-import", Answer(200));
  runTask(KestruneAPI::list("/"));
  runTask(KestruneAPI::mkdir("/d"));
  runTask(KestruneAPI::list("/"));
  EXPECT_EQ(service_.http().connectionsAccepted(), 1U);
  runTask(KestruneAPI::directImport("k", "/p"));
  runTask(KestruneAPI::directImport("k", "/q"));
  EXPECT_EQ(service_.http().connectionsAccepted(), 2U);
}

TEST_F(KestruneAPITest, ManyCallsRunAtOnce) {
  constexpr std::size_t kCalls = 40;
  for (std::size_t i = 0; i < kCalls; ++i)
    service_.setListing("/" + std::to_string(i), {{.name = "n" + std::to_string(i)}});
  std::vector<support::RunningTask<std::vector<KestruneAPI::Entry>>> running;
  for (std::size_t i = 0; i < kCalls; ++i)
    running.push_back(startTask(KestruneAPI::list("/" + std::to_string(i))));
  for (std::size_t i = 0; i < kCalls; ++i)
    EXPECT_EQ(running[i].value().at(0).name, "n" + std::to_string(i));
  EXPECT_LE(service_.http().maxConcurrentRequests(), 6U);
}

TEST_F(KestruneAPITest, AListingOfAHundredMegabytesIsRead) {
  // Nearly all of it white space: what counts here is the way from the socket.
  const std::string padding(100'000'000, ' ');
  service_.http().next("GET", "/files",
                       Answer(200, "{\"entries\":[" + padding + "],\"path\":\"/\"}"));
  EXPECT_THAT(runTask(KestruneAPI::list("/")), IsEmpty());
}

TEST_F(KestruneAPITest, NothingIsRetriedAndNothingIsLogged) {
  const support::CapturingLogSink log;
  std::size_t calls = 0;
  for (const Endpoint& endpoint : endpoints()) {
    for (const auto& answer :
         {Answer(503, "x"), Answer(200, "x"), Answer(200, "{}").closingAt(1)}) {
      service_.http().next(endpoint.method, endpoint.path, answer);
      failureOf(endpoint.call());
      EXPECT_EQ(service_.http().requestCount(), ++calls) << endpoint.name;
    }
  }
  EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(KestruneAPITest, NoErrorShowsTheToken) {
  const support::RefusingPort nobody;
  const auto expectHidden = [](const NSErrorPtr& error, const char* name) {
    if (!error) return;
    EXPECT_THAT(error->localizedDescription(), Not(HasSubstr(ServiceFixture::kToken))) << name;
    for (const auto& [key, value] : error->userInfo())
      EXPECT_THAT(value, Not(HasSubstr(ServiceFixture::kToken))) << name;
  };
  for (const Endpoint& endpoint : endpoints()) {
    service_.configure(service_.http().origin());
    for (const auto& answer : {Answer(401, "no"), Answer(200, "x"), Answer(200).closingInHead(0),
                               Answer::redirect(302, "ftp://h/")}) {
      service_.http().next(endpoint.method, endpoint.path, answer);
      expectHidden(failureOf(endpoint.call()), endpoint.name);
    }
    for (const std::string& url : {nobody.origin(), std::string(), std::string("a b")}) {
      service_.configure(url);
      expectHidden(failureOf(endpoint.call()), endpoint.name);
    }
  }
}

}  // namespace
}  // namespace kestrune
