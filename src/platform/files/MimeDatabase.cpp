#include "platform/files/MimeDatabase.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <unordered_map>
#include <vector>

#include "platform/files/AtomicFile.h"
#include "platform/files/Directories.h"
#include "platform/values/NSError.h"

namespace kestrune::platform {

namespace {

// Debian's whole database has 60 kB; a user's own is far smaller.
constexpr std::uint64_t kLargestGlobFile = 16ULL << 20U;

std::string asciiLowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return lower;
}

/// One pattern "*.ext" of a type.
struct Registration {
  std::string mediaType;
  std::string extension;
  int weight = 0;
  bool caseSensitive = false;
};

/// What one "globs2" file says: patterns, and the types whose patterns in files of less precedence
/// do not count.
struct GlobFile {
  std::vector<Registration> registrations;
  std::set<std::string> discarded;
};

/// Cuts off and returns what stands before the next `separator`; all of it if there is none.
std::string_view takeField(std::string_view& rest, char separator) {
  const std::size_t end = std::min(rest.find(separator), rest.size());
  const std::string_view field = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return field;
}

bool hasFlag(std::string_view flags, std::string_view flag) {
  while (!flags.empty()) {
    if (takeField(flags, ',') == flag) return true;
  }
  return false;
}

/// Folders, devices and sockets are no data.
bool conformsToData(std::string_view mediaType) { return !mediaType.starts_with("inode/"); }

/// One line: weight ":" type ":" pattern (":" flags (":" fields of the future)?)?
void readLine(std::string_view line, GlobFile& file) {
  if (line.starts_with('#')) return;
  const std::string_view weightText = takeField(line, ':');
  const std::string_view mediaType = takeField(line, ':');
  const std::string_view pattern = takeField(line, ':');
  const std::string_view flags = takeField(line, ':');
  if (mediaType.find('/') == std::string_view::npos || !conformsToData(mediaType)) return;
  if (pattern == "__NOGLOBS__") {
    file.discarded.emplace(mediaType);
    return;
  }
  int weight = 0;
  const char* const end = weightText.data() + weightText.size();
  const auto parsed = std::from_chars(weightText.data(), end, weight);
  if (parsed.ec != std::errc() || parsed.ptr != end) return;
  if (!pattern.starts_with("*.")) return;
  const std::string_view extension = pattern.substr(2);
  if (extension.empty() || extension.find_first_of(".*?[]\\/") != std::string_view::npos) return;
  file.registrations.push_back(
      {std::string(mediaType), std::string(extension), weight, hasFlag(flags, "cs")});
}

GlobFile readGlobFile(const std::filesystem::path& path) {
  GlobFile file;
  std::string text;
  try {
    text = readFile(path, kLargestGlobFile);
  } catch (const NSPOSIXError&) {
    // Most directories have no database, and a broken one must not take the others away.
    return file;
  }
  std::string_view rest = text;
  while (!rest.empty()) readLine(takeField(rest, '\n'), file);
  return file;
}

/// The directories that may hold a database, those that take precedence first.
std::vector<std::filesystem::path> databaseDirectories() {
  std::vector<std::filesystem::path> directories = {applicationSupportDirectory()};
  const char* set = std::getenv("XDG_DATA_DIRS");
  std::string_view rest = set != nullptr && set[0] != '\0' ? set : "/usr/local/share:/usr/share";
  while (!rest.empty()) {
    const std::string_view directory = takeField(rest, ':');
    if (directory.starts_with('/')) directories.emplace_back(directory);
  }
  for (auto& directory : directories) directory /= "mime";
  return directories;
}

class Database {
 public:
  Database() {
    const auto directories = databaseDirectories();
    std::vector<Registration> all;  // of two with one weight, the earlier takes precedence
    std::set<std::string> discarded;
    for (const auto& directory : directories) {
      GlobFile file = readGlobFile(directory / "globs2");
      for (auto& registration : file.registrations) {
        if (!discarded.contains(registration.mediaType)) all.push_back(std::move(registration));
      }
      discarded.merge(file.discarded);
    }
    for (const auto& registration : all) {
      offer(exact_[registration.extension], registration);
      if (!registration.caseSensitive)
        offer(anyCase_[asciiLowerCase(registration.extension)], registration);
    }
  }

  std::optional<std::string> mediaType(std::string_view extension) const {
    const auto exact = exact_.find(std::string(extension));
    if (exact != exact_.end()) return exact->second.mediaType;
    const auto folded = anyCase_.find(asciiLowerCase(extension));
    if (folded != anyCase_.end()) return folded->second.mediaType;
    return std::nullopt;
  }

 private:
  struct Best {
    std::string mediaType;
    int weight = 0;
  };

  static void offer(Best& best, const Registration& registration) {
    if (!best.mediaType.empty() && best.weight >= registration.weight) return;
    best = {registration.mediaType, registration.weight};
  }

  std::unordered_map<std::string, Best> exact_;  // by the extension as it is registered
  std::unordered_map<std::string, Best>
      anyCase_;  // by the extension in lower case, without case-sensitive ones
};

}  // namespace

std::optional<std::string> registeredMediaType(std::string_view filenameExtension) {
  static const Database* const database =
      new Database;  // never destroyed: detached tasks may ask until the end
  return database->mediaType(filenameExtension);
}

}  // namespace kestrune::platform
