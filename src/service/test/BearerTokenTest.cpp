#include "service/BearerToken.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <exception>

#include "tests/support/TemporaryDirectory.h"

namespace kestrune::service {
namespace {

TEST(BearerToken, AcceptsItselfOnly) {
  const BearerToken token{platform::Secret("s3cret")};
  for (const char* value :
       {"Bearer s3cret", "bearer s3cret", "BEARER   s3cret", "Bearer s3cret "}) {
    EXPECT_TRUE(token.accepts(value)) << value;
  }
  for (const char* value :
       {"", "Bearer", "Bearer ", "s3cret", "Basic s3cret", "Bearer s3cre", "Bearer s3cret0",
        "Bearer S3cret", "Bearers3cret", "Bearer s3cret s3cret"}) {
    EXPECT_FALSE(token.accepts(value)) << value;
  }
}

class TokenFile : public ::testing::Test {
 protected:
  platform::Secret read(const std::string& contents, unsigned mode) {
    const auto file = directory.write("token", contents);
    EXPECT_EQ(::chmod(file.c_str(), mode), 0);
    return readTokenFile(file, warning);
  }
  support::TemporaryDirectory directory;
  std::string warning;
};

TEST_F(TokenFile, WhiteSpaceAroundTheTokenIsNoPartOfIt) {
  EXPECT_EQ(read(" \ts3cret\r\n\n", 0600).reveal(), "s3cret");
  EXPECT_EQ(warning, "");
}

TEST_F(TokenFile, ReadableByOthersIsWorthAWarningWithoutTheToken) {
  for (const unsigned mode : {0640U, 0604U, 0644U}) {
    warning.clear();
    read("s3cret", mode);
    EXPECT_NE(warning, "");
    EXPECT_EQ(warning.find("s3cret"), std::string::npos);
  }
}

TEST_F(TokenFile, WithoutOneTokenItIsRefused) {
  EXPECT_THROW(read("", 0600), std::runtime_error);
  EXPECT_THROW(read(" \n ", 0600), std::runtime_error);
  EXPECT_THROW(read("two tokens", 0600), std::runtime_error);
  EXPECT_THROW(read("two\ntokens", 0600), std::runtime_error);
  EXPECT_THROW(readTokenFile(directory.path() / "missing", warning), std::exception);
  EXPECT_THROW(readTokenFile(directory.path(), warning), std::exception);
}

}  // namespace
}  // namespace kestrune::service
