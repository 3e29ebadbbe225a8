#include "service/Folders.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "service/ServiceError.h"
#include "service/Staging.h"

namespace kestrune::service {
namespace {

Directory readerOf(FileDescriptor opened) {
  if (!opened) return nullptr;
  DIR* directory = ::fdopendir(opened.get());
  if (directory != nullptr) opened.release();
  return Directory(directory);
}

/// A reader of its own for `folder`, from the first entry on.
Directory openDirectory(int parent, const char* name) {
  return readerOf(
      FileDescriptor(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
}

bool isDotOrDotDot(const std::string& name) { return name == "." || name == ".."; }

/// Removes the files in the folder `name` of `top` and moves its folders up into `top`. True if it
/// is empty now.
bool flatten(int top, const std::string& name, std::vector<std::string>& found) {
  const Directory directory = openDirectory(top, name.c_str());
  if (!directory) return false;
  bool empty = true;
  while (const dirent* entry = ::readdir(directory.get())) {
    const std::string child = entry->d_name;
    if (isDotOrDotDot(child)) continue;
    const int from = ::dirfd(directory.get());
    if (::unlinkat(from, child.c_str(), 0) == 0 || errno == ENOENT) continue;
    std::string moved = Staging::newName();
    if (errno == EISDIR && ::renameat(from, child.c_str(), top, moved.c_str()) == 0) {
      found.push_back(std::move(moved));
    } else {
      empty = false;
    }
  }
  return empty;
}

}  // namespace

std::vector<std::string> namesIn(int folder) {
  const Directory directory = openDirectory(folder, ".");
  if (!directory) throw fileError(errno, "open a folder of the staging directory");
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(directory.get())) {
    if (!isDotOrDotDot(entry->d_name)) names.emplace_back(entry->d_name);
  }
  return names;
}

SubfolderReader::SubfolderReader(FileDescriptor folder) : directory_(readerOf(std::move(folder))) {
  if (!directory_) throw fileError(errno, "read a folder");
}

const char* SubfolderReader::next() {
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(directory_.get());
    if (entry == nullptr) break;
    const bool mayBeFolder = entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN;
    if (mayBeFolder && !isDotOrDotDot(entry->d_name)) return entry->d_name;
  }
  // A folder that is deleted while it is read answers ENOENT; it has no entries any more.
  if (errno != 0 && errno != ENOENT) throw fileError(errno, "read a folder");
  return nullptr;
}

std::size_t removeContents(int folder, const std::function<bool()>& goOn) {
  std::vector<std::string> pending = namesIn(folder);
  std::size_t left = 0;
  while (!pending.empty() && goOn()) {
    const std::string name = std::move(pending.back());
    pending.pop_back();
    if (::unlinkat(folder, name.c_str(), 0) == 0 || errno == ENOENT) continue;
    const bool empty = flatten(folder, name, pending);
    if (empty && ::unlinkat(folder, name.c_str(), AT_REMOVEDIR) == 0) continue;
    if (empty && errno == ENOTEMPTY) {
      // An upload that found the folder before it was removed has come into it meanwhile.
      pending.push_back(name);
    } else {
      ++left;
    }
  }
  return left;
}

}  // namespace kestrune::service
