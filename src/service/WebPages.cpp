#include "service/WebPages.h"

#include <fmt/format.h>

#include "service/Signing.h"
#include "service/WebAssets.h"
#include "service/WebText.h"

namespace kestrune::service {
namespace {

/// What a page without a preview needs: its own style, script, icons and forms.
constexpr std::string_view kPolicy =
    "default-src 'none'; style-src 'self'; script-src 'self'; img-src 'self'; form-action 'self'; "
    "base-uri 'none'; frame-ancestors 'none'";

std::string policyFor(PreviewKind kind) {
  std::string policy(kPolicy);
  if (kind == PreviewKind::audio || kind == PreviewKind::video) policy += "; media-src 'self'";
  if (kind == PreviewKind::pdf) policy += "; object-src 'self'; frame-src 'self'";
  return policy;
}

constexpr std::string_view kRootName = "All files";

std::string nameOf(const RemotePath& path) {
  return path.isRoot() ? std::string(kRootName) : visibleName(path.name());
}

std::string isolated(std::string_view name) { return "<bdi>" + escapedHtml(name) + "</bdi>"; }

}  // namespace

std::string WebPages::href(std::string_view target) const {
  return escapedHtml(base_ + std::string(target));
}

WebPage WebPages::page(unsigned status, const Body& body) const {
  std::string html = fmt::format(
      "<!doctype html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
      "<title>{} – Kestrune</title>\n{}"
      "<link rel=\"icon\" type=\"image/svg+xml\" href=\"{}\">\n"
      "<link rel=\"stylesheet\" href=\"{}\">\n<script src=\"{}\" "
      "defer></script>\n</head>\n<body>\n",
      escapedHtml(body.title), body.head, href(webAssetTarget("icon.svg")),
      href(webAssetTarget("page.css")), href(webAssetTarget("page.js")));
  html += fmt::format(
      "<a class=\"skip\" href=\"#main\">Skip to the contents</a>\n<header class=\"bar\">"
      "<a class=\"brand\" href=\"{}\">Kestrune</a>",
      href("/open/"));
  if (body.isSignedIn) {
    html += fmt::format(
        "<form method=\"post\" action=\"{}\"><button class=\"plain\" name=\"action\" "
        "value=\"sign-out\">Sign out</button></form>",
        href("/open/"));
  }
  html += fmt::format(
      "</header>\n<main id=\"main\" tabindex=\"-1\">\n{}</main>\n</body>\n</html>\n", body.main);
  return {status, std::move(html), policyFor(body.preview)};
}

std::string WebPages::crumbs(const WebRequest& request) const {
  const std::string query = queryOf(request.sorting, {});
  std::string items;
  RemotePath path = request.path;
  for (;; path = path.parent()) {
    const std::string name = path.isRoot() ? std::string(kRootName) : isolated(nameOf(path));
    const bool isHere = path == request.path;
    if (isHere) {
      items = fmt::format("<li><span aria-current=\"page\">{}</span></li>", name);
    } else {
      const std::string link = href(openTarget(path.text()) + query);
      items.insert(0, fmt::format("<li><a href=\"{}\">{}</a></li>", link, name));
    }
    if (path.isRoot()) break;
  }
  return fmt::format("<nav class=\"crumbs\" aria-label=\"Folders\"><ol>{}</ol></nav>\n", items);
}

std::string WebPages::preview(const WebRequest& request, const ShownFile& file) const {
  const std::string source = href(openTarget(request.path.text()) + "?contents");
  const std::string name = escapedHtml(nameOf(request.path));
  switch (file.preview.kind) {
    case PreviewKind::picture:
      return fmt::format("<img src=\"{}\" alt=\"{}\">", source, name);
    case PreviewKind::audio:
      return fmt::format(
          "<audio controls preload=\"metadata\" src=\"{}\" aria-label=\"{}\"></audio>", source,
          name);
    case PreviewKind::video:
      return fmt::format(
          "<video controls preload=\"metadata\" src=\"{}\" aria-label=\"{}\"></video>", source,
          name);
    case PreviewKind::pdf:
      return fmt::format(
          "<object data=\"{}\" type=\"application/pdf\" aria-label=\"{}\"><p class=\"note\">This "
          "browser does not show PDF files inside a page. You can download the file.</p></object>",
          source, name);
    case PreviewKind::text: {
      std::string html;
      if (file.attributes.sizeBytes > kShownTextBytes) {
        html = fmt::format(
            "<p class=\"note\">Only the beginning is shown: {} of {}. Download the file to see the "
            "rest.</p>",
            readableSize(kShownTextBytes), readableSize(file.attributes.sizeBytes));
      }
      // The line break is the one that HTML drops after <pre>.
      return html + fmt::format(
                        "<pre tabindex=\"0\" role=\"region\" aria-label=\"Text of {}\" "
                        "dir=\"auto\">\n{}</pre>",
                        name, escapedHtml(file.text));
    }
    case PreviewKind::none:
      break;
  }
  return file.attributes.sizeBytes == 0
             ? "<p class=\"note\">This file is empty.</p>"
             : "<p class=\"note\">Files of this kind are not shown here. You can download it.</p>";
}

WebPage WebPages::file(const WebRequest& request, const ShownFile& file) const {
  Body body;
  body.title = nameOf(request.path);
  body.preview = file.preview.kind;
  body.main = crumbs(request) + "<h1>" + isolated(body.title) + "</h1>\n";
  const std::uint64_t size = file.attributes.sizeBytes;
  body.main +=
      fmt::format("<dl class=\"facts\"><div><dt>Size</dt><dd>{}</dd></div>",
                  size < 1000 ? readableSize(size)
                              : fmt::format("{} ({} bytes)", readableSize(size), grouped(size)));
  body.main +=
      fmt::format("<div><dt>Changed</dt><dd>{}<span class=\"zone\"> UTC</span></dd></div></dl>\n",
                  timeElement(file.attributes.modified));
  body.main += fmt::format("<p><a class=\"button\" href=\"{}\">Download</a></p>\n",
                           href(openTarget(request.path.text()) + "?download"));
  body.main += "<div class=\"preview\">" + preview(request, file) + "</div>\n";
  return page(200, body);
}

WebPage WebPages::signIn(const WebRequest& request, SignInTrouble trouble) const {
  Body body;
  body.title = "Sign in";
  body.isSignedIn = false;
  body.main = "<div class=\"sign-in\">\n<h1>Sign in</h1>\n";
  if (trouble == SignInTrouble::wrongToken) {
    body.main +=
        "<p id=\"trouble\" class=\"alarm\" role=\"alert\">That is not this store's token.</p>\n";
  } else if (trouble == SignInTrouble::tooOften) {
    body.main +=
        "<p id=\"trouble\" class=\"alarm\" role=\"alert\">Too many wrong tokens came from your "
        "network. Wait a minute, then try again.</p>\n";
  }
  // Password managers look for a name beside the password.
  body.main += fmt::format(
      "<p class=\"note\" id=\"about\">These files are private. Enter the store's token, which its "
      "administrator gave you.</p>\n"
      "<form method=\"post\" action=\"{}\"><input type=\"hidden\" name=\"action\" "
      "value=\"sign-in\">"
      "<input class=\"hidden\" type=\"text\" name=\"name\" value=\"store\" "
      "autocomplete=\"username\" "
      "tabindex=\"-1\" aria-hidden=\"true\" readonly>"
      "<label for=\"token\">Token</label>"
      "<input id=\"token\" name=\"token\" type=\"password\" autocomplete=\"current-password\" "
      "required autofocus spellcheck=\"false\" autocapitalize=\"none\" aria-describedby=\"{}\"{}>"
      "<button>Sign in</button></form>\n</div>\n",
      href(request.target()), trouble == SignInTrouble::none ? "about" : "trouble about",
      trouble == SignInTrouble::wrongToken ? " aria-invalid=\"true\"" : "");
  constexpr unsigned kForbidden = 403;
  constexpr unsigned kTooMany = 429;
  return page(trouble == SignInTrouble::tooOften ? kTooMany : kForbidden, body);
}

WebPage WebPages::arrival(const WebRequest& request) const {
  const std::string target = request.target();
  const std::string next =
      href(target + (target.find('?') == std::string::npos ? "?arrived" : "&arrived"));
  Body body;
  body.title = "Opening";
  body.isSignedIn = false;
  body.head = fmt::format("<meta http-equiv=\"refresh\" content=\"0; url={}\">\n", next);
  body.main = fmt::format("<p><a href=\"{}\">Open the page</a></p>\n", next);
  return page(200, body);
}

WebPage WebPages::failure(unsigned status, std::string_view text) const {
  constexpr unsigned kNotFound = 404;
  Body body;
  body.title = status == kNotFound ? "Not found" : "This does not work";
  body.main = fmt::format("<h1>{}</h1>\n", body.title);
  if (status == kNotFound) {
    body.main +=
        "<p>There is nothing at this address. It may have been moved, renamed or deleted.</p>\n";
  } else {
    body.main += fmt::format("<p>The service answered: {} ({}).</p>\n", escapedHtml(text), status);
  }
  body.main += fmt::format("<p><a href=\"{}\">Go to all files</a></p>\n", href("/open/"));
  return page(status, body);
}

}  // namespace kestrune::service
