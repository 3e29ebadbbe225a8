#include "companion/configuration/ServiceProbe.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/HttpFixture.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/ServiceFixture.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestCertificates.h"

namespace kestrune {
namespace {

using support::Answer;
using support::HttpFixture;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using Outcome = ServiceProbe::Outcome;

const platform::Secret kToken("canary-token");

ServiceProbe probe(const std::string& address) {
  auto probe = probeService(address, kToken, std::chrono::seconds(5));
  EXPECT_THAT(probe.problem, Not(HasSubstr("canary")));
  EXPECT_EQ(probe.problem.empty(), probe.outcome == Outcome::listed) << probe.problem;
  if (!probe.problem.empty()) EXPECT_THAT(probe.problem, HasSubstr("'" + address + "'"));
  return probe;
}

TEST(ServiceProbe, ListsTheRootWithTheToken) {
  HttpFixture server;
  server.on("GET", "/api/files",
            Answer(200, support::listingReply({{.name = "a"}}))
                .with("Date", "Thu, 01 Jan 2026 00:00:10 GMT"));
  const auto told = probe(server.origin() + "/api");
  EXPECT_EQ(told.outcome, Outcome::listed);
  ASSERT_TRUE(told.serverTime);
  EXPECT_EQ(platform::formatISO8601(*told.serverTime), "2026-01-01T00:00:10Z");
  EXPECT_FALSE(told.certificateUntil);
  EXPECT_EQ(server.request(0).target, "/api/files?path=%2F");
  EXPECT_EQ(server.request(0).header("authorization"), "Bearer canary-token");
}

TEST(ServiceProbe, SaysWhatEachAnswerMeans) {
  const struct {
    Answer answer;
    Outcome outcome;
    const char* text;
  } table[] = {
      {Answer(401), Outcome::unauthorized, "does not accept the token (HTTP 401). Get a new one"},
      {Answer(403), Outcome::unauthorized, "HTTP 403"},
      {Answer(404), Outcome::notFound, "no file service (HTTP 404). Check the path"},
      {Answer(302).with("Location", "https://login.example/?secret=1"), Outcome::redirected,
       "(HTTP 302 to https://login.example:443)."},
      {Answer(503), Outcome::status, "HTTP 503). The fault is the service's"},
      {Answer(418), Outcome::status, "HTTP 418). Ask who runs it"},
      {Answer(200, "<html>log in</html>"), Outcome::noListing, "is no file service (HTTP 200"},
  };
  for (const auto& row : table) {
    HttpFixture server;
    server.on("GET", "/files", row.answer);
    const auto told = probe(server.origin());
    EXPECT_EQ(told.outcome, row.outcome) << row.text;
    EXPECT_THAT(told.problem, AllOf(HasSubstr(row.text), Not(HasSubstr("secret"))));
    EXPECT_EQ(server.requestCount(), 1U) << "nothing is followed or repeated";
  }
}

TEST(ServiceProbe, SaysWhyNothingAnswers) {
  std::string closed;
  {
    HttpFixture server;
    closed = server.origin();
  }
  const auto refused = probe(closed);
  EXPECT_EQ(refused.outcome, Outcome::refused);
  EXPECT_THAT(refused.problem, HasSubstr("Check the port"));
  const auto unknown = probe("http://no-such-host.invalid");
  EXPECT_EQ(unknown.outcome, Outcome::cannotResolve);
  EXPECT_THAT(unknown.problem, HasSubstr("Check the spelling"));
  HttpFixture silent;
  silent.on("GET", "/files", Answer::never());
  const auto late = probeService(silent.origin(), kToken, std::chrono::milliseconds(200));
  EXPECT_EQ(late.outcome, Outcome::timedOut);
}

TEST(ServiceProbe, SaysWhichCertificateIsNotTrusted) {
  support::TemporaryDirectory directory;
  support::TestAuthority authority(directory.path());
  HttpFixture trusted({.tls = authority.issue()});
  trusted.on("GET", "/files", Answer(200, support::listingReply({})));
  EXPECT_EQ(probe(trusted.origin()).outcome, Outcome::notSecure) << "nobody knows the authority";
  const support::ScopedEnvironment store("SSL_CERT_FILE", authority.certificateFile());
  const auto told = probe(trusted.origin());
  EXPECT_EQ(told.outcome, Outcome::listed);
  ASSERT_TRUE(told.certificateUntil);
  EXPECT_GT(*told.certificateUntil, platform::dateNow());
  EXPECT_LT(*told.certificateUntil, platform::dateNow() + std::chrono::hours(2));

  HttpFixture expired({.tls = authority.issue({.notAfter = std::chrono::minutes(-10)})});
  const auto late = probe(expired.origin());
  EXPECT_EQ(late.outcome, Outcome::notSecure);
  EXPECT_THAT(late.problem, HasSubstr("expired"));
  HttpFixture other({.tls = authority.issue({.subjectAltName = "DNS:other.example"})});
  EXPECT_EQ(probe(other.origin()).outcome, Outcome::notSecure);
}

}  // namespace
}  // namespace kestrune
