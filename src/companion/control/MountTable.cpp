#include "companion/control/MountTable.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <sstream>

namespace kestrune {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kFileSystemType = "fuse.kestrune";

// Blanks and the like are written as three octal digits after a backslash (proc(5)).
std::string unescaped(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    constexpr std::size_t kDigits = 3;
    unsigned value = 0;
    const char* end = text.data() + i + 1 + kDigits;
    if (text[i] == '\\' && i + kDigits < text.size() &&
        std::from_chars(text.data() + i + 1, end, value, 8).ptr == end) {
      plain += static_cast<char>(value);
      i += kDigits;
    } else {
      plain += text[i];
    }
  }
  return plain;
}

struct Row {
  fs::path mountPoint;
  std::string type;
};

Row rowOf(const std::string& line) {
  std::istringstream fields(line);
  std::string field;
  for (int skipped = 0; skipped < 4; ++skipped) fields >> field;
  Row row;
  fields >> field;
  row.mountPoint = unescaped(field);
  while (fields >> field && field != "-") {
  }
  fields >> row.type;
  return row;
}

bool holds(const fs::path& outer, const fs::path& inner) {
  return std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first == outer.end();
}

}  // namespace

std::string presentMountTable() {
  std::ifstream table("/proc/self/mountinfo");
  return {std::istreambuf_iterator<char>(table), std::istreambuf_iterator<char>()};
}

std::vector<fs::path> mountPointsOfOurs(const std::string& mountTable) {
  std::vector<fs::path> places;
  std::istringstream lines(mountTable);
  for (std::string line; std::getline(lines, line);) {
    const Row row = rowOf(line);
    if (row.type == kFileSystemType) places.push_back(row.mountPoint);
  }
  return places;
}

std::optional<fs::path> mountPointAround(const std::string& mountTable, const fs::path& path) {
  fs::path nearest;
  std::string typeOfNearest;
  std::istringstream lines(mountTable);
  for (std::string line; std::getline(lines, line);) {
    const Row row = rowOf(line);
    // Of two at one place the later one lies on top.
    if (!holds(row.mountPoint, path) || row.mountPoint.native().size() < nearest.native().size())
      continue;
    typeOfNearest = row.type;
    nearest = row.mountPoint;
  }
  if (typeOfNearest != kFileSystemType) return std::nullopt;
  return nearest;
}

}  // namespace kestrune
