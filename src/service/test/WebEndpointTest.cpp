// The web page, over HTTP.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "service/Signing.h"
#include "service/test/RunningService.h"
#include "tests/support/CapturingLogSink.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

const std::pair<std::string, std::string> kOwnPage{"Sec-Fetch-Site", "same-origin"};
constexpr const char* kForm = "application/x-www-form-urlencoded";

class WebPage : public ::testing::Test {
 protected:
  explicit WebPage(const std::function<void(Options&)>& change = {})
      : service([&](Options& options) {
          options.timeouts.wrongToken = milliseconds(20);
          if (change) change(options);
        }) {}

  Answer call(const std::string& method, const std::string& target, Client::Fields fields,
              std::optional<std::string_view> body = std::nullopt) const {
    if (!cookie.empty()) fields.emplace_back("Cookie", cookie);
    Client client(service.port());
    return client.call(method, target, fields, body);
  }
  Answer get(const std::string& target, Client::Fields fields = {kOwnPage}) const {
    return call("GET", target, std::move(fields));
  }
  Answer post(const std::string& target, const std::string& form,
              Client::Fields fields = {kOwnPage}) const {
    fields.emplace_back("Content-Type", kForm);
    return call("POST", target, std::move(fields), form);
  }
  Answer enter(const std::string& token, const std::string& target = "/open/") const {
    return post(target, "action=sign-in&token=" + token);
  }
  void signIn() {
    const Answer answer = enter(RunningService::kToken);
    ASSERT_EQ(answer.status, 303U);
    const std::string set = answer.field("set-cookie");
    cookie = set.substr(0, set.find(';'));
  }

  RunningService service;
  std::string cookie;
};

class SignedIn : public WebPage {
 protected:
  SignedIn() { signIn(); }
};

std::size_t occurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
    ++count;
  return count;
}

// ---------------------------------------------------------------------------------------- signing in

TEST_F(WebPage, TheRootLeadsToThePage) {
  for (const char* target : {"/", "/open", "/open?x", "/?x"}) {
    const Answer answer = get(target);
    EXPECT_EQ(answer.status, 302U) << target;
    EXPECT_EQ(answer.field("location"), "/open/") << target;
  }
}

TEST_F(WebPage, WhoIsNotSignedInLearnsNothing) {
  service.write("Docs/a.txt", "hello");
  for (const char* target : {"/open/Docs", "/open/Docs/a.txt", "/open/Docs/a.txt?download",
                             "/open/Docs/a.txt?contents", "/open/missing", "/open/.."}) {
    const Answer answer = get(target);
    EXPECT_EQ(answer.status, 403U) << target;
    EXPECT_THAT(answer.body, HasSubstr("name=\"token\"")) << target;
    EXPECT_THAT(answer.body, Not(HasSubstr("hello"))) << target;
    EXPECT_EQ(answer.field("etag"), "") << target;
  }
}

TEST_F(WebPage, TheTokenIsTurnedIntoACookieAndTheAddressStays) {
  service.write("Docs/a b.txt", "hello");
  const Answer answer = enter(RunningService::kToken, "/open/Docs/a%20b.txt?x=//evil.example");
  EXPECT_EQ(answer.status, 303U);
  EXPECT_EQ(answer.field("location"), "/open/Docs/a%20b.txt");
  EXPECT_THAT(answer.field("set-cookie"),
              ContainsRegex("^kestrune-[0-9a-f]+=[0-9a-f.]+; Path=/open; Max-Age=43200; HttpOnly; "
                            "SameSite=Strict$"));
  EXPECT_THAT(answer.field("set-cookie"), Not(HasSubstr(RunningService::kToken)));
  EXPECT_EQ(answer.field("cache-control"), "no-store");
}

TEST_F(WebPage, NoAddressLeadsElsewhereAfterSigningIn) {
  for (const char* target :
       {"/open//evil.example", "/open//evil.example/", "/open/%2F%2Fevil.example",
        "/open/..//evil.example", "/open/\\\\evil.example", "/open/%0D%0AX:y"}) {
    const std::string location = enter(RunningService::kToken, target).field("location");
    EXPECT_TRUE(location == "/open/" || location == "/open/%5C%5Cevil.example") << location;
  }
}

TEST_F(WebPage, AWrongTokenIsToldSoLaterAndSetsNothing) {
  for (const char* token : {"", "wrong", "a-token-for-test", "a-token-for-tests2"}) {
    const auto begun = std::chrono::steady_clock::now();
    const Answer answer = enter(token);
    EXPECT_GE(std::chrono::steady_clock::now() - begun, milliseconds(20)) << token;
    EXPECT_EQ(answer.status, 403U) << token;
    EXPECT_THAT(answer.body, HasSubstr("role=\"alert\"")) << token;
    EXPECT_EQ(answer.field("set-cookie"), "") << token;
  }
}

TEST_F(WebPage, WhoTriesTooOftenIsNotHeardForAWhileAndOthersAre) {
  const auto from = [this](const std::string& address, const std::string& token) {
    return post("/open/", "action=sign-in&token=" + token,
                {kOwnPage, {"X-Forwarded-For", "203.0.113.1, " + address}})
        .status;
  };
  for (int i = 0; i < 10; ++i) EXPECT_EQ(from("192.0.2.1", "wrong"), 403U);
  EXPECT_EQ(from("192.0.2.1", "wrong"), 429U);
  EXPECT_EQ(from("192.0.2.1", RunningService::kToken), 429U);
  EXPECT_EQ(from("192.0.2.2", RunningService::kToken), 303U);
}

TEST_F(WebPage, ManyWrongTokensAtOnceHoldUpNobody) {
  std::vector<std::future<Answer>> attempts;
  attempts.reserve(10);
  for (int i = 0; i < 10; ++i)
    attempts.push_back(std::async(std::launch::async, [this] { return enter("wrong"); }));
  EXPECT_EQ(service.list("%2F").status, 200U);
  for (auto& attempt : attempts) EXPECT_EQ(attempt.get().status, 403U);
}

TEST_F(WebPage, FormsFromOtherSitesAreRefused) {
  const std::string form = std::string("action=sign-in&token=") + RunningService::kToken;
  const std::vector<Client::Fields> refused{
      {},
      {{"Sec-Fetch-Site", "cross-site"}},
      {{"Sec-Fetch-Site", "same-site"}, {"Origin", "http://test"}},
      {{"Origin", "http://evil.example"}},
      {{"Origin", "null"}},
      {{"Origin", "http://test.evil.example"}}};
  for (const auto& fields : refused) {
    EXPECT_EQ(post("/open/", form, fields).status, 403U);
    EXPECT_EQ(post("/open/", form, fields).field("set-cookie"), "");
  }
  EXPECT_EQ(post("/open/", form, {{"Origin", "http://test"}}).status, 303U);
  EXPECT_EQ(post("/open/", form, {{"Origin", "https://test"}}).status, 303U);
}

TEST_F(WebPage, OtherFormsAreRefused) {
  EXPECT_EQ(post("/open/", "action=x").status, 400U);
  EXPECT_EQ(post("/open/", "action=sign-in&token=%2").status, 400U);
  EXPECT_EQ(post("/open/", std::string(300'000, 'x')).status, 413U);
  EXPECT_EQ(call("POST", "/open/", {kOwnPage, {"Content-Type", "text/plain"}}, "action=x").status,
            415U);
  EXPECT_EQ(call("PUT", "/open/", {kOwnPage}).field("allow"), "GET, HEAD, POST");
  EXPECT_EQ(call("POST", "/web/page.css", {kOwnPage}).field("allow"), "GET, HEAD");
}

TEST_F(WebPage, WhoFollowsALinkFromAnotherSiteIsSentOnOnce) {
  const Answer first = get("/open/Docs?sort=size", {{"Sec-Fetch-Site", "cross-site"}});
  EXPECT_EQ(first.status, 200U);
  EXPECT_THAT(first.body, HasSubstr("content=\"0; url=/open/Docs?sort=size&amp;arrived\""));
  EXPECT_THAT(get("/open/Docs", {}).body, HasSubstr("url=/open/Docs?arrived"));
  const Answer second = get("/open/Docs?sort=size&arrived", {{"Sec-Fetch-Site", "cross-site"}});
  EXPECT_EQ(second.status, 403U);
  EXPECT_THAT(second.body, HasSubstr("action=\"/open/Docs?sort=size\""));
  // What is no page is not sent on.
  EXPECT_EQ(get("/open/Docs/a.txt?download", {{"Sec-Fetch-Site", "cross-site"}}).status, 403U);
}

TEST_F(SignedIn, WhoHasArrivedGetsTheCleanAddress) {
  fs::create_directory(service.inTree("Docs"));
  const Answer answer = get("/open/Docs/?sort=size&arrived");
  EXPECT_EQ(answer.status, 302U);
  EXPECT_EQ(answer.field("location"), "/open/Docs?sort=size");
}

TEST_F(SignedIn, SigningOutEndsTheSessionForEverybodyWhoHasIt) {
  EXPECT_EQ(get("/open/").status, 200U);
  const Answer answer = post("/open/", "action=sign-out");
  EXPECT_EQ(answer.status, 303U);
  EXPECT_THAT(answer.field("set-cookie"), HasSubstr("=; Path=/open; Max-Age=0; HttpOnly"));
  EXPECT_EQ(get("/open/").status, 403U);
  signIn();
  EXPECT_EQ(get("/open/").status, 200U);
}

TEST_F(SignedIn, TheCookieOpensNothingElse) {
  EXPECT_EQ(get("/files?path=%2F").status, 401U);
  EXPECT_EQ(get("/events").status, 401U);
}

TEST_F(SignedIn, TheTokenIsInNoLogAndNoPage) {
  const support::CapturingLogSink log;
  const std::string wrong = "an-almost-right-token";
  enter(wrong);
  ASSERT_TRUE(log.waitForRecords(1));
  EXPECT_TRUE(log.contains("127.0.0.1"));
  EXPECT_FALSE(log.contains(wrong));
  EXPECT_FALSE(log.contains(cookie.substr(cookie.find('=') + 1)));
  EXPECT_THAT(enter(wrong).body, Not(HasSubstr(wrong)));
}

class BehindAProxy : public WebPage {
 protected:
  BehindAProxy()
      : WebPage(
            [](Options& options) { options.publicURL = "https://files.example.org/store/api"; }) {}
};

TEST_F(BehindAProxy, AddressesAndTheCookieAreThoseOfTheProxy) {
  EXPECT_EQ(get("/").field("location"), "/store/open/");
  const std::string form = std::string("action=sign-in&token=") + RunningService::kToken;
  const Answer answer =
      post("/open/a", form, {{"Origin", "https://files.example.org"}, {"Host", "127.0.0.1:8080"}});
  EXPECT_EQ(answer.field("location"), "/store/open/a");
  EXPECT_THAT(answer.field("set-cookie"), HasSubstr("; Path=/store/open; "));
  EXPECT_THAT(answer.field("set-cookie"), HasSubstr("; Secure"));
  signIn();
  fs::create_directory(service.inTree("Docs"));
  const std::string page = get("/open/").body;
  EXPECT_THAT(page, HasSubstr("href=\"/store/open/Docs\""));
  EXPECT_THAT(page, HasSubstr("href=\"/store/web/page.css?"));
  EXPECT_THAT(page, Not(ContainsRegex("(href|src|action)=\"/(open|web)")));
}

// ---------------------------------------------------------------------------------------- the pages

TEST_F(SignedIn, AFolderShowsItsEntries) {
  service.write("Docs/a.txt", "hello");
  fs::create_directory(service.inTree("Docs/Sub folder"));
  const Answer answer = get("/open/Docs");
  EXPECT_EQ(answer.status, 200U);
  EXPECT_THAT(answer.body, HasSubstr("href=\"/open/Docs/a.txt\""));
  EXPECT_THAT(answer.body, HasSubstr("href=\"/open/Docs/Sub%20folder\""));
  EXPECT_THAT(answer.body, HasSubstr("5 bytes"));
  EXPECT_THAT(answer.body, HasSubstr("aria-current=\"page\"><bdi>Docs</bdi>"));
  EXPECT_THAT(answer.body, HasSubstr("<html lang=\"en\">"));
  EXPECT_EQ(get("/open/Docs/").field("location"), "/open/Docs");
}

TEST_F(SignedIn, EveryPageHasTheStrictFields) {
  service.write("a.txt", "hello");
  for (const char* target : {"/open/", "/open/a.txt", "/open/missing", "/open/.."}) {
    const Answer answer = get(target);
    EXPECT_EQ(answer.field("content-type"), "text/html; charset=utf-8") << target;
    EXPECT_EQ(answer.field("content-security-policy"),
              "default-src 'none'; style-src 'self'; script-src 'self'; img-src 'self'; "
              "form-action 'self'; base-uri 'none'; frame-ancestors 'none'")
        << target;
    EXPECT_EQ(answer.field("x-content-type-options"), "nosniff") << target;
    EXPECT_EQ(answer.field("referrer-policy"), "same-origin") << target;
    EXPECT_EQ(answer.field("cache-control"), "private, no-store") << target;
    EXPECT_THAT(answer.body, Not(ContainsRegex("<style|style=|<script>|onclick|http://|https://")));
  }
}

TEST_F(SignedIn, SortingIsInTheAddressAndSaidToReaders) {
  service.write("small", "x");
  service.write("large", "xxxx");
  fs::create_directory(service.inTree("Sub"));
  const std::string page = get("/open/?sort=size&order=desc").body;
  EXPECT_LT(page.find(">large<"), page.find(">small<"));
  EXPECT_THAT(page, HasSubstr("class=\"size\" aria-sort=\"descending\""));
  EXPECT_EQ(occurrences(page, "aria-sort"), 1U);
  EXPECT_THAT(page, HasSubstr("href=\"/open/?sort=size\""));
  EXPECT_THAT(page, HasSubstr("href=\"/open/Sub?sort=size&amp;order=desc\""));
  const std::string up = get("/open/?sort=size").body;
  EXPECT_LT(up.find(">small<"), up.find(">large<"));
}

TEST_F(SignedIn, ALargeFolderComesInPagesThatAreSortedOverAll) {
  service.makeFiles("Many", 1234);
  const std::string first = get("/open/Many").body;
  EXPECT_EQ(occurrences(first, "<tr"), 501U);
  EXPECT_THAT(first, HasSubstr("1 to 500 of 1,234"));
  EXPECT_THAT(first, HasSubstr(">file 499.pdf<"));
  EXPECT_THAT(first, Not(HasSubstr(">file 500.pdf<")));
  EXPECT_THAT(first, HasSubstr("href=\"/open/Many?after=f.0.file%20499.pdf\""));
  const std::string second = get("/open/Many?after=f.0.file%20499.pdf").body;
  EXPECT_THAT(second, HasSubstr("501 to 1,000 of 1,234"));
  EXPECT_THAT(second, HasSubstr("href=\"/open/Many?before=f.0.file%20500.pdf\""));
  EXPECT_THAT(get("/open/Many?last").body, HasSubstr("735 to 1,234 of 1,234"));
}

TEST_F(SignedIn, WhatIsNotThereIsAPageThatSaysSo) {
  for (const char* target : {"/open/missing", "/open/missing/below", "/open/missing?download"}) {
    EXPECT_EQ(get(target).status, 404U) << target;
    EXPECT_THAT(get(target).body, HasSubstr("<h1>Not found</h1>")) << target;
  }
  for (const char* target : {"/open/..", "/open/a/../b", "/open/%FF", "/open/a%0Ab", "/open/a//b"})
    EXPECT_EQ(get(target).status, 400U) << target;
  EXPECT_EQ(get("/open/" + std::string(256, 'n')).status, 400U);
  EXPECT_EQ(get("/open/" + std::string(255, 'n')).status, 404U);
  fs::create_symlink("/etc", service.inTree("symbolic"));
  EXPECT_EQ(get("/open/symbolic/passwd").status, 400U);
  EXPECT_THAT(get("/open/").body, Not(HasSubstr("symbolic")));
}

TEST_F(SignedIn, HostileNamesAreShownAsTheyAre) {
  const std::string names[] = {
      "\"><script>alert(1)</script>", "' onload='x", "&lt;b&gt;", "a%2Fb?c#d", "..a",
      "javascript:alert(1)"};
  for (const std::string& name : names) {
    // What HTML would close is a folder here: a name cannot hold a slash.
    std::string written = name;
    for (char& c : written) c = c == '/' ? '|' : c;
    service.write("Names/" + written, "x");
    const std::string page = get("/open/Names").body;
    EXPECT_THAT(page, Not(HasSubstr("<script>"))) << name;
    EXPECT_THAT(page, Not(HasSubstr("' onload"))) << name;
    const std::string link = "/open/Names/" + percentEncodePath(written);
    EXPECT_THAT(page, HasSubstr("href=\"" + link + "\"")) << name;
    const Answer file = get(link);
    EXPECT_EQ(file.status, 200U) << name;
    EXPECT_THAT(file.body, Not(HasSubstr("<script>"))) << name;
    EXPECT_THAT(file.body, Not(HasSubstr("' onload"))) << name;
  }
  EXPECT_THAT(get("/open/Names").body, HasSubstr("<bdi>&amp;lt;b&amp;gt;</bdi>"));
}

TEST_F(SignedIn, NamesThatTurnTheDirectionAreShownHarmlessly) {
  service.write(
      "invoice\xE2\x80\xAE"
      "fdp.exe",
      "x");
  service.write("line\nbreak", "x");
  service.write("\xff\xfe", "x");
  const std::string page = get("/open/").body;
  EXPECT_THAT(page, Not(HasSubstr("\xE2\x80\xAE")));
  EXPECT_THAT(page, HasSubstr("<bdi>invoice\xEF\xBF\xBD"
                              "fdp.exe</bdi>"));
  EXPECT_THAT(page, HasSubstr("href=\"/open/invoice%E2%80%AEfdp.exe\""));
  EXPECT_THAT(page, HasSubstr("Not shown: 2 items"));
  const Answer file = get("/open/invoice%E2%80%AEfdp.exe?download");
  EXPECT_THAT(file.field("content-disposition"), Not(HasSubstr("%E2%80%AE")));
}

// ------------------------------------------------------------------------------------------ contents

TEST_F(SignedIn, APreviewIsWhatTheFileIs) {
  service.write("a.png", "x");
  service.write("a.mp3", "x");
  service.write("a.mp4", "x");
  service.write("a.pdf", "x");
  service.write("a.bin", std::string("\0\1", 2));
  service.write("empty.bin", "");
  EXPECT_THAT(get("/open/a.png").body,
              HasSubstr("<img src=\"/open/a.png?contents\" alt=\"a.png\">"));
  EXPECT_THAT(get("/open/a.mp3").body, HasSubstr("<audio controls"));
  EXPECT_THAT(get("/open/a.mp4").body, HasSubstr("<video controls"));
  EXPECT_THAT(get("/open/a.pdf").body, HasSubstr("<object data=\"/open/a.pdf?contents\""));
  EXPECT_THAT(get("/open/a.bin").body, HasSubstr("are not shown here"));
  EXPECT_THAT(get("/open/empty.bin").body, HasSubstr("This file is empty"));
  EXPECT_THAT(get("/open/a.png").field("content-security-policy"), Not(HasSubstr("media-src")));
  EXPECT_THAT(get("/open/a.mp4").field("content-security-policy"), HasSubstr("media-src 'self'"));
  EXPECT_THAT(get("/open/a.pdf").field("content-security-policy"), HasSubstr("object-src 'self'"));
}

TEST_F(SignedIn, PagesAndDrawingsAreShownAsTheTextThatTheyAre) {
  for (const char* name : {"a.html", "a.svg", "a.xhtml", "a.md"}) {
    service.write(name, "<script>alert(1)</script> &amp; </pre>");
    const std::string target = std::string("/open/") + name;
    EXPECT_THAT(get(target).body,
                HasSubstr("&lt;script&gt;alert(1)&lt;/script&gt; &amp;amp; &lt;/pre&gt;</pre>"));
    for (const char* view : {"?contents", "?download"}) {
      const Answer bytes = get(target + view);
      EXPECT_EQ(bytes.field("content-type"), "application/octet-stream") << name;
      EXPECT_THAT(bytes.field("content-disposition"), HasSubstr("attachment; ")) << name;
      EXPECT_EQ(bytes.field("content-security-policy"), "default-src 'none'; sandbox") << name;
      EXPECT_EQ(bytes.field("x-content-type-options"), "nosniff") << name;
    }
  }
}

TEST_F(SignedIn, OfALargeTextTheBeginningIsShown) {
  std::string text;
  while (text.size() < 200'000) text += "\xC3\xBC line\n";
  service.write("large.log", text);
  service.write("small.log", "\nsmall");
  const std::string page = get("/open/large.log").body;
  EXPECT_THAT(page, HasSubstr("Only the beginning is shown: 131 kB of 200 kB"));
  EXPECT_LT(page.size(), 140'000U);
  EXPECT_THAT(get("/open/small.log").body, HasSubstr("\n\nsmall</pre>"));
  EXPECT_THAT(get("/open/small.log").body, Not(HasSubstr("Only the beginning")));
}

TEST_F(SignedIn, ContentsAreServedAsWhatIsKnownToBeHarmless) {
  service.write("a.png", "0123456789");
  const Answer shown = get("/open/a.png?contents");
  EXPECT_EQ(shown.body, "0123456789");
  EXPECT_EQ(shown.field("content-type"), "image/png");
  EXPECT_EQ(shown.field("content-disposition"),
            "inline; filename=\"a.png\"; filename*=UTF-8''a.png");
  EXPECT_EQ(shown.field("content-security-policy"), "default-src 'none'; sandbox");
  EXPECT_EQ(shown.field("cross-origin-resource-policy"), "same-origin");
  const Answer kept = get("/open/a.png?download");
  EXPECT_EQ(kept.field("content-type"), "application/octet-stream");
  EXPECT_THAT(kept.field("content-disposition"), HasSubstr("attachment; "));
  service.write("a.pdf", "x");
  EXPECT_EQ(get("/open/a.pdf?contents").field("content-security-policy"),
            "default-src 'none'; frame-ancestors 'self'");
  EXPECT_EQ(get("/open/a.pdf?download").field("content-security-policy"),
            "default-src 'none'; sandbox");
}

TEST_F(SignedIn, ContentsComeInRangesAndOnlyIfTheyHaveChanged) {
  service.write("a.mp4", "0123456789");
  const Answer part = get("/open/a.mp4?contents", {kOwnPage, {"Range", "bytes=2-4"}});
  EXPECT_EQ(part.status, 206U);
  EXPECT_EQ(part.body, "234");
  EXPECT_EQ(part.field("content-range"), "bytes 2-4/10");
  const Answer beyond = get("/open/a.mp4?contents", {kOwnPage, {"Range", "bytes=10-"}});
  EXPECT_EQ(beyond.status, 416U);
  EXPECT_EQ(beyond.field("content-range"), "bytes */10");
  const std::string tag = part.field("etag");
  const Answer unchanged = get("/open/a.mp4?contents", {kOwnPage, {"If-None-Match", "W/" + tag}});
  EXPECT_EQ(unchanged.status, 304U);
  EXPECT_EQ(unchanged.field("content-length"), "");
  EXPECT_EQ(unchanged.field("etag"), tag);
  service.write("a.mp4", "0123456789x");
  EXPECT_EQ(get("/open/a.mp4?contents", {kOwnPage, {"If-None-Match", tag}}).status, 200U);
}

TEST_F(SignedIn, HeadTellsTheSameWithoutABody) {
  service.write("a.png", "0123456789");
  for (const char* target : {"/open/", "/open/a.png", "/open/a.png?contents", "/open/missing"}) {
    const Answer head = call("HEAD", target, {kOwnPage});
    const Answer whole = get(target);
    EXPECT_EQ(head.status, whole.status) << target;
    EXPECT_EQ(head.body, "") << target;
    EXPECT_EQ(head.field("content-length"), std::to_string(whole.body.size())) << target;
  }
}

TEST_F(WebPage, AssetsAreForEverybodyAndAskedForOnce) {
  const std::string page = get("/open/").body;
  const std::size_t at = page.find("/web/page.css?");
  ASSERT_NE(at, std::string::npos);
  const std::string target = page.substr(at, page.find('"', at) - at);
  const Answer style = get(target);
  EXPECT_EQ(style.status, 200U);
  EXPECT_EQ(style.field("content-type"), "text/css; charset=utf-8");
  EXPECT_THAT(style.field("cache-control"), HasSubstr("immutable"));
  EXPECT_EQ(get("/web/page.css?old").field("cache-control"), "public, no-cache");
  const Answer known = get("/web/page.css", {{"If-None-Match", style.field("etag")}});
  EXPECT_EQ(known.status, 304U);
  EXPECT_EQ(known.body, "");
  EXPECT_EQ(get("/web/icon.svg").field("content-type"), "image/svg+xml");
  for (const char* missing : {"/web/", "/web/missing", "/web/../page.css"})
    EXPECT_EQ(get(missing).status, 404U) << missing;
  // Several requests on one connection: an answer 304 must end where it says.
  Client client(service.port());
  EXPECT_EQ(client.call("GET", "/web/page.css", {{"If-None-Match", style.field("etag")}}).status,
            304U);
  EXPECT_EQ(client.call("GET", "/web/page.js").status, 200U);
}

}  // namespace
}  // namespace kestrune::service
