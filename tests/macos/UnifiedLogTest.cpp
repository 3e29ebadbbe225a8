// The unified log gets each line with the format that the code wrote, as a constant.
#include "macos/UnifiedLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>
#include <vector>

#include "platform/StandIn.h"
#include "platform/log/Log.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::macos {
namespace {

using platform::LogLevel;
using platform::LogRecord;

/// The text of a C++ string literal's inside.
std::string unescaped(const std::string& literal) {
  std::string text;
  for (std::size_t i = 0; i < literal.size(); ++i) {
    if (literal[i] == '\\' && i + 3 < literal.size() && literal[i + 1] == 'x') {
      text += static_cast<char>(std::stoi(literal.substr(i + 2, 2), nullptr, 16));
      i += 3;
    } else {
      text += literal[i];
    }
  }
  return text;
}

/// How often `part` occurs in `text`.
std::size_t occurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
    ++count;
  return count;
}

/// Every format that a source of the extension hands to its log. Each call has a literal.
std::vector<std::string> formatsIn(const std::filesystem::path& source) {
  static const std::regex call(
      R"re([A-Za-z]+Log\(\)\.write\(\s*(?:platform::)?LogLevel::\w+,\s*((?:"[^"]*"\s*)+))re");
  static const std::regex piece(R"re("([^"]*)")re");
  const std::string text = support::contentsOf(source);
  std::vector<std::string> formats;
  for (auto at = std::sregex_iterator(text.begin(), text.end(), call); at != std::sregex_iterator();
       ++at) {
    const std::string literals = (*at)[1];
    std::string format;
    for (auto each = std::sregex_iterator(literals.begin(), literals.end(), piece);
         each != std::sregex_iterator(); ++each) {
      format += unescaped((*each)[1]);
    }
    formats.push_back(format);
  }
  EXPECT_EQ(formats.size(), occurrences(text, "Log().write(")) << source;
  return formats;
}

std::set<std::string> formatsOfTheExtension() {
  std::set<std::string> formats;
  for (const char* folder : {"api", "config", "extension", "namespace", "status", "transfer"}) {
    const auto root = std::filesystem::path(KESTRUNE_SOURCE_DIR) / "src" / folder;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
      if (entry.path().extension() != ".cpp" || entry.path().parent_path().filename() == "test")
        continue;
      for (auto& format : formatsIn(entry.path())) formats.insert(std::move(format));
    }
  }
  return formats;
}

/// An argument of the kind that each conversion of `format` wants.
std::vector<platform::LogArgument> argumentsFor(const std::string& format) {
  static const std::regex conversion(R"re(%(\{[a-z]+\})?(\.\*f|s|ld|lld|d))re");
  std::vector<platform::LogArgument> arguments;
  std::int64_t number = 1;
  for (auto at = std::sregex_iterator(format.begin(), format.end(), conversion);
       at != std::sregex_iterator(); ++at) {
    const std::string kind = (*at)[2];
    if (kind == "s") {
      arguments.emplace_back("text" + std::to_string(number));
    } else if (kind == ".*f") {
      arguments.emplace_back(std::int64_t{2});
      arguments.emplace_back(static_cast<double>(number) + 0.5);
    } else if ((*at)[1] == "{bool}") {
      arguments.emplace_back(true);
    } else {
      arguments.emplace_back(number);
    }
    ++number;
  }
  return arguments;
}

TEST(UnifiedLogTest, EveryFormatOfTheExtensionIsAConstant) {
  const auto formats = formatsOfTheExtension();
  EXPECT_GE(formats.size(), 23U) << "the search of the sources finds too little";
  const auto sink = unifiedLog();
  for (const auto& format : formats) {
    const LogRecord record{"subsystem", "category", LogLevel::standard, format,
                           argumentsFor(format)};
    sink->write(record);
    const auto line = standin::logLines().back();
    EXPECT_EQ(line.format, format) << "add it to src/macos/LogFormats.h";
    EXPECT_EQ(line.message, record.message());
  }
}

TEST(UnifiedLogTest, AnUnknownFormatIsWrittenWithItsPrivateTextsRedacted) {
  unifiedLog()->write({"s", "c", LogLevel::error, "new %{public}s and %s", {"shown", "secret"}});
  const auto line = standin::logLines().back();
  EXPECT_EQ(line.format, "%{public}s");
  EXPECT_EQ(line.message, "new shown and <private>");
}

TEST(UnifiedLogTest, SubsystemCategoryAndLevelAreThePlatforms) {
  const auto sink = unifiedLog();
  const std::pair<LogLevel, int> levels[] = {{LogLevel::debug, 0x02},
                                             {LogLevel::info, 0x01},
                                             {LogLevel::standard, 0x00},
                                             {LogLevel::error, 0x10},
                                             {LogLevel::fault, 0x11}};
  for (const auto& [level, type] : levels) {
    sink->write({"com.example", "cat", level, "done destPath=%{public}s", {"/a"}});
    const auto line = standin::logLines().back();
    EXPECT_EQ(line.subsystem, "com.example");
    EXPECT_EQ(line.category, "cat");
    EXPECT_EQ(line.type, type);
    EXPECT_EQ(line.message, "done destPath=/a");
  }
}

TEST(UnifiedLogTest, ArgumentsThatDoNotFitTheFormatAreHarmless) {
  const auto sink = unifiedLog();
  sink->write({"s", "c", LogLevel::standard, "done destPath=%{public}s", {}});
  EXPECT_EQ(standin::logLines().back().message, "done destPath=");
  sink->write({"s", "c", LogLevel::standard, "done destPath=%{public}s", {std::int64_t{3}}});
  EXPECT_EQ(standin::logLines().back().message, "done destPath=");
}

}  // namespace
}  // namespace kestrune::macos
