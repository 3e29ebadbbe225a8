#include "companion/doctor/Findings.h"

#include <gtest/gtest.h>

namespace kestrune {
namespace {

TEST(Findings, AreOneLineEachWithTheAdviceBelow) {
  const Findings findings{fine("disk", "There is room."),
                          warning("clock", "It is \x1b[31mlate.", "Set it."),
                          problem("service", "It is gone.", {})};
  EXPECT_EQ(findingsText(findings, Escaping::forTerminal),
            "ok       disk          There is room.\n"
            "warning  clock         It is \\x1b[31mlate.\n"
            "                       -> Set it.\n"
            "problem  service       It is gone.\n"
            "1 problem, 1 warning.\n");
  EXPECT_TRUE(hasProblem(findings));
  EXPECT_FALSE(hasProblem({warning("a", "b", "c")}));
  EXPECT_EQ(findingsText({fine("a", "b")}, Escaping::none),
            "ok       a             b\nAll is well.\n");
}

TEST(Findings, AsJsonTheyHaveKeysThatStay) {
  const auto json = findingsJson({fine("a", "b\xff"), problem("c", "d", "e")});
  EXPECT_EQ(json, (platform::Json{
                      {"problems", 1},
                      {"warnings", 0},
                      {"findings",
                       {{{"level", "ok"}, {"about", "a"}, {"text", "b\\xff"}},
                        {{"level", "problem"}, {"about", "c"}, {"text", "d"}, {"advice", "e"}}}}}));
}

}  // namespace
}  // namespace kestrune
