#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Comparison.h"
#include "FoundationAnswers.h"
#include "Generator.h"
#include "platform/files/Paths.h"

namespace kestrune::second_opinion {
namespace {

constexpr int kGeneratedPaths = 6000;
constexpr int kPathsAPool = 500;

const std::vector<std::string_view> kPieces = {
    "/", "/",       "/",    "//",         ".",      "..", "~",  "a",      "b.c", " ",
    "é", "e\u0301", "資料", "\U0001F600", "\u202E", "\\", "C:", "\u0301", "%2F", "\uFF0F"};

const std::vector<std::string> kPickedPaths = {"",
                                               "/",
                                               "//",
                                               "///",
                                               ".",
                                               "..",
                                               "...",
                                               "....",
                                               "/.",
                                               "/..",
                                               "/...",
                                               "./",
                                               "../",
                                               "a/.",
                                               "a/..",
                                               "~",
                                               "~/",
                                               "~a",
                                               "~a/",
                                               "~a/b",
                                               "~/b",
                                               "/~",
                                               "/~a/b",
                                               "a/~",
                                               ".a",
                                               "/.a",
                                               ".a.b",
                                               "a.",
                                               "a..",
                                               "a..b",
                                               "..a",
                                               "...a",
                                               "/a/",
                                               "/a//",
                                               "//a",
                                               "//a/b",
                                               "///a",
                                               "//a//b//",
                                               "a//b",
                                               "a///b/c",
                                               "a b.c d",
                                               " ",
                                               "/ /",
                                               ". ",
                                               ". a",
                                               "a. ",
                                               "a.b/",
                                               "a.b//",
                                               "a.b/c",
                                               "/a.b/",
                                               "C:/a",
                                               "C:",
                                               "\\a\\b.c",
                                               "\\\\a\\b",
                                               "a\\b/c",
                                               "a.b\\c",
                                               "é.ü",
                                               "/é/",
                                               "e\u0301",
                                               ".\u0301",
                                               "a.\u0301b",
                                               "/\u0301",
                                               "a/\u0301b",
                                               "a.é/",
                                               "資料.資料",
                                               "\U0001F600.\U0001F600",
                                               "@a/b",
                                               "~@a",
                                               "//@a",
                                               "//host/share/",
                                               "//host/share/x",
                                               "~a.b",
                                               "~a.b/",
                                               "~.b",
                                               "~a.b/c",
                                               "~a.b/c.d",
                                               "a.\u0301b.c"};

std::vector<std::string> handPickedPaths() {
  std::vector<std::string> paths = kPickedPaths;
  const std::string longName(5000, 'n');
  paths.push_back(longName);
  paths.push_back("/" + longName + "/" + longName + "." + longName + "//");
  std::string deep;
  for (int i = 0; i < 1000; ++i) deep += "/d.e";
  paths.push_back(deep);
  return paths;
}

bool contains(const std::string& text, std::string_view part) {
  return text.find(part) != std::string::npos;
}

/// `path` with each run of slashes as one.
std::string withSingleSlashes(const std::string& path) {
  std::string result;
  for (const char c : path) {
    if (c != '/' || !result.ends_with('/')) result += c;
  }
  return result;
}

using Rule = std::string (*)(std::string_view);
using FoundationRule = std::string (*)(const std::string&);

void comparePaths(Rule ours, FoundationRule theirs, std::vector<AcceptedDifference> accepted) {
  const std::uint64_t seed = seedFromEnvironment();
  Generator generator(seed);
  Comparison comparison(seed, std::move(accepted));
  std::vector<std::string> paths = handPickedPaths();
  for (int i = 0; i < kGeneratedPaths; ++i) paths.push_back(generator.joined(kPieces, 12));
  for (std::size_t done = 0; done < paths.size();) {
    const ReleasePool pool;
    for (int i = 0; i < kPathsAPool && done < paths.size(); ++i, ++done)
      comparison.compare(paths[done], ours(paths[done]), theirs(paths[done]));
  }
  comparison.finish();
}

TEST(PathsAgainstFoundationTest, LastPathComponent) {
  comparePaths(platform::lastPathComponent, foundationLastPathComponent, {});
}

TEST(PathsAgainstFoundationTest, DeletingLastPathComponent) {
  comparePaths(platform::deletingLastPathComponent, foundationDeletingLastPathComponent,
               {{"only the last component and the slashes before it are documented to go: what "
                 "stays stays as written, where GNUstep also merges the slashes inside it",
                 [](const Difference& difference) {
                   return contains(*difference.ours, "//") &&
                          *difference.theirs == withSingleSlashes(*difference.ours);
                 }},
                {"the separator before the last component is documented to go with it, where "
                 "GNUstep leaves it after a home folder's name",
                 [](const Difference& difference) {
                   return difference.ours->starts_with('~') && !contains(*difference.ours, "/") &&
                          *difference.theirs == *difference.ours + "/";
                 }}});
}

TEST(PathsAgainstFoundationTest, PathExtension) {
  comparePaths(
      platform::pathExtension, foundationPathExtension,
      {{"a separator is a dot, whatever follows it: names of files are sequences of code units, "
        "where GNUstep takes a dot with a combining mark for another character",
        [](const Difference& difference) {
          return contains(difference.input, ".\u0301") && difference.ours->starts_with("\u0301");
        }},
       {"what follows the last dot is documented to be the extension, where GNUstep gives none to "
        "a lone name that begins with a tilde",
        [](const Difference& difference) {
          return difference.input.starts_with('~') && difference.theirs->empty() &&
                 difference.input.substr(0, difference.input.find_last_not_of('/') + 1).find('/') ==
                     std::string::npos;
        }}});
}

}  // namespace
}  // namespace kestrune::second_opinion
