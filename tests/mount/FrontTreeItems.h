// What the test's tree consists of: its items, and who has them open. Only FrontTree.cpp includes this.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>
#include <system_error>
#include <utility>

#include "tests/mount/FrontTree.h"

namespace kestrune::mounttest {

[[noreturn]] inline void fail(int error) {
  throw std::system_error(error, std::generic_category());
}

inline int checked(int result) {
  if (result < 0) fail(errno);
  return result;
}

inline host::FileTime timeNow() {
  timespec now = {};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return {now.tv_sec, static_cast<std::int32_t>(now.tv_nsec)};
}

inline struct stat statusOf(int descriptor) {
  struct stat status = {};
  checked(::fstat(descriptor, &status));
  return status;
}

struct FrontTree::Item {
  host::InodeNumber inode = 0;
  host::NodeId node = 0;  // the one that stands for it now
  bool isFolder = false;
  bool isExecutable = false;
  bool isUnlinked = false;
  int writers = 0;
  host::FileTime accessed;
  host::FileTime modified;
  host::FileTime changed;
  std::unique_ptr<host::Descriptor> bytes;
  std::map<std::string, std::string> extended;
  std::map<std::string, std::uint64_t> cookies;
  std::map<std::uint64_t, std::pair<std::string, ItemPtr>> children;

  std::int64_t size() const { return isFolder ? 0 : statusOf(bytes->number()).st_size; }
  host::LocalFilePtr file() const {
    return std::make_shared<host::LocalFile>(checked(::fcntl(bytes->number(), F_DUPFD_CLOEXEC, 0)),
                                             size());
  }
  void touch() { modified = changed = timeNow(); }
  host::Attributes attributes() const {
    host::Attributes shown;
    shown.inode = inode;
    shown.isFolder = isFolder;
    shown.isExecutable = isExecutable;
    shown.isWritable = true;
    shown.isUnlinked = isUnlinked;
    shown.sizeBytes = size();
    shown.storedBytes = shown.sizeBytes;
    shown.accessed = accessed;
    shown.modified = modified;
    shown.changed = changed;
    return shown;
  }
};

class FrontTree::File final : public host::OpenFile {
 public:
  File(host::NodeId node, ItemPtr item, bool writes)
      : OpenFile(node), item_(std::move(item)), writes_(writes) {}
  static Item& itemOf(const OpenFile& file) { return *static_cast<const File&>(file).item_; }
  static bool writes(const OpenFile& file) { return static_cast<const File&>(file).writes_; }

 private:
  const ItemPtr item_;
  const bool writes_;
};

}  // namespace kestrune::mounttest
