#include "extension/ShareLinks.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/file_provider/NSFileProviderTypes.h"

namespace kestrune {
namespace {

constexpr const char* kRoot = platform::NSFileProviderRootContainerItemIdentifier;

TEST(ShareLinksTest, TheBaseLosesOneApiAndThenOneSlash) {
  const struct {
    const char* apiURL;
    const char* base;
  } cases[] = {
      {"https://h", "https://h"},
      {"https://h/", "https://h"},
      {"https://h//", "https://h/"},
      {"https://h/api", "https://h"},
      {"https://h/api/", "https://h/api"},
      {"https://h/api//", "https://h/api/"},
      {"https://h//api", "https://h"},
      {"https://h///api", "https://h/"},
      {"https://h/api/api", "https://h/api"},
      {"https://h/api/api/", "https://h/api/api"},
      {"https://h/v1/api", "https://h/v1"},
      {"https://h/API", "https://h/API"},
      {"https://h/xapi", "https://h/xapi"},
      {"https://h/apis", "https://h/apis"},
      {"https://api", "https:"},
      {"/api", ""},
      {"//api", ""},
      {"api", "api"},
      {"/", ""},
      {"", ""},
  };
  for (const auto& [apiURL, base] : cases) EXPECT_EQ(shareLinkBase(apiURL), base) << apiURL;
}

TEST(ShareLinksTest, ALinkIsTheRouteAndTheEncodedComponents) {
  const struct {
    const char* identifier;
    const char* link;
  } cases[] = {
      {"/a b/c.txt", "B/open/a%20b/c.txt"},
      {"/a", "B/open/a"},
      {"a", "B/open/a"},
      {"/a/", "B/open/a"},
      {"//a///b//", "B/open/a/b"},
      {"//", "B/open/"},
      {"/a%2Fb", "B/open/a%252Fb"},
      {"/a?b#c[d]", "B/open/a%3Fb%23c%5Bd%5D"},
      {"/a&b=c+d:e@f;g,h!i$j'k(l)m*n~o", "B/open/a&b=c+d:e@f;g,h!i$j'k(l)m*n~o"},
      {"/資料/é", "B/open/%E8%B3%87%E6%96%99/%C3%A9"},
      {"/a\nb", "B/open/a%0Ab"},
      {"/./..", "B/open/./.."},
      {"/a b/\xFF c", "B/open/a%20b/\xFF c"},
      {platform::NSFileProviderTrashContainerItemIdentifier,
       "B/open/NSFileProviderTrashContainerItemIdentifier"},
      {kRoot, ""},
      {"/", ""},
      {"", ""},
  };
  for (const auto& [identifier, link] : cases) EXPECT_EQ(shareLinks("B", {identifier}), link);
}

TEST(ShareLinksTest, LinksStandOneALineInTheirOrderWithoutTheRoot) {
  const struct {
    std::vector<std::string> identifiers;
    const char* text;
  } cases[] = {
      {{}, ""},
      {{kRoot, "/", ""}, ""},
      {{"/b", "/a"}, "/open/b\n/open/a"},
      {{"/a", "/a"}, "/open/a\n/open/a"},
      {{kRoot, "/a", "/", "/b", ""}, "/open/a\n/open/b"},
  };
  for (const auto& [identifiers, text] : cases) EXPECT_EQ(shareLinks("", identifiers), text);
}

}  // namespace
}  // namespace kestrune
