#include "companion/configuration/InvalidateCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "companion/configuration/CommandError.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune {
namespace {

using support::contentsOf;
using testing::HasSubstr;

TEST(Invalidate, WritesAnotherTokenEachTime) {
  const support::TemporaryDirectory home;
  const support::ScopedEnvironment dataHome("XDG_DATA_HOME", home.path() / "data");
  const auto file = home.path() / "data/Kestrune/invalidation-token.txt";
  EXPECT_THAT(writeInvalidationToken(), HasSubstr(file.string()));
  const std::string first = contentsOf(file);
  EXPECT_EQ(first.size(), 37U);  // a UUID and a line feed
  writeInvalidationToken();
  EXPECT_NE(contentsOf(file), first);
}

TEST(Invalidate, SaysWhereItCouldNotWrite) {
  const support::TemporaryDirectory home;
  const auto blocked = home.write("file", "");
  const support::ScopedEnvironment dataHome("XDG_DATA_HOME", blocked);
  try {
    writeInvalidationToken();
    FAIL() << "no error";
  } catch (const CommandError& error) {
    EXPECT_THAT(error.what(), HasSubstr((blocked / "Kestrune").string()));
  }
}

}  // namespace
}  // namespace kestrune
