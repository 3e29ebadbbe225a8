#include <fmt/format.h>

#include "service/WebPages.h"
#include "service/WebText.h"

namespace kestrune::service {
namespace {

struct Column {
  SortBy by;
  std::string_view title;
  std::string_view cssClass;
  /// How it is sorted when it is chosen first: the largest and the newest are looked for most.
  bool descendsFirst;
};

constexpr Column columnOf(SortBy by) {
  switch (by) {
    case SortBy::size:
      return {by, "Size", "size", true};
    case SortBy::time:
      return {by, "Changed", "time", true};
    case SortBy::name:
      break;
  }
  return {SortBy::name, "Name", "name", false};
}

EntryWindow windowAt(EntryWindow::From from, const FolderEntry& entry, SortBy by) {
  return {from, EntryPlace::of(entry, by)};
}

}  // namespace

std::string WebPages::columnHead(const WebRequest& request, SortBy by) const {
  const Column column = columnOf(by);
  const bool isCurrent = request.sorting.by == by;
  const bool isDescending = isCurrent && request.sorting.isDescending;
  const Sorting next{by, isCurrent ? !isDescending : column.descendsFirst};
  // The page is in UTC until its script says otherwise.
  const std::string_view zone = by == SortBy::time ? "<span class=\"zone\"> (UTC)</span>" : "";
  const std::string_view sorted = !isCurrent     ? ""
                                  : isDescending ? " aria-sort=\"descending\""
                                                 : " aria-sort=\"ascending\"";
  const std::string_view arrow = !isCurrent ? "" : isDescending ? "▼" : "▲";
  return fmt::format(
      "<th role=\"columnheader\" scope=\"col\" class=\"{}\"{}><a href=\"{}\">{}{}<span "
      "aria-hidden=\"true\">{}</span></a>"
      "</th>",
      column.cssClass, sorted, href(openTarget(request.path.text()) + queryOf(next, {})),
      column.title, zone, arrow);
}

std::string WebPages::row(const WebRequest& request, const FolderEntry& entry) const {
  // Not a RemotePath: an item may lie deeper than the service serves.
  const std::string parent = request.path.isRoot() ? "" : request.path.text();
  const std::string target = openTarget(parent + "/" + entry.name) + queryOf(request.sorting, {});
  return fmt::format(
      "<tr role=\"row\"><th role=\"rowheader\" scope=\"row\" class=\"name{}\"><a "
      "href=\"{}\"><span>{}<bdi>{}</bdi></span></a></th>"
      "<td role=\"cell\" class=\"size\">{}</td><td role=\"cell\" class=\"time\">{}</td></tr>\n",
      entry.isFolder ? " folder" : "", href(target),
      entry.isFolder ? "<span class=\"hidden\">Folder </span>" : "",
      escapedHtml(visibleName(entry.name)),
      entry.isFolder ? std::string() : readableSize(entry.sizeBytes), timeElement(entry.modified));
}

// The roles say what the elements are anyway, but some browsers forget it of a table that is laid out
// as something else, which the style does on phones.
std::string WebPages::table(const WebRequest& request, const EntryPage::Result& page) const {
  std::string html =
      "<table role=\"table\">\n<caption class=\"hidden\">Folders and files</caption>\n"
      "<thead role=\"rowgroup\"><tr role=\"row\">";
  for (const SortBy by : {SortBy::name, SortBy::size, SortBy::time})
    html += columnHead(request, by);
  html += "</tr></thead>\n<tbody role=\"rowgroup\">\n";
  for (const FolderEntry& entry : page.entries) html += row(request, entry);
  return html + "</tbody>\n</table>\n";
}

std::string WebPages::pager(const WebRequest& request, const EntryPage::Result& page) const {
  if (page.entries.size() == page.total) return {};
  const SortBy by = request.sorting.by;
  const std::uint64_t end = page.before + page.entries.size();
  std::string html = "<nav class=\"pages\" aria-label=\"Pages\">";
  const auto link = [&](const EntryWindow& window, std::string_view text) {
    html +=
        fmt::format("<a href=\"{}\">{}</a>",
                    href(openTarget(request.path.text()) + queryOf(request.sorting, window)), text);
  };
  if (page.before > 0 || page.entries.empty()) link({}, "First");
  if (page.before > 0 && !page.entries.empty())
    link(windowAt(EntryWindow::From::before, page.entries.front(), by), "Previous");
  if (!page.entries.empty()) {
    html += fmt::format("<span>{} to {} of {}</span>", grouped(page.before + 1), grouped(end),
                        grouped(page.total));
  }
  if (end < page.total && !page.entries.empty())
    link(windowAt(EntryWindow::From::after, page.entries.back(), by), "Next");
  if (end < page.total) link({EntryWindow::From::last, {}}, "Last");
  return html + "</nav>\n";
}

WebPage WebPages::folder(const WebRequest& request, const EntryPage::Result& page) const {
  Body body;
  body.title = request.path.isRoot() ? "All files" : visibleName(request.path.name());
  body.main = request.path.isRoot() ? std::string() : crumbs(request);
  body.main += "<h1><bdi>" + escapedHtml(body.title) + "</bdi></h1>\n";
  if (page.total == 0) {
    body.main += "<p class=\"note\">This folder is empty.</p>\n";
  } else {
    const std::string pages = pager(request, page);
    body.main += pages + table(request, page) + pages;
  }
  if (page.refusedNames > 0) {
    body.main += fmt::format(
        "<p class=\"note\">Not shown: {} with names that this service does not serve.</p>\n",
        page.refusedNames == 1 ? "one item" : grouped(page.refusedNames) + " items");
  }
  return this->page(200, body);
}

}  // namespace kestrune::service
