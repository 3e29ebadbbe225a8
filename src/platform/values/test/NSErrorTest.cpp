#include "platform/values/NSError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/asio/error.hpp>
#include <boost/system/system_error.hpp>
#include <cerrno>
#include <future>
#include <stdexcept>
#include <system_error>
#include <typeinfo>

namespace kestrune::platform {
namespace {

class TypedError : public NSErrorOf<TypedError> {
 public:
  explicit TypedError(int detail)
      : NSErrorOf("TypedDomain", 7, "typed", {{"key", "value"}}), detail_(detail) {}
  int detail() const { return detail_; }

 private:
  int detail_;
};

/// What currentError makes of `thrown`.
template <class Thrown>
NSErrorPtr caught(const Thrown& thrown) {
  try {
    throw thrown;
  } catch (...) {
    return currentError();
  }
}

TEST(NSErrorTest, CarriesWhatItWasMadeOf) {
  const NSError error("Domain", -42, "It failed.", {{"a", "b"}});
  EXPECT_EQ(error.domain(), "Domain");
  EXPECT_EQ(error.code(), -42);
  EXPECT_EQ(error.localizedDescription(), "It failed.");
  EXPECT_STREQ(error.what(), "It failed.");
  EXPECT_EQ(error.userInfo(), (NSError::UserInfo{{"a", "b"}}));
  EXPECT_TRUE(NSError("D", 0, "").userInfo().empty());
}

TEST(NSErrorTest, SharedCopyKeepsTheDynamicType) {
  const TypedError original(5);
  const NSError& base = original;
  const NSErrorPtr shared = base.share();
  const auto* typed = dynamic_cast<const TypedError*>(shared.get());
  ASSERT_NE(typed, nullptr);
  EXPECT_NE(typed, &original);
  EXPECT_EQ(typed->detail(), 5);
  EXPECT_EQ(typed->userInfo(), original.userInfo());
}

TEST(NSErrorTest, RaiseThrowsTheDynamicType) {
  const NSErrorPtr shared = TypedError(6).share();
  try {
    shared->raise();
    FAIL() << "raise returned";
  } catch (const TypedError& error) {
    EXPECT_EQ(error.detail(), 6);
  }
  EXPECT_THROW(NSError("D", 1, "x").raise(), NSError);
  EXPECT_THROW(CancellationError().share()->raise(), CancellationError);
}

TEST(NSErrorTest, WhatIsNoErrorAtAllIsAnErrorThatSaysSo) {
  const NSErrorPtr error = caught(7);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), kNSCocoaErrorDomain);
  EXPECT_EQ(error->localizedDescription(), "An exception of an unknown kind was thrown.");
}

TEST(NSErrorTest, POSIXErrorNamesWhatWasTried) {
  const NSPOSIXError error(ENOENT, "open '/tmp/x'");
  EXPECT_EQ(error.domain(), kNSPOSIXErrorDomain);
  EXPECT_EQ(error.code(), ENOENT);
  EXPECT_EQ(error.localizedDescription(), "open '/tmp/x': No such file or directory");
}

TEST(NSErrorTest, ErrnoTextIsTheSystems) {
  EXPECT_EQ(errnoText(ENOENT), "No such file or directory");
  EXPECT_EQ(errnoText(ENOSPC), "No space left on device");
  EXPECT_FALSE(errnoText(987'654).empty());
}

TEST(NSErrorTest, CancellationIsTheUsersChoice) {
  const CancellationError error;
  EXPECT_EQ(error.domain(), kNSCocoaErrorDomain);
  EXPECT_EQ(error.code(), NSCocoaError::userCancelled);
  EXPECT_FALSE(error.localizedDescription().empty());
}

TEST(NSErrorTest, CurrentErrorKeepsTypedErrors) {
  const NSErrorPtr error = caught(TypedError(9));
  const auto* typed = dynamic_cast<const TypedError*>(error.get());
  ASSERT_NE(typed, nullptr);
  EXPECT_EQ(typed->detail(), 9);
  const NSErrorPtr plain = caught(NSError("D", 3, "plain"));
  EXPECT_EQ(plain->code(), 3);
  const NSError& dynamic = *plain;
  EXPECT_EQ(typeid(dynamic), typeid(NSError));
}

TEST(NSErrorTest, CurrentErrorTranslatesForeignExceptions) {
  const NSErrorPtr standard = caught(std::system_error(ENOSPC, std::generic_category(), "write"));
  EXPECT_EQ(standard->domain(), kNSPOSIXErrorDomain);
  EXPECT_EQ(standard->code(), ENOSPC);
  EXPECT_THAT(standard->localizedDescription(), testing::HasSubstr("No space left on device"));

  const NSErrorPtr boost =
      caught(boost::system::system_error(ECONNREFUSED, boost::system::system_category()));
  EXPECT_EQ(boost->domain(), kNSPOSIXErrorDomain);
  EXPECT_EQ(boost->code(), ECONNREFUSED);

  const NSErrorPtr aborted =
      caught(boost::system::system_error(boost::asio::error::operation_aborted));
  EXPECT_NE(dynamic_cast<const CancellationError*>(aborted.get()), nullptr);

  const NSErrorPtr other = caught(std::runtime_error("something else"));
  EXPECT_EQ(other->domain(), kNSCocoaErrorDomain);
  EXPECT_EQ(other->localizedDescription(), "something else");
}

TEST(NSErrorTest, CodesOfOtherLibrariesAreNoErrnos) {
  // The numbers of other categories mean something else than an errno of the same number.
  const NSErrorPtr boost = caught(boost::system::system_error(boost::asio::error::eof));
  EXPECT_EQ(boost->domain(), kNSCocoaErrorDomain);
  const std::system_error promise(std::make_error_code(std::future_errc::broken_promise));
  const NSErrorPtr standard = caught(promise);
  EXPECT_EQ(standard->domain(), kNSCocoaErrorDomain);
  EXPECT_EQ(standard->localizedDescription(), promise.what());
}

TEST(NSErrorTest, StoredExceptionsAreTranslatedAlike) {
  EXPECT_EQ(errorFrom(nullptr), nullptr);
  const NSErrorPtr error = errorFrom(std::make_exception_ptr(TypedError(1)));
  EXPECT_NE(dynamic_cast<const TypedError*>(error.get()), nullptr);
}

}  // namespace
}  // namespace kestrune::platform
