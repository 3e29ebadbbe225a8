#include "companion/console/ConsoleLineReader.h"

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

namespace kestrune {
namespace {

struct Case {
  std::string input;
  std::vector<std::string> lines;  // a cut one ends with "…"
};

TEST(ConsoleLineReader, SplitsAtLineFeedsAndCutsAtTheLimit) {
  const std::vector<Case> table = {
      {"", {}},
      {"\n", {""}},
      {"a", {"a"}},
      {"a\n", {"a"}},
      {"a\n\nb", {"a", "", "b"}},
      {"a\r\n", {"a\r"}},
      {std::string("a\0b\n", 4), {std::string("a\0b", 3)}},
      {"12345\n1", {"12345", "1"}},
      {"123456\n1", {"12345…", "1"}},
      {"1234567890", {"12345…"}},
      {"\xFF\n", {"\xFF"}},
  };
  for (const auto& [input, expected] : table) {
    std::istringstream stream(input);
    ConsoleLineReader reader(stream, 5);
    std::vector<std::string> lines;
    while (const auto line = reader.next()) lines.push_back(line->text + (line->isCut ? "…" : ""));
    EXPECT_EQ(lines, expected) << input;
  }
}

}  // namespace
}  // namespace kestrune
