#include "host/basics/ItemName.h"

namespace kestrune::host {

const char* whyNotAFileName(std::string_view name) {
  if (name.empty()) return "it is empty";
  if (name == "." || name == "..") return "it names a folder's own place";
  if (name.find('/') != std::string_view::npos) return "it contains a slash";
  if (name.find('\0') != std::string_view::npos) return "it contains a NUL byte";
  if (name.size() > kLongestNameBytes) return "it is longer than 255 bytes";
  return nullptr;
}

}  // namespace kestrune::host
