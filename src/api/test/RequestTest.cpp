// How requests are made: from the configuration, with exactly these headers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "api/KestruneAPI.h"
#include "platform/net/URLError.h"
#include "tests/support/FileOpens.h"
#include "tests/support/RunTask.h"
#include "tests/support/ServiceFixture.h"

namespace kestrune {
namespace {

using platform::URLError;
using support::Answer;
using support::failureOf;
using support::FileOpens;
using support::listingReply;
using support::ReceivedRequest;
using support::runTask;
using support::ServiceFixture;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class RequestTest : public testing::Test {
 protected:
  void expectNotConfigured(const platform::NSErrorPtr& error, const std::string& why) {
    ASSERT_NE(error, nullptr) << why;
    const auto* apiError = dynamic_cast<const APIError*>(error.get());
    ASSERT_NE(apiError, nullptr) << why << ": " << error->localizedDescription();
    EXPECT_EQ(apiError->which(), APIError::Case::notConfigured) << why;
    EXPECT_EQ(error->localizedDescription(), "API URL or auth token missing") << why;
  }

  ServiceFixture service_;
};

TEST_F(RequestTest, CarryTheTokenTheTypeAndNothingElse) {
  service_.setListing("/", {});
  service_.http().on("DELETE", "/files", Answer(200));
  service_.http().on("POST", "/files/mkdir", Answer(200, "{}"));
  runTask(KestruneAPI::list("/"));
  runTask(KestruneAPI::checkedResponse(
      KestruneAPI::makeRequest("DELETE", KestruneAPI::filesPath("/a b"))));
  runTask(KestruneAPI::mkdir("/d"));

  const auto requests = service_.http().requests();
  ASSERT_EQ(requests.size(), 3U);
  for (const ReceivedRequest& request : requests) {
    EXPECT_EQ(request.header("Authorization"), "Bearer " + std::string(ServiceFixture::kToken));
    EXPECT_EQ(request.header("Content-Type"), "application/json");
  }
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_EQ(requests[0].target, "/files?path=%2F");
  EXPECT_THAT(requests[0].headerNames(), ElementsAre("authorization", "content-type", "host"));
  EXPECT_EQ(requests[0].bodyBytes, 0U);
  EXPECT_EQ(requests[1].method, "DELETE");
  EXPECT_EQ(requests[1].target, "/files?path=%2Fa%20b");
  EXPECT_THAT(requests[1].headerNames(), ElementsAre("authorization", "content-type", "host"));
  EXPECT_EQ(requests[1].bodyBytes, 0U);
  EXPECT_THAT(requests[2].headerNames(),
              ElementsAre("authorization", "content-length", "content-type", "host"));
}

TEST_F(RequestTest, TheAddressIsTheConfiguredOneWithThePathBehindIt) {
  const struct {
    const char* suffix;
    const char* target;
  } cases[] = {
      {"", "/files?path=%2Fa"},           {"/", "//files?path=%2Fa"},
      {"/v1", "/v1/files?path=%2Fa"},     {"/a/../b/.", "/a/../b/./files?path=%2Fa"},
      {"/x?y=", "/x?y=/files?path=%2Fa"},
  };
  service_.http().otherwise([](const ReceivedRequest&) { return Answer(200, listingReply({})); });
  service_.setListing("/a", {});
  for (const auto& [suffix, target] : cases) {
    service_.configure(service_.http().url(suffix));
    runTask(KestruneAPI::list("/a"));
    EXPECT_EQ(service_.http().requests().back().target, target);
  }
}

TEST_F(RequestTest, TimeOutIsSixtySeconds) {
  EXPECT_EQ(KestruneAPI::makeRequest("GET", "/files").timeoutInterval, std::chrono::seconds(60));
}

TEST_F(RequestTest, EachReadsTheConfigurationTwice) {
  service_.setListing("/", {});
  service_.http().otherwise([](const ReceivedRequest&) { return Answer(200, "{}"); });
  FileOpens opens(service_.storage().shared() / "config.json");
  runTask(KestruneAPI::list("/"));
  EXPECT_EQ(opens.take(), 2U);
  runTask(KestruneAPI::mkdir("/d"));
  EXPECT_EQ(opens.take(), 2U);
  runTask(KestruneAPI::directImport("k", "/p"));
  EXPECT_EQ(opens.take(), 2U);
}

TEST_F(RequestTest, TheTokenIsNotReadForAnAddressThatIsNone) {
  service_.configure("no url");
  FileOpens opens(service_.storage().shared() / "config.json");
  expectNotConfigured(failureOf(KestruneAPI::list("/")), "a space");
  EXPECT_EQ(opens.take(), 1U);
}

TEST_F(RequestTest, ANewConfigurationCountsFromTheNextRequestOn) {
  service_.setListing("/", {});
  runTask(KestruneAPI::list("/"));
  service_.writeConfiguration("{\"apiURL\":\"" + service_.http().url("/v2") +
                              "\",\"token\":\"second\"}");
  service_.http().on("GET", "/v2/files", Answer(200, listingReply({})));
  runTask(KestruneAPI::list("/"));
  EXPECT_EQ(service_.http().request(1).target, "/v2/files?path=%2F");
  EXPECT_EQ(service_.http().request(1).header("Authorization"), "Bearer second");
}

TEST_F(RequestTest, WithoutAnAddressOrATokenNothingIsSent) {
  const std::string origin = service_.http().origin();
  const auto withURL = [](const std::string& url) {
    return "{\"apiURL\":\"" + url + "\",\"token\":\"t\"}";
  };
  const std::string configurations[] = {
      "",
      "not json",
      "[]",
      "{}",
      "{\"token\":\"t\"}",
      "{\"apiURL\":null,\"token\":\"t\"}",
      "{\"apiURL\":\"" + origin + "\"}",
      "{\"apiURL\":\"" + origin + "\",\"token\":null}",
      "{\"apiURL\":\"" + origin + "\",\"token\":7}",
      "{\"apiURL\":7,\"token\":\"t\"}",
      withURL("http://127.0.0.1 :80"),
      withURL(" " + origin),
      withURL(origin + " "),
      withURL(origin + "/a b"),
      withURL("http://[::1"),
      withURL("http://h:port"),
      withURL("1http://h"),
      withURL("http://h/%zz"),
      withURL("http://h/%2"),
      withURL("http://h\\\\x"),
      withURL("http://h/\\\"x"),
      withURL("http://h/<x>"),
      withURL("http://h/{x}"),
      withURL("http://h/\xC3\xA9"),
      withURL("http://h/a#b#c"),
      withURL("http://h/\\u0000"),
      withURL("http://h/\\n"),
  };
  for (const std::string& text : configurations) {
    service_.writeConfiguration(text);
    expectNotConfigured(failureOf(KestruneAPI::list("/")), text);
    expectNotConfigured(failureOf(KestruneAPI::mkdir("/d")), text);
    expectNotConfigured(failureOf(KestruneAPI::directImport("k", "/p")), text);
  }
  std::filesystem::remove(service_.storage().shared() / "config.json");
  expectNotConfigured(failureOf(KestruneAPI::list("/")), "no file");
  EXPECT_THAT(service_.http().requests(), IsEmpty());
}

TEST_F(RequestTest, AddressesOfNoServerFailInTransport) {
  for (const char* url : {"", "/relative", "relative", "?query", "//127.0.0.1", "ftp://127.0.0.1",
                          "file:///etc", "HTTP+unix://x"}) {
    service_.configure(url);
    const auto error = failureOf(KestruneAPI::list("/"));
    ASSERT_NE(error, nullptr) << url;
    EXPECT_EQ(error->domain(), platform::kNSURLErrorDomain) << url;
    EXPECT_EQ(error->code(), URLError::unsupportedURL) << url;
  }
}

TEST_F(RequestTest, AnEmptyTokenIsAToken) {
  service_.writeConfiguration("{\"apiURL\":\"" + service_.http().origin() + "\",\"token\":\"\"}");
  service_.setListing("/", {});
  runTask(KestruneAPI::list("/"));
  EXPECT_EQ(service_.http().onlyRequest().header("Authorization"), "Bearer");
}

TEST_F(RequestTest, ATokenCannotAddHeaders) {
  for (const char* token : {"t\\r\\nX-Evil: 1", "t\\nX", "t\\u0000x"}) {
    service_.writeConfiguration("{\"apiURL\":\"" + service_.http().origin() + "\",\"token\":\"" +
                                token + "\"}");
    const auto error = failureOf(KestruneAPI::list("/"));
    ASSERT_NE(error, nullptr) << token;
    EXPECT_EQ(error->domain(), platform::kNSURLErrorDomain) << token;
    EXPECT_THAT(error->localizedDescription(), Not(HasSubstr("Evil")));
  }
  EXPECT_EQ(service_.http().requestCount(), 0U);
}

TEST_F(RequestTest, TheTokenFollowsARedirectOnlyWithinItsOrigin) {
  support::HttpFixture elsewhere;
  elsewhere.on("GET", "/files", Answer(200, listingReply({{.name = "elsewhere"}})));
  service_.http().next("GET", "/files", Answer::redirect(302, elsewhere.url("/files?path=/")));
  EXPECT_EQ(runTask(KestruneAPI::list("/")).at(0).name, "elsewhere");
  EXPECT_EQ(elsewhere.onlyRequest().header("Authorization"), std::nullopt);

  service_.http().next("GET", "/files", Answer::redirect(307, "/files?path=%2Fmoved"));
  service_.setListing("/moved", {{.name = "here"}});
  EXPECT_EQ(runTask(KestruneAPI::list("/")).at(0).name, "here");
  EXPECT_EQ(service_.http().requests().back().header("Authorization"),
            "Bearer " + std::string(ServiceFixture::kToken));
}

TEST(FilesPath, EncodesAllButTheCharactersOfAPath) {
  const struct {
    std::string path;
    std::string encoded;
  } cases[] = {
      {"/", "%2F"},
      {"", ""},
      {"/Docs/a b.txt", "%2FDocs%2Fa%20b.txt"},
      {"/a&b=c+d;e@f:g,h!i$j'k(l)m*n~o-p_q.r", "%2Fa&b=c+d;e@f:g,h!i$j'k(l)m*n~o-p_q.r"},
      {"/100%/%2F", "%2F100%25%2F%252F"},
      {"/a?b#c[d]", "%2Fa%3Fb%23c%5Bd%5D"},
      {"/\"<>\\^`{|}", "%2F%22%3C%3E%5C%5E%60%7B%7C%7D"},
      {"/\xC3\xA9\xF0\x9F\x98\x80", "%2F%C3%A9%F0%9F%98%80"},
      {std::string("/\0\n\x7F", 4), "%2F%00%0A%7F"},
      {"//a//../b/", "%2F%2Fa%2F%2F..%2Fb%2F"},
      {"/\xFF/x", "/\xFF/x"},
  };
  for (const auto& [path, encoded] : cases)
    EXPECT_EQ(KestruneAPI::filesPath(path), "/files?path=" + encoded);
}

TEST(FilesPath, OfAsciiExactlyTheUnreservedAndPathCharactersStay) {
  const std::string stay =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~!$&'()*+,;=:@";
  for (int code = 0; code < 128; ++code) {
    const auto c = static_cast<char>(code);
    const bool stays = code != 0 && stay.find(c) != std::string::npos;
    char escape[8];
    std::snprintf(escape, sizeof escape, "%%%02X", static_cast<unsigned>(code));
    EXPECT_EQ(KestruneAPI::filesPath(std::string(1, c)),
              "/files?path=" + (stays ? std::string(1, c) : std::string(escape)));
  }
}

}  // namespace
}  // namespace kestrune
