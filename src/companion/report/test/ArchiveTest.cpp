#include "companion/report/Archive.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tests/support/TemporaryDirectory.h"

namespace kestrune {
namespace {

using support::contentsOf;

TEST(Archive, IsWhatTarReads) {
  const support::TemporaryDirectory directory;
  const std::string large(100'000, 'x');
  const auto file =
      directory.write("a.tar.gz", tarGz({{"one", "first\n"},
                                         {"folder/two", large},
                                         {"empty", ""},
                                         {"block", std::string(512, 'b')}},
                                        platform::Date(std::chrono::seconds(1'700'000'000))));
  const std::string at = directory.path().string();
  EXPECT_LT(contentsOf(file).size(), 2000U);
  ASSERT_EQ(
      std::system(
          ("cd '" + at + "' && tar xzf a.tar.gz && TZ=UTC tar tvzf a.tar.gz >list 2>&1").c_str()),
      0);
  EXPECT_EQ(contentsOf(directory.path() / "one"), "first\n");
  EXPECT_EQ(contentsOf(directory.path() / "folder/two"), large);
  EXPECT_EQ(contentsOf(directory.path() / "empty"), "");
  EXPECT_EQ(contentsOf(directory.path() / "block"), std::string(512, 'b'));
  const std::string list = contentsOf(directory.path() / "list");
  EXPECT_EQ(list.substr(0, list.find('\n')), "-rw------- 0/0               6 2023-11-14 22:13 one");
}

TEST(Archive, NamesThatDoNotFitAreABug) {
  EXPECT_THROW(tarGz({{std::string(101, 'n'), ""}}, {}), std::invalid_argument);
}

}  // namespace
}  // namespace kestrune
