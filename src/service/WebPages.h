// The web page's HTML. Every text that is not the program's own is escaped here, and nothing in it
// needs the style or the script to be usable.
//
// Threads: const operations, callable from any thread; no input or output.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "service/EntryPage.h"
#include "service/FilePreview.h"
#include "service/WebRequest.h"

namespace kestrune::service {

struct WebPage {
  unsigned status = 200;
  std::string html;
  /// The Content-Security-Policy that it needs and no more.
  std::string policy;
};

/// Why the form to sign in is shown again.
enum class SignInTrouble { none, wrongToken, tooOften };

/// A file as its page shows it.
struct ShownFile {
  ItemAttributes attributes;
  FilePreview preview;
  /// Of a text, the part that is shown.
  std::string text;
};

class WebPages {
 public:
  /// `base` is the path of the address that clients reach the service by, without a slash at its
  /// end: empty but where a proxy serves it below one.
  explicit WebPages(std::string base) : base_(std::move(base)) {}

  const std::string& base() const { return base_; }

  WebPage folder(const WebRequest& request, const EntryPage::Result& page) const;
  WebPage file(const WebRequest& request, const ShownFile& file) const;
  /// Its form posts to the page that was asked for, so that is where one is afterwards.
  WebPage signIn(const WebRequest& request, SignInTrouble trouble) const;
  /// Goes on to the same page by itself.
  WebPage arrival(const WebRequest& request) const;
  WebPage failure(unsigned status, std::string_view text) const;

 private:
  struct Body {
    std::string title;
    std::string main;
    std::string head = {};
    bool isSignedIn = true;
    PreviewKind preview = PreviewKind::none;
  };
  WebPage page(unsigned status, const Body& body) const;
  std::string href(std::string_view target) const;
  std::string crumbs(const WebRequest& request) const;
  std::string columnHead(const WebRequest& request, SortBy by) const;
  std::string table(const WebRequest& request, const EntryPage::Result& page) const;
  std::string row(const WebRequest& request, const FolderEntry& entry) const;
  std::string pager(const WebRequest& request, const EntryPage::Result& page) const;
  std::string preview(const WebRequest& request, const ShownFile& file) const;

  const std::string base_;
};

}  // namespace kestrune::service
