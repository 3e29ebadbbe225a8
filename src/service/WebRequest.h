// What a target below "/open" asks for.
//
//     /open/Documents/a%20b.txt?contents
//     /open/Documents?sort=size&order=desc&after=f.1234.a.txt
//
// Threads: pure functions.
#pragma once

#include <string>
#include <string_view>

#include "service/EntryPage.h"
#include "service/RemotePath.h"

namespace kestrune::service {

struct WebRequest {
  enum class View {
    page,
    /// The bytes of a file that a page shows.
    contents,
    /// The bytes of a file to be kept.
    download,
  };

  /// The root if the target's path is not acceptable.
  RemotePath path = RemotePath::parse("/");
  bool hasAcceptablePath = true;
  View view = View::page;
  Sorting sorting;
  EntryWindow window;
  /// Whether it came from the page that brings people here from other sites.
  bool hasArrived = false;
  /// Whether the path ended with a slash that its canonical form has not.
  bool hasTrailingSlash = false;

  /// REQUIRES: `target` begins with "/open/". Unknown parts of the query are ignored, as are
  /// malformed ones.
  static WebRequest parse(std::string_view target);

  /// The canonical target of the page, without `hasArrived`.
  std::string target() const;
};

/// "/open/" and the encoded path.
/// REQUIRES: `path` begins with a slash.
std::string openTarget(std::string_view path);

/// The query for a page of a folder with its question mark; empty for the first page by name.
std::string queryOf(Sorting sorting, const EntryWindow& window);

}  // namespace kestrune::service
