#include "namespace/SystemJunk.h"

#include <algorithm>
#include <array>

namespace kestrune {

namespace {

constexpr std::array<std::string_view, 3> kNames = {".Trash", ".trash", ".DS_Store"};
constexpr std::array<std::string_view, 4> kPrefixes = {"._", ".fseventsd", ".Spotlight-",
                                                       ".DocumentRevisions"};

}  // namespace

bool isSystemJunk(std::string_view name) {
  return std::find(kNames.begin(), kNames.end(), name) != kNames.end() ||
         std::any_of(kPrefixes.begin(), kPrefixes.end(),
                     [name](auto prefix) { return name.starts_with(prefix); });
}

}  // namespace kestrune
