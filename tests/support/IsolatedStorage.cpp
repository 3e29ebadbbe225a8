#include "tests/support/IsolatedStorage.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace kestrune::support {

namespace fs = std::filesystem;

IsolatedStorage::IsolatedStorage()
    : dataHome_("XDG_DATA_HOME", applicationSupport().string()),
      temporaryVariable_("TMPDIR", temporary().string()) {
  fs::create_directory(temporary());
}

fs::path IsolatedStorage::writeShared(const fs::path& relative, std::string_view contents) const {
  return root_.write("data/Kestrune" / relative, contents);
}

fs::path IsolatedStorage::placeFor(const fs::path& relative) const {
  fs::path place = shared() / relative;
  fs::create_directories(place.parent_path());
  fs::remove_all(place);
  return place;
}

void IsolatedStorage::makeSharedDirectory(const fs::path& relative) const {
  fs::create_directory(placeFor(relative));
}

void IsolatedStorage::makeSharedPipe(const fs::path& relative) const {
  const fs::path place = placeFor(relative);
  if (::mkfifo(place.c_str(), 0600) != 0) {
    throw std::system_error(errno, std::generic_category(), "mkfifo '" + place.string() + "'");
  }
}

void IsolatedStorage::makeSharedHugeFile(const fs::path& relative, std::uint64_t bytes) const {
  const fs::path place = placeFor(relative);
  writeShared(relative, "");
  fs::resize_file(place, bytes);
}

void IsolatedStorage::blockShared() const {
  fs::remove_all(shared());
  root_.write("data/Kestrune", "in the way");
}

std::vector<std::string> IsolatedStorage::temporaryNames() const {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(temporary()))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace kestrune::support
