// What the tests of URL sessions share.
//
// Requests made by `secretRequest` carry a marker in their address and their Authorization; every
// error that `codeOf` looks at must be free of it, so each fault that is tried is also a proof that
// it gives nothing away.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "platform/net/URLSession.h"
#include "tests/support/HttpFixture.h"
#include "tests/support/RunTask.h"
#include "tests/support/Waiting.h"

namespace kestrune::platform {

inline constexpr const char* kSecret = "s3cr3t-marker";

inline URLRequest requestTo(const std::string& url, std::string method = "GET") {
  std::optional<URL> parsed = URL::parse(url);
  if (!parsed) throw std::runtime_error("no URL: " + url);
  URLRequest request(std::move(*parsed));
  request.httpMethod = std::move(method);
  return request;
}

/// A request with secrets in its address and its headers.
inline URLRequest secretRequest(const std::string& url, std::string method = "GET") {
  URLRequest request = requestTo(url + "?signature=" + kSecret, std::move(method));
  request.headers = {{"Authorization", std::string("Bearer ") + kSecret}};
  return request;
}

inline URLSessionConfiguration withIdleTimeout(std::chrono::milliseconds timeout) {
  URLSessionConfiguration configuration;
  configuration.timeoutIntervalForRequest = timeout;
  return configuration;
}

/// The code of an error of URL loading; 0 for no error. Another kind of error fails the test, a
/// secret in it too.
inline std::int64_t codeOf(const NSErrorPtr& error) {
  if (!error) return 0;
  EXPECT_EQ(error->domain(), kNSURLErrorDomain) << error->localizedDescription();
  EXPECT_NE(dynamic_cast<const URLError*>(error.get()), nullptr);
  EXPECT_NE(error->localizedDescription(), "");
  EXPECT_EQ(error->localizedDescription().find(kSecret), std::string::npos)
      << error->localizedDescription();
  for (const auto& [key, value] : error->userInfo())
    EXPECT_EQ(value.find(kSecret), std::string::npos) << key;
  return error->code();
}

template <class T>
std::int64_t codeOf(Task<T> task) {
  return codeOf(support::failureOf(std::move(task)));
}

template <class T>
std::int64_t codeOf(support::RunningTask<T>& running) {
  return codeOf(running.failure());
}

/// Reads `stream` to its end; what it throws goes on.
inline Task<std::string> readAll(std::shared_ptr<URLByteStream> stream) {
  std::string bytes;
  for (;;) {
    const std::optional<ByteBuffer> piece = co_await stream->next();
    if (!piece) break;
    bytes += *piece;
  }
  co_return bytes;
}

inline std::shared_ptr<URLByteStream> openStream(URLSession& session, URLRequest request) {
  return std::make_shared<URLByteStream>(support::runTask(session.bytes(std::move(request))));
}

}  // namespace kestrune::platform
