#include "host/volume/test/ReplicaCopy.h"

#include <fcntl.h>

#include <map>
#include <stdexcept>
#include <string>

#include "host/basics/LocalFile.h"
#include "host/content/FileCopy.h"
#include "platform/files/AtomicFile.h"
#include "platform/values/NSError.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {

namespace fs = std::filesystem;

namespace {

void copyFile(const fs::path& from, const fs::path& to) {
  const Descriptor source(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  const Descriptor target(::open(to.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  copyWithHoles(source.number(), target.number(), static_cast<std::int64_t>(fs::file_size(from)));
}

// What two processes share of the database is nothing when both are gone.
bool isOfProcess(const fs::path& file) { return file.filename() == "items.sqlite-shm"; }

bool copyOnce(const fs::path& from, const fs::path& to) {
  fs::remove_all(to);
  fs::create_directories(to);
  fs::permissions(to, fs::perms::owner_all);
  try {
    for (const auto& entry : fs::recursive_directory_iterator(from)) {
      const fs::path target = to / entry.path().lexically_relative(from);
      if (entry.is_directory()) {
        fs::create_directory(target);
        fs::permissions(target, fs::perms::owner_all);
      } else if (!isOfProcess(target)) {
        copyFile(entry.path(), target);
      }
    }
  } catch (const fs::filesystem_error&) {
    return false;  // something went meanwhile
  } catch (const platform::NSError&) {
    return false;
  }
  return true;
}

std::map<std::string, std::string> filesIn(const fs::path& folder) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file())
      files[entry.path().lexically_relative(folder)] = platform::readFile(entry.path());
  }
  return files;
}

}  // namespace

void copyReplica(const fs::path& from, const fs::path& to) {
  const fs::path again = to.string() + " again";
  // Two copies one after the other that are the same: so it was at the moment between them.
  const bool isStill = support::waitUntil(
      [&] { return copyOnce(from, to) && copyOnce(from, again) && filesIn(to) == filesIn(again); });
  fs::remove_all(again);
  if (!isStill) throw std::runtime_error("the replica does not come to rest");
}

}  // namespace kestrune::host::test
