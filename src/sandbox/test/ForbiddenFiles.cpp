// Attempts on files that are none of the extension's business. Where they succeed, they leave the machine as it was.
#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "sandbox/test/Attempts.h"

namespace kestrune::sandbox::test {

namespace {

using std::filesystem::path;

int answer(long result) { return result < 0 ? errno : 0; }

int readable(const path& file) {
  const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return errno;
  char byte = 0;
  const int failure = answer(::read(descriptor, &byte, 1));
  ::close(descriptor);
  return failure;
}

int listable(const path& directory) {
  DIR* open = ::opendir(directory.c_str());
  if (open == nullptr) return errno;
  ::closedir(open);
  return 0;
}

int creatable(const path& file) {
  const int descriptor = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (descriptor < 0) return errno;
  ::close(descriptor);
  ::unlink(file.c_str());
  return 0;
}

int writable(const path& file) {
  const int descriptor = ::open(file.c_str(), O_WRONLY | O_CLOEXEC);
  if (descriptor < 0) return errno;
  ::close(descriptor);
  return 0;
}

path key(const Surrounds& at) { return at.root / "home/.ssh/id_ed25519"; }
path outside(const Surrounds& at) { return at.root / "outside/file"; }

/// Makes `second` lead to the key by `make`, and reads it there.
int readThrough(const Surrounds& at, int (*make)(const char*, const char*)) {
  const path link = at.shared / "link";
  if (make(key(at).c_str(), link.c_str()) != 0) return errno;
  const int failure = readable(link);
  ::unlink(link.c_str());
  return failure;
}

int moveAway(const path& from, const path& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) return errno;
  return answer(::rename(to.c_str(), from.c_str()));
}

int changeTimes(const Surrounds& at) {
  return answer(::utimensat(AT_FDCWD, outside(at).c_str(), nullptr, 0));
}

int changeModeOfOpenFile(const Surrounds&) {
  const int descriptor = ::open("/usr/bin/env", O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return errno;
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) return errno;
  const int failure = answer(::fchmod(descriptor, status.st_mode & 07777U));
  ::close(descriptor);
  return failure;
}

int makeFifo(const Surrounds& at) {
  const path fifo = at.shared / "fifo";
  if (::mkfifo(fifo.c_str(), 0600) != 0) return errno;
  return answer(::unlink(fifo.c_str()));
}

int watch(const Surrounds& at) {
  const int queue = ::inotify_init1(IN_CLOEXEC);
  if (queue < 0) return errno;
  return answer(::inotify_add_watch(queue, (at.root / "home").c_str(), IN_ALL_EVENTS));
}

int setAttribute(const Surrounds& at) {
  if (::setxattr(outside(at).c_str(), "user.kestrune", "x", 1, 0) != 0) return errno;
  return answer(::removexattr(outside(at).c_str(), "user.kestrune"));
}

}  // namespace

const std::vector<Attempt>& forbiddenWithFiles() {
  static const std::vector<Attempt> all = {
      {"ReadKeyInHome", [](const Surrounds& at) { return readable(key(at)); }},
      {"ListHome", [](const Surrounds& at) { return listable(at.root / "home"); }},
      {"ListHomes", [](const Surrounds&) { return listable("/home"); }},
      {"ListRootsHome", [](const Surrounds&) { return listable("/root"); }},
      {"ReadPasswords", [](const Surrounds&) { return readable("/etc/shadow"); }},
      {"ListSystemSettings", [](const Surrounds&) { return listable("/etc"); }},
      {"ReadContentsOfReplica",
       [](const Surrounds& at) { return readable(at.temporary.parent_path() / "contents/1"); }},
      // What root can do by its capabilities alone.
      {"ReadWithoutPermission", [](const Surrounds& at) { return readable(at.shared / "closed"); }},
      {"WriteTmp", [](const Surrounds&) { return creatable("/tmp/kestrune-attempt"); }},
      {"WriteVarTmp", [](const Surrounds&) { return creatable("/var/tmp/kestrune-attempt"); }},
      {"WriteDevices", [](const Surrounds&) { return creatable("/dev/shm/kestrune-attempt"); }},
      {"WriteBesideShared",
       [](const Surrounds& at) { return creatable(at.shared.parent_path() / "attempt"); }},
      {"WriteBesideOutgoing",
       [](const Surrounds& at) { return creatable(at.outgoing.parent_path() / "attempt"); }},
      {"WriteIntoOutgoing", [](const Surrounds& at) { return creatable(at.outgoing / "attempt"); }},
      {"ChangeOutgoing", [](const Surrounds& at) { return writable(at.outgoing / "7"); }},
      {"RemoveOutgoing",
       [](const Surrounds& at) { return moveAway(at.outgoing / "7", at.temporary / "7"); }},
      {"MoveOutOfShared",
       [](const Surrounds& at) {
         return moveAway(at.shared / "config.json", at.root / "outside/config.json");
       }},
      {"MoveIntoShared",
       [](const Surrounds& at) { return moveAway(outside(at), at.shared / "stolen"); }},
      {"OverwriteOutside", [](const Surrounds& at) { return writable(outside(at)); }},
      {"TruncateOutside",
       [](const Surrounds& at) { return answer(::truncate(outside(at).c_str(), 4)); }},
      {"ReadThroughLinkInShared",
       [](const Surrounds& at) { return readable(at.shared / "leads-to-key"); }},
      {"MakeSymbolicLink", [](const Surrounds& at) { return readThrough(at, &::symlink); }},
      {"MakeHardLink", [](const Surrounds& at) { return readThrough(at, &::link); }},
      {"ChangeModeOutside",
       [](const Surrounds& at) { return answer(::chmod(outside(at).c_str(), 0644)); }},
      {"ChangeModeOfOpenFile", &changeModeOfOpenFile},
      {"ChangeOwnerOutside",
       [](const Surrounds& at) {
         return answer(::chown(outside(at).c_str(), ::getuid(), ::getgid()));
       }},
      {"ChangeTimesOutside", &changeTimes},
      {"SetAttributeOutside", &setAttribute},
      {"MakeFifo", &makeFifo},
      {"WatchHome", &watch},
  };
  return all;
}

}  // namespace kestrune::sandbox::test
