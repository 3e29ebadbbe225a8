#include "service/WebRequest.h"

#include <utility>

#include "service/ServiceError.h"
#include "service/Signing.h"

namespace kestrune::service {
namespace {

constexpr std::string_view kOpen = "/open/";

void readPath(std::string_view encoded, WebRequest& request) {
  try {
    request.path = RemotePath::parse("/" + percentDecode(encoded));
  } catch (const ServiceError&) {
    request.hasAcceptablePath = false;
  }
}

void readWindow(EntryWindow::From from, std::string_view value, WebRequest& request) {
  try {
    auto place = EntryPlace::parse(percentDecode(value));
    if (place) request.window = {from, std::move(*place)};
  } catch (const ServiceError&) {
    return;
  }
}

void readParameter(std::string_view name, std::string_view value, WebRequest& request) {
  if (name == "contents") request.view = WebRequest::View::contents;
  if (name == "download") request.view = WebRequest::View::download;
  if (name == "arrived") request.hasArrived = true;
  if (name == "sort" && value == "size") request.sorting.by = SortBy::size;
  if (name == "sort" && value == "time") request.sorting.by = SortBy::time;
  if (name == "order") request.sorting.isDescending = value == "desc";
  if (name == "last") request.window.from = EntryWindow::From::last;
  if (name == "after") readWindow(EntryWindow::From::after, value, request);
  if (name == "before") readWindow(EntryWindow::From::before, value, request);
}

std::string_view nameOf(SortBy by) {
  switch (by) {
    case SortBy::name:
      return "name";
    case SortBy::size:
      return "size";
    case SortBy::time:
      return "time";
  }
  return "";
}

}  // namespace

WebRequest WebRequest::parse(std::string_view target) {
  WebRequest request;
  const std::size_t question = std::min(target.find('?'), target.size());
  std::string_view encoded = target.substr(kOpen.size(), question - kOpen.size());
  if (encoded.ends_with('/')) {
    request.hasTrailingSlash = true;
    encoded.remove_suffix(1);
  }
  readPath(encoded, request);
  std::string_view query = target.substr(std::min(question + 1, target.size()));
  while (!query.empty()) {
    const std::size_t end = std::min(query.find('&'), query.size());
    const std::string_view pair = query.substr(0, end);
    query.remove_prefix(std::min(end + 1, query.size()));
    const std::size_t equals = std::min(pair.find('='), pair.size());
    readParameter(pair.substr(0, equals), pair.substr(std::min(equals + 1, pair.size())), request);
  }
  return request;
}

std::string WebRequest::target() const {
  return openTarget(path.text()) + queryOf(sorting, window);
}

std::string openTarget(std::string_view path) {
  return std::string(kOpen) + percentEncodePath(path.substr(1));
}

std::string queryOf(Sorting sorting, const EntryWindow& window) {
  std::string query;
  const auto add = [&query](std::string_view part) {
    query.append(query.empty() ? "?" : "&").append(part);
  };
  if (sorting != Sorting{}) {
    add("sort=");
    query += nameOf(sorting.by);
    if (sorting.isDescending) add("order=desc");
  }
  switch (window.from) {
    case EntryWindow::From::first:
      break;
    case EntryWindow::From::after:
      add("after=" + percentEncodePath(window.place.text()));
      break;
    case EntryWindow::From::before:
      add("before=" + percentEncodePath(window.place.text()));
      break;
    case EntryWindow::From::last:
      add("last");
      break;
  }
  return query;
}

}  // namespace kestrune::service
