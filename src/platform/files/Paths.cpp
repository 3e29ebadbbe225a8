#include "platform/files/Paths.h"

namespace kestrune::platform {

namespace {

std::string_view withoutTrailingSlashes(std::string_view path) {
  return path.substr(0, path.find_last_not_of('/') + 1);  // npos + 1 is 0
}

/// The last component of `path`; empty for a path of slashes alone.
std::string_view lastName(std::string_view path) {
  path = withoutTrailingSlashes(path);
  return path.substr(path.find_last_of('/') + 1);
}

}  // namespace

std::string lastPathComponent(std::string_view path) {
  const std::string_view name = lastName(path);
  if (name.empty() && !path.empty()) return "/";
  return std::string(name);
}

std::string deletingLastPathComponent(std::string_view path) {
  const std::string_view kept = withoutTrailingSlashes(path);
  const std::string_view folder = kept.substr(0, kept.find_last_of('/') + 1);
  const std::string_view result = withoutTrailingSlashes(folder);
  if (result.empty() && path.starts_with('/')) return "/";
  return std::string(result);
}

std::string pathExtension(std::string_view path) {
  const std::string_view name = lastName(path);
  const std::size_t dot = name.find_last_of('.');
  if (dot == std::string_view::npos || dot == 0) return {};
  return std::string(name.substr(dot + 1));
}

}  // namespace kestrune::platform
