// Servers that are not there, break off, or send what no honest server sends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "platform/net/test/SessionTesting.h"
#include "tests/support/DeadEnds.h"

namespace kestrune::platform {
namespace {

using support::Answer;
using support::AnswerOutcome;
using support::HttpFixture;
using support::runTask;
using namespace std::chrono_literals;

std::int64_t downloadCode(URLSession& session, const std::string& url) {
  auto outcome = std::make_shared<std::promise<std::pair<bool, NSErrorPtr>>>();
  auto ended = outcome->get_future();
  auto task = session.downloadTask(*URL::parse(url),
                                   [outcome](auto location, auto, const NSErrorPtr& error) {
                                     outcome->set_value({location.has_value(), error});
                                   });
  task->resume();
  if (ended.wait_for(support::kTaskDeadline) != std::future_status::ready)
    throw std::runtime_error("no end");
  const auto [hasFile, error] = ended.get();
  EXPECT_EQ(hasFile, error == nullptr);
  return codeOf(error);
}

Task<void> readStream(URLSession* session, URLRequest request) {
  URLByteStream opened = co_await session->bytes(std::move(request));
  auto stream = std::make_shared<URLByteStream>(std::move(opened));
  co_await readAll(std::move(stream));
}

// All three ways of asking must see the same failure.
void expectFailure(const std::string& url, std::int64_t code, std::string_view what) {
  URLSession session(withIdleTimeout(10s));
  EXPECT_EQ(codeOf(session.data(secretRequest(url))), code) << what << ", data";
  EXPECT_EQ(codeOf(readStream(&session, secretRequest(url))), code) << what << ", stream";
  EXPECT_EQ(downloadCode(session, url + "?signature=" + kSecret), code) << what << ", download";
}

TEST(URLSessionFault, APortWhereNobodyListens) {
  const support::RefusingPort port;
  expectFailure(port.origin() + "/", URLError::cannotConnectToHost, "refused");
}

TEST(URLSessionFault, AHostThatDoesNotExist) {
  expectFailure("http://nonexistent.invalid/", URLError::cannotFindHost, "no such host");
}

TEST(URLSessionFault, AddressesThatCannotBeRequested) {
  for (const char* address :
       {"ftp://127.0.0.1/x", "file:///etc/hostname", "relative/path", "/absolute/path",
        "//127.0.0.1/x", "unknown:x", "mailto:someone", "data:,x", "?q"}) {
    expectFailure(address, URLError::unsupportedURL, address);
  }
}

TEST(URLSessionFault, AConnectionThatBreaksOffInTheMiddle) {
  const Answer body(200, "0123456789");
  const std::pair<const char*, Answer> cases[] = {
      {"closed before the answer", body.closingInHead(0)},
      {"closed in the status line", body.closingInHead(7)},
      {"closed in the headers", body.with("X-One", "1").closingInHead(30)},
      {"closed after an informational answer", body.afterInformational(1).closingInHead(0)},
      {"closed in the head after one", body.afterInformational(1).closingInHead(10)},
      {"closed before the body", body.closingAt(0)},
      {"closed after the first byte", body.closingAt(1)},
      {"closed before the last byte", body.closingAt(9)},
      {"shorter than announced", body.announcing(1U << 30U)},
      {"closed before the last chunk", body.chunked().closingAt(10)},
      {"reset before the answer", body.resettingInHead(0)},
      {"reset in the headers", body.resettingInHead(20)},
      {"reset before the body", body.resettingAt(0)},
      {"reset in the body", body.resettingAt(9)},
      {"reset in a chunked body", body.chunked().resettingAt(10)},
      {"reset in a body without length", body.withoutLength().resettingAt(10)},
  };
  for (const auto& [what, answer] : cases) {
    HttpFixture fixture;
    fixture.on("GET", "/", answer);
    expectFailure(fixture.url("/"), URLError::networkConnectionLost, what);
    for (std::size_t i = 0; i < fixture.requestCount(); ++i) {
      EXPECT_NE(fixture.waitForOutcome(i), AnswerOutcome::abandoned) << what;
    }
  }
}

TEST(URLSessionFault, ABodyWithoutLengthEndsWithItsConnection) {
  HttpFixture fixture;
  fixture.on("GET", "/", Answer(200, "0123456789").withoutLength());
  URLSession session({});
  EXPECT_EQ(runTask(session.data(requestTo(fixture.url("/")))).data, "0123456789");
}

TEST(URLSessionFault, HeadsWithoutMeasure) {
  constexpr std::size_t kForEver = 10'000'000;
  const std::pair<const char*, Answer> cases[] = {
      {"10,000 headers", Answer(200, "x").withManyHeaders(10'000)},
      {"a header of 1 MB", Answer(200, "x").withLargeHeader(1U << 20U)},
      {"a header of 16 MB, without end",
       Answer::raw("HTTP/1.1 200 OK\r\nX-A: " + std::string(1U << 24U, 'a'))},
      {"informational answers without end", Answer(200, "x").afterInformational(kForEver)},
  };
  for (const auto& [what, answer] : cases) {
    HttpFixture fixture;
    fixture.on("GET", "/", answer);
    expectFailure(fixture.url("/"), URLError::badServerResponse, what);
  }
}

TEST(URLSessionFault, LargeButHonestHeadsAreFine) {
  HttpFixture fixture;
  fixture.on(
      "GET", "/",
      Answer(200, "x").withManyHeaders(200).withLargeHeader(16U << 10U).afterInformational(5));
  URLSession session({});
  const URLReply reply = runTask(session.data(requestTo(fixture.url("/"))));
  EXPECT_EQ(reply.data, "x");
  EXPECT_EQ(reply.response.valueForHTTPHeaderField("X-Filler-199"), "x");
  EXPECT_EQ(reply.response.valueForHTTPHeaderField("X-Large")->size(), 16U << 10U);
}

TEST(URLSessionFault, AnswersThatAreNotHttp) {
  const std::pair<const char*, Answer> cases[] = {
      {"another protocol", Answer::raw("SSH-2.0-OpenSSH_9.2\r\n\r\n").hangingUp()},
      {"no status", Answer::raw("HTTP/1.1 abc\r\n\r\n").hangingUp()},
      {"only a page", Answer::raw("<html>hello</html>\r\n\r\n").hangingUp()},
      {"a negative length",
       Answer::raw("HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n", "ab").hangingUp()},
  };
  for (const auto& [what, answer] : cases) {
    HttpFixture fixture;
    fixture.on("GET", "/", answer);
    expectFailure(fixture.url("/"), URLError::badServerResponse, what);
  }
}

// libcurl has one code for a chunk that it cannot read and for a connection that it cannot read.
TEST(URLSessionFault, AChunkWhoseSizeIsNoNumber) {
  const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  HttpFixture fixture;
  fixture.on("GET", "/", Answer::raw(head, "zz\r\nxx\r\n0\r\n\r\n").hangingUp());
  expectFailure(fixture.url("/"), URLError::networkConnectionLost, "chunk");
}

TEST(URLSessionFault, OneFailureLeavesTheOthersAlone) {
  HttpFixture fixture;
  fixture.hold("GET", "/good");
  fixture.on("GET", "/bad", Answer(200, "0123").resettingAt(2));
  URLSession session({});
  auto good = support::startTask(session.data(requestTo(fixture.url("/good"))));
  const auto held = fixture.nextHeld();
  EXPECT_EQ(codeOf(session.data(secretRequest(fixture.url("/bad")))),
            URLError::networkConnectionLost);
  EXPECT_FALSE(good.isDone());
  held.answer(Answer(200, "good"));
  EXPECT_EQ(good.value().data, "good");
}

}  // namespace
}  // namespace kestrune::platform
