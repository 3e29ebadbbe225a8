// Redirects: how far they are followed, what changes on the way, and who sees the credential.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/net/test/SessionTesting.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::platform {
namespace {

using support::Answer;
using support::HttpFixture;
using support::ReceivedRequest;
using support::runTask;

// A chain of redirects: "/17" leads to "/16" and so on; "/0" answers.
void answerAsChain(HttpFixture& fixture) {
  fixture.otherwise([](const ReceivedRequest& request) {
    const int left = std::stoi(request.target.substr(1));
    return left == 0 ? Answer(200, "there") : Answer::redirect(302, "/" + std::to_string(left - 1));
  });
}

TEST(URLSessionRedirect, SixteenAreFollowedAndNoMore) {
  HttpFixture fixture;
  answerAsChain(fixture);
  URLSession session({});
  EXPECT_EQ(runTask(session.data(requestTo(fixture.url("/16")))).data, "there");
  EXPECT_EQ(fixture.requestCount(), 17U);
  EXPECT_EQ(codeOf(session.data(requestTo(fixture.url("/17")))), URLError::httpTooManyRedirects);
  EXPECT_EQ(fixture.requestCount("GET", "/0"), 1U);
}

TEST(URLSessionRedirect, ALoopEnds) {
  HttpFixture fixture;
  fixture.on("GET", "/a", Answer::redirect(307, "/b"));
  fixture.on("GET", "/b", Answer::redirect(301, "/a"));
  URLSession session({});
  EXPECT_EQ(codeOf(session.data(secretRequest(fixture.url("/a")))), URLError::httpTooManyRedirects);
  EXPECT_EQ(fixture.requestCount(), 17U);
}

TEST(URLSessionRedirect, WithoutALocationItIsAnAnswer) {
  for (const int status : {300, 301, 302, 303, 304, 307, 308}) {
    HttpFixture fixture;
    const std::string body = status == 304 ? "" : "where to?";
    fixture.on("GET", "/", Answer(status, body));
    URLSession session({});
    const URLReply reply = runTask(session.data(requestTo(fixture.url("/"))));
    EXPECT_EQ(reply.response.statusCode, status);
    EXPECT_EQ(reply.data, body);
  }
}

TEST(URLSessionRedirect, OnlyTheFinalAnswerIsHandedOver) {
  for (const int status : {301, 302, 303, 307, 308}) {
    HttpFixture fixture;
    fixture.on("GET", "/from",
               Answer(status, "moved").with("Location", "/to").with("X-First", "1"));
    fixture.on("GET", "/to", Answer(404, "final").with("X-Second", "2"));
    URLSession session({});
    const URLReply reply = runTask(session.data(requestTo(fixture.url("/from"))));
    EXPECT_EQ(reply.response.statusCode, 404);
    EXPECT_EQ(reply.data, "final");
    EXPECT_EQ(reply.response.valueForHTTPHeaderField("X-First"), std::nullopt);
    EXPECT_EQ(reply.response.valueForHTTPHeaderField("X-Second"), "2");
  }
}

TEST(URLSessionRedirect, LocationsMayBeRelative) {
  const std::pair<const char*, const char*> cases[] = {{"/next?q=1", "/next?q=1"},
                                                       {"next", "/folder/next"},
                                                       {"?q=2", "/folder/from?q=2"},
                                                       {"../up", "/up"}};
  for (const auto& [location, target] : cases) {
    HttpFixture fixture;
    fixture.on("GET", "/folder/from", {Answer::redirect(302, location), Answer(200)});
    URLSession session({});
    runTask(session.data(requestTo(fixture.url("/folder/from"))));
    ASSERT_EQ(fixture.requestCount(), 2U) << location;
    EXPECT_EQ(fixture.request(1).target, target);
  }
}

TEST(URLSessionRedirect, MethodsChangeAsTheStatusSays) {
  const struct {
    int status;
    const char* method;
    const char* then;
  } cases[] = {{301, "POST", "GET"},      {302, "POST", "GET"},  {303, "POST", "GET"},
               {307, "POST", "POST"},     {308, "POST", "POST"}, {307, "PUT", "PUT"},
               {308, "DELETE", "DELETE"}, {302, "GET", "GET"},   {303, "GET", "GET"},
               {307, "PATCH", "PATCH"}};
  for (const auto& [status, method, then] : cases) {
    HttpFixture fixture;
    fixture.on(method, "/from", Answer::redirect(status, "/to"));
    fixture.on(then, "/to", Answer(200));
    URLSession session({});
    URLRequest request = requestTo(fixture.url("/from"), method);
    const bool hasBody = std::string_view(method).front() == 'P';
    if (hasBody) request.httpBody = "the body";
    EXPECT_EQ(runTask(session.data(request)).response.statusCode, 200) << status << method;
    ASSERT_EQ(fixture.requestCount(), 2U) << status << method;
    EXPECT_EQ(fixture.request(1).method, then) << status << method;
    const bool keepsBody = hasBody && std::string_view(then) == method;
    EXPECT_EQ(fixture.request(1).body, keepsBody ? "the body" : "") << status << method;
    if (!keepsBody)
      EXPECT_EQ(fixture.request(1).header("Content-Length").value_or("0"), "0") << status << method;
  }
}

TEST(URLSessionRedirect, AuthorizationStaysWithItsOrigin) {
  HttpFixture fixture;
  HttpFixture otherPort;
  fixture.on("GET", "/to", Answer(200));
  otherPort.on("GET", "/to", Answer(200));
  const std::string port = std::to_string(fixture.port());
  const struct {
    std::string location;
    HttpFixture& target;
    bool isSeen;
  } cases[] = {{"/to", fixture, true},
               {fixture.url("/to"), fixture, true},
               {otherPort.url("/to"), otherPort, false},
               {"//127.0.0.1:" + std::to_string(otherPort.port()) + "/to", otherPort, false},
               {"http://localhost:" + port + "/to", fixture, false}};
  for (const auto& [location, target, isSeen] : cases) {
    for (const char* name : {"Authorization", "authorization"}) {
      fixture.on("GET", "/from", Answer::redirect(302, location));
      URLSession session({});
      URLRequest request = requestTo(fixture.url("/from"));
      request.headers = {{name, kSecret}};
      const std::size_t before = target.requestCount("GET", "/to");
      EXPECT_EQ(runTask(session.data(request)).response.statusCode, 200) << location;
      ASSERT_EQ(target.requestCount("GET", "/to"), before + 1) << location;
      EXPECT_EQ(target.requests().back().headerCount("Authorization"), isSeen ? 1U : 0U)
          << location;
    }
  }
}

// Once the credential has been left out it must not come back on a later step to the stranger.
TEST(URLSessionRedirect, AuthorizationDoesNotComeBackForAStranger) {
  HttpFixture fixture;
  HttpFixture stranger;
  fixture.on("GET", "/from", Answer::redirect(302, stranger.url("/1")));
  stranger.on("GET", "/1", Answer::redirect(302, "/2"));
  stranger.on("GET", "/2", Answer(200));
  URLSession session({});
  runTask(session.data(secretRequest(fixture.url("/from"))));
  ASSERT_EQ(stranger.requestCount(), 2U);
  for (const ReceivedRequest& request : stranger.requests())
    EXPECT_EQ(request.headerCount("Authorization"), 0U);
}

TEST(URLSessionRedirect, LeadsToHttpAndHttpsAlone) {
  const support::TemporaryDirectory directory;
  const std::string file = directory.write("private", "contents").string();
  for (const std::string& location :
       {"file://" + file, std::string("ftp://127.0.0.1/x"), std::string("gopher://127.0.0.1/x"),
        std::string("dict://127.0.0.1/x"), std::string("unknown:x")}) {
    HttpFixture fixture;
    fixture.on("GET", "/", Answer::redirect(302, location));
    URLSession session({});
    EXPECT_EQ(codeOf(session.data(secretRequest(fixture.url("/")))), URLError::unsupportedURL)
        << location;
  }
}

// Machines in the cloud find their credentials there.
TEST(URLSessionRedirect, DoesNotLeadToLinkLocalAddresses) {
  for (const char* host : {"169.254.169.254", "[::ffff:169.254.169.254]", "[fe80::1]"}) {
    HttpFixture fixture;
    fixture.on("GET", "/", Answer::redirect(302, std::string("http://") + host + "/latest"));
    URLSession session(withIdleTimeout(std::chrono::seconds(5)));
    EXPECT_EQ(codeOf(session.data(secretRequest(fixture.url("/")))), URLError::cannotConnectToHost)
        << host;
  }
}

TEST(URLSessionRedirect, ALocationThatIsNoAddressIsAnErrorWithoutSecrets) {
  for (const char* location : {"http://[", "http://:x/"}) {
    HttpFixture fixture;
    fixture.on("GET", "/", Answer::redirect(302, std::string(location) + kSecret));
    URLSession session({});
    EXPECT_NE(codeOf(session.data(secretRequest(fixture.url("/")))), 0) << location;
  }
}

}  // namespace
}  // namespace kestrune::platform
