// The files that the web page itself is made of: style, script, pictures. They are part of the
// program, and served to everybody.
//
// Threads: pure functions after the start.
#pragma once

#include <string>
#include <string_view>

namespace kestrune::service {

struct WebAsset {
  std::string_view name;
  std::string_view contentType;
  std::string_view contents;
  /// 16 hexadecimal digits that change with the contents.
  std::string version;
};

/// Null if there is none of that name.
const WebAsset* webAsset(std::string_view name);

/// "/web/page.css?0123456789abcdef": another address for other contents, so that browsers need not
/// ask again.
/// REQUIRES: there is one of that name.
std::string webAssetTarget(std::string_view name);

/// What the build embeds.
extern const std::string_view kPageStyle;
extern const std::string_view kPageScript;
extern const std::string_view kIcon;
extern const std::string_view kFolderIcon;
extern const std::string_view kFileIcon;

}  // namespace kestrune::service
