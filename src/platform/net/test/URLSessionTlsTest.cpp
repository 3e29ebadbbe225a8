// TLS: certificates are always verified, against what the system or $SSL_CERT_FILE trusts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/net/test/SessionTesting.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestCertificates.h"

namespace kestrune::platform {
namespace {

using support::Answer;
using support::CertificateRequest;
using support::HttpFixture;
using support::HttpFixtureOptions;
using support::runTask;
using support::ScopedEnvironment;
using namespace std::chrono_literals;

class URLSessionTls : public ::testing::Test {
 protected:
  static HttpFixtureOptions serving(HttpFixtureOptions::TLS certificate) {
    HttpFixtureOptions options;
    options.tls = std::move(certificate);
    return options;
  }

  support::TemporaryDirectory directory_;
  support::TestAuthority authority_{directory_.path()};
  ScopedEnvironment trust_{"SSL_CERT_FILE", authority_.certificateFile().string()};
};

TEST_F(URLSessionTls, ATrustedServerIsServed) {
  HttpFixture fixture(serving(authority_.issue()));
  fixture.on("GET", "/", Answer::pattern(1'000'000));
  fixture.on("PUT", "/", Answer(201));
  URLSession session({});
  EXPECT_TRUE(runTask(session.data(requestTo(fixture.url("/")))).data ==
              support::patternBytes(0, 1'000'000));
  const auto body = std::make_shared<const std::string>(support::patternBytes(0, 2'000'000));
  EXPECT_EQ(
      runTask(session.uploadFromData(requestTo(fixture.url("/"), "PUT"), body)).response.statusCode,
      201);
  EXPECT_EQ(fixture.request(1).bodySha256, support::patternSha256(2'000'000));
  EXPECT_EQ(fixture.connectionsAccepted(), 1U);
  EXPECT_EQ(fixture.request(0).version, "HTTP/1.1");
}

TEST_F(URLSessionTls, AnUnknownAuthorityIsRefused) {
  const ScopedEnvironment systemsOwn("SSL_CERT_FILE", std::nullopt);
  HttpFixture fixture(serving(authority_.issue()));
  URLSession session({});
  EXPECT_EQ(codeOf(session.data(secretRequest(fixture.url("/")))),
            URLError::secureConnectionFailed);
  EXPECT_TRUE(support::waitUntil([&] { return fixture.failedHandshakes() > 0; }));
  EXPECT_EQ(fixture.requestCount(), 0U);
}

TEST_F(URLSessionTls, CertificatesThatDoNotFitAreRefused) {
  const std::pair<const char*, CertificateRequest> cases[] = {
      {"another address", {.subjectAltName = "IP:127.0.0.2"}},
      {"only a name", {.subjectAltName = "DNS:example.org"}},
      {"expired", {.notBefore = -48h, .notAfter = -24h}},
      {"not yet valid", {.notBefore = 24h, .notAfter = 48h}},
  };
  for (const auto& [what, request] : cases) {
    HttpFixture fixture(serving(authority_.issue(request)));
    fixture.on("GET", "/", Answer(200));
    URLSession session({});
    EXPECT_EQ(codeOf(session.data(secretRequest(fixture.url("/")))),
              URLError::secureConnectionFailed)
        << what;
    EXPECT_EQ(fixture.requestCount(), 0U) << what;
  }
}

TEST_F(URLSessionTls, AnUnusableTrustFileTrustsNobody) {
  const auto empty = directory_.write("empty.pem", "");
  for (const auto& file : {directory_.path() / "missing.pem", empty}) {
    const ScopedEnvironment unusable("SSL_CERT_FILE", file.string());
    HttpFixture fixture(serving(authority_.issue()));
    URLSession session({});
    EXPECT_EQ(codeOf(session.data(secretRequest(fixture.url("/")))),
              URLError::secureConnectionFailed)
        << file;
    EXPECT_EQ(fixture.requestCount(), 0U);
  }
}

TEST_F(URLSessionTls, AnotherSchemeIsAnotherOrigin) {
  HttpFixture secure(serving(authority_.issue()));
  HttpFixture plain;
  secure.on("GET", "/", Answer::redirect(302, plain.url("/")));
  plain.on("GET", "/", Answer(200));
  URLSession session({});
  EXPECT_EQ(runTask(session.data(secretRequest(secure.url("/")))).response.statusCode, 200);
  EXPECT_EQ(secure.onlyRequest().headerCount("Authorization"), 1U);
  EXPECT_EQ(plain.onlyRequest().headerCount("Authorization"), 0U);
}

TEST_F(URLSessionTls, ARedirectToAnUntrustedServerFails) {
  support::TemporaryDirectory elsewhere;
  support::TestAuthority stranger(elsewhere.path());
  HttpFixture untrusted(serving(stranger.issue()));
  HttpFixture plain;
  plain.on("GET", "/", Answer::redirect(302, untrusted.url("/")));
  URLSession session({});
  EXPECT_EQ(codeOf(session.data(secretRequest(plain.url("/")))), URLError::secureConnectionFailed);
  EXPECT_EQ(untrusted.requestCount(), 0U);
}

TEST_F(URLSessionTls, ABodyThatIsCutOffIsNoticed) {
  HttpFixture fixture(serving(authority_.issue()));
  fixture.on("GET", "/closed", Answer(200, "0123456789").closingAt(5));
  fixture.on("GET", "/reset", Answer(200, "0123456789").resettingAt(5));
  URLSession session({});
  EXPECT_EQ(codeOf(session.data(secretRequest(fixture.url("/closed")))),
            URLError::networkConnectionLost);
  EXPECT_EQ(codeOf(session.data(secretRequest(fixture.url("/reset")))),
            URLError::networkConnectionLost);
}

}  // namespace
}  // namespace kestrune::platform
