#include "host/out/ConflictName.h"

#include <gtest/gtest.h>

#include <set>

#include "platform/values/UTF8.h"

namespace kestrune::host {
namespace {

// 2026-11-22 04:15:59 UTC
constexpr platform::Date kTime{std::chrono::seconds(1'795'320'959)};

std::string nameOf(std::string_view name, std::string_view machine = "kestrel") {
  return conflictName(name, machine, kTime, [](const std::string&) { return false; });
}

TEST(ConflictNameTest, SaysWhereAndWhenBeforeTheExtension) {
  EXPECT_EQ(nameOf("report.pdf"), "report (conflict kestrel 2026-11-22 04.15).pdf");
  EXPECT_EQ(nameOf("a.tar.gz"), "a.tar (conflict kestrel 2026-11-22 04.15).gz");
  EXPECT_EQ(nameOf("Makefile"), "Makefile (conflict kestrel 2026-11-22 04.15)");
  EXPECT_EQ(nameOf(".profile"), ".profile (conflict kestrel 2026-11-22 04.15)");
  EXPECT_EQ(nameOf("a."), "a. (conflict kestrel 2026-11-22 04.15)");
}

TEST(ConflictNameTest, IsCountedUntilItIsFree) {
  std::set<std::string> taken = {"report.pdf"};
  for (const char* expected : {"report (conflict kestrel 2026-11-22 04.15).pdf",
                               "report (conflict kestrel 2026-11-22 04.15 2).pdf",
                               "report (conflict kestrel 2026-11-22 04.15 3).pdf"}) {
    const auto isTaken = [&](const std::string& name) { return taken.contains(name); };
    const std::string name = conflictName("report.pdf", "kestrel", kTime, isTaken);
    EXPECT_EQ(name, expected);
    taken.insert(name);
  }
}

TEST(ConflictNameTest, StaysWithinWhatANameMayHave) {
  const std::string umlauts = [] {
    std::string text;
    for (int i = 0; i < 125; ++i) text += "\u00E4";
    return text;
  }();
  for (const std::string& name : {std::string(255, 'x'), std::string(251, 'x') + ".pdf",
                                  umlauts + ".txt", "x" + umlauts, "a." + std::string(250, 'e')}) {
    const std::string result = nameOf(name);
    EXPECT_LE(result.size(), 255U);
    EXPECT_GT(result.size(), 250U - 40U);
    EXPECT_TRUE(platform::isValidUTF8(result));
    EXPECT_NE(result, name);
  }
  EXPECT_TRUE(nameOf(std::string(251, 'x') + ".pdf").ends_with(" 04.15).pdf"));
}

TEST(ConflictNameTest, MachinesNamesAreCleaned) {
  EXPECT_EQ(nameOf("a", "my/host\n(2)"), "a (conflict myhost2 2026-11-22 04.15)");
  EXPECT_EQ(nameOf("a", ""), "a (conflict 2026-11-22 04.15)");
  EXPECT_EQ(nameOf("a", "\xFF"), "a (conflict 2026-11-22 04.15)");
  EXPECT_EQ(nameOf("a", std::string(100, 'h')),
            "a (conflict " + std::string(32, 'h') + " 2026-11-22 04.15)");
}

TEST(ConflictNameTest, IsKnownByItsForm) {
  for (const char* name : {"report.pdf", "a", ".hidden", "a (conflict x).txt"})
    EXPECT_TRUE(isConflictName(nameOf(name))) << nameOf(name);
  EXPECT_TRUE(isConflictName(nameOf("a", "")));
  EXPECT_TRUE(isConflictName("a (conflict kestrel 2026-11-22 04.15 2).txt"));
  for (const char* name : {"a", "a (conflict).txt", "a (conflict kestrel).txt", "2026-11-22 04.15",
                           "a (conflict 2026-11-22 04.15", "a (conflict 2026-11-22 04.15)b",
                           "a (conflict 2026-11-2x 04.15).txt", "a (conflict x2026-11-22 04.15)"})
    EXPECT_FALSE(isConflictName(name)) << name;
}

}  // namespace
}  // namespace kestrune::host
