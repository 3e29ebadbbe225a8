#include "host/basics/ErrorToErrno.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>

#include "platform/file_provider/NSFileProviderError.h"

namespace kestrune::host {
namespace {

using platform::NSError;
using platform::NSFileProviderError;

struct Case {
  const char* domain;
  std::int64_t code;
  int expected;
};

void check(std::initializer_list<Case> table) {
  for (const Case& row : table) {
    EXPECT_EQ(errnoFor(NSError(row.domain, row.code, "text")), row.expected)
        << row.domain << ' ' << row.code;
  }
}

constexpr const char* kProvider = platform::kNSFileProviderErrorDomain;
constexpr const char* kURL = platform::kNSURLErrorDomain;
constexpr const char* kPOSIX = platform::kNSPOSIXErrorDomain;
constexpr const char* kCocoa = platform::kNSCocoaErrorDomain;

TEST(ErrorToErrnoTest, GivesWhatAUserExpects) {
  check({{kProvider, -1005, ENOENT},  {kProvider, -1004, EHOSTUNREACH},
         {kProvider, -1000, EACCES},  {kProvider, -1003, EDQUOT},
         {kProvider, -2009, ESTALE},  {kProvider, -1002, EIO},
         {kProvider, -2001, EIO},     {kProvider, 12345, EIO},
         {kURL, -1001, ETIMEDOUT},    {kURL, -1003, EHOSTUNREACH},
         {kURL, -1004, EHOSTUNREACH}, {kURL, -1005, EHOSTUNREACH},
         {kURL, -1009, EHOSTUNREACH}, {kURL, -1200, EHOSTUNREACH},
         {kURL, -1202, EHOSTUNREACH}, {kURL, -1206, EHOSTUNREACH},
         {kURL, -1207, EIO},          {kURL, -999, ECANCELED},
         {kURL, -1011, EIO},          {kURL, -1, EIO},
         {kPOSIX, ENOSPC, ENOSPC},    {kPOSIX, ETIMEDOUT, ETIMEDOUT},
         {kPOSIX, EINTR, EINTR},      {kCocoa, 4, ENOENT},
         {kCocoa, 3072, ECANCELED},   {kCocoa, 4866, EIO},
         {"some.domain", 1, EIO}});
}

TEST(ErrorToErrnoTest, KnowsWhatMaySucceedWithTheNextAnswer) {
  for (const int number : {EHOSTUNREACH, ETIMEDOUT, ENETDOWN, EACCES})
    EXPECT_TRUE(isUnreachable(NSError(kPOSIX, number, "text"))) << number;
  for (const int number : {ENOENT, ENOSPC, EIO, EDQUOT, ECANCELED})
    EXPECT_FALSE(isUnreachable(NSError(kPOSIX, number, "text"))) << number;
}

TEST(ErrorToErrnoTest, WhatIsForbiddenIsNotWaitedFor) {
  const auto withStatus = [](const char* status) {
    return NSError("any.domain", 0, "text", {{platform::kHTTPStatusCodeKey, status}});
  };
  EXPECT_TRUE(isForbidden(withStatus("403")));
  EXPECT_FALSE(isUnreachable(withStatus("403")));
  EXPECT_FALSE(isForbidden(withStatus("401")));
  EXPECT_TRUE(isUnreachable(withStatus("401")));
  EXPECT_FALSE(isForbidden(NSFileProviderError(NSFileProviderError::notAuthenticated)));
  EXPECT_FALSE(isForbidden(platform::NSPOSIXError(EACCES, "open")));
}

// Such answers the kernel refuses, or it takes ENOSYS as "never ask again".
TEST(ErrorToErrnoTest, NothingTheKernelMisunderstandsIsSent) {
  check({{kPOSIX, 0, EIO},
         {kPOSIX, -5, EIO},
         {kPOSIX, ENOSYS, EIO},
         {kPOSIX, 512, EIO},
         {kPOSIX, std::numeric_limits<std::int64_t>::max(), EIO}});
}

TEST(ErrorToErrnoTest, AStatusCountsMoreThanItsDomain) {
  const auto withStatus = [](const char* text) {
    return errnoFor(NSError("any.domain", 0, "text", {{platform::kHTTPStatusCodeKey, text}}));
  };
  EXPECT_EQ(withStatus("401"), EACCES);
  EXPECT_EQ(withStatus("403"), EACCES);
  EXPECT_EQ(withStatus("404"), ENOENT);
  EXPECT_EQ(withStatus("507"), ENOSPC);
  EXPECT_EQ(withStatus("500"), EIO);
  EXPECT_EQ(withStatus("503"), EIO);
  EXPECT_EQ(withStatus("no number"), EIO);
  EXPECT_EQ(withStatus("401x"), EIO);
  EXPECT_EQ(withStatus(""), EIO);
}

TEST(ErrorToErrnoTest, OnlyWhoIsUnknownIsSignedOut) {
  const NSFileProviderError unknown(NSFileProviderError::notAuthenticated);
  EXPECT_TRUE(isSignedOut(unknown));
  EXPECT_TRUE(
      isSignedOut(NSError("any.domain", 0, "text", {{platform::kHTTPStatusCodeKey, "401"}})));
  for (const char* status : {"403", "404", "500"}) {
    EXPECT_FALSE(isSignedOut(NSError(unknown.domain(), unknown.code(), "text",
                                     {{platform::kHTTPStatusCodeKey, status}})));
  }
  EXPECT_FALSE(isSignedOut(NSFileProviderError(NSFileProviderError::serverUnreachable)));
  EXPECT_FALSE(isSignedOut(platform::NSPOSIXError(EACCES, "open")));
}

}  // namespace
}  // namespace kestrune::host
