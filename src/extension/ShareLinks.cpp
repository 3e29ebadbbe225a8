#include "extension/ShareLinks.h"

#include <string_view>

#include "namespace/FileProviderItem.h"
#include "platform/net/URL.h"

namespace kestrune {

namespace {

constexpr std::string_view kRoute = "/open/";

void dropEnding(std::string& text, std::string_view ending) {
  if (text.ends_with(ending)) text.resize(text.size() - ending.size());
}

// The path's components, percent-encoded and joined by single slashes. A component that is no valid
// text stays as it is.
std::string encodedComponents(std::string_view path) {
  std::string joined;
  while (!path.empty()) {
    const auto slash = path.find('/');
    const std::string component(path.substr(0, slash));
    path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
    if (component.empty()) continue;
    if (!joined.empty()) joined += '/';
    joined += platform::percentEncodedForURLPath(component).value_or(component);
  }
  return joined;
}

}  // namespace

std::string shareLinkBase(std::string apiURL) {
  dropEnding(apiURL, "/api");
  dropEnding(apiURL, "/");
  return apiURL;
}

std::string shareLinks(const std::string& base,
                       const std::vector<platform::NSFileProviderItemIdentifier>& items) {
  std::string links;
  bool isFirst = true;
  for (const auto& identifier : items) {
    const std::string path = FileProviderItem::path(identifier);
    if (path.empty() || path == "/") continue;
    if (!isFirst) links += '\n';
    isFirst = false;
    links.append(base).append(kRoute).append(encodedComponents(path));
  }
  return links;
}

}  // namespace kestrune
