#include "host/front/FuseFront.h"

#define FUSE_USE_VERSION 312
#include <fuse_lowlevel.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include "host/basics/ErrorToErrno.h"
#include "host/basics/ItemName.h"

namespace kestrune::host {

namespace {

// The host tells the kernel of every change, so what the kernel knows holds until then.
constexpr double kValidSeconds = 86400;
// Except for a name that is not there: a folder may gain it at any time, and a second costs little.
constexpr double kAbsentSeconds = 1;
// How much the kernel may ask for in one read; also the pages that libfuse announces for one request.
constexpr std::size_t kLargestRead = 1U << 20U;
// Attributes are in units of 512 bytes.
constexpr std::int64_t kBlockBytes = 512;

FuseFront& frontOf(fuse_req_t request) {
  return *static_cast<FuseFront*>(fuse_req_userdata(request));
}

Dispatcher& dispatcherOf(fuse_req_t request) { return frontOf(request).dispatcher(); }

timespec timespecOf(FileTime time) { return {time.seconds, time.nanoseconds}; }

struct stat statusOf(const Attributes& attributes) {
  struct stat status = {};
  status.st_ino = attributes.inode;
  // Read-only for everybody; who may come in at all is decided by the mount.
  status.st_mode = attributes.isFolder ? S_IFDIR | 0555U : S_IFREG | 0444U;
  status.st_nlink = 1;
  status.st_uid = ::getuid();
  status.st_gid = ::getgid();
  status.st_size = attributes.sizeBytes;
  status.st_blocks =
      attributes.storedBytes / kBlockBytes + (attributes.storedBytes % kBlockBytes == 0 ? 0 : 1);
  status.st_blksize = kLargestRead;
  status.st_atim = timespecOf(attributes.accessed);
  status.st_mtim = timespecOf(attributes.modified);
  status.st_ctim = timespecOf(attributes.changed);
  return status;
}

fuse_entry_param parametersOf(const Entry& entry) {
  fuse_entry_param parameters = {};
  parameters.ino = entry.node;
  parameters.generation = 1;
  parameters.attr = statusOf(entry.attributes);
  parameters.attr_timeout = kValidSeconds;
  parameters.entry_timeout = entry.node == 0 ? kAbsentSeconds : kValidSeconds;
  return parameters;
}

void replyError(fuse_req_t request, const platform::NSError& error) {
  fuse_reply_err(request, errnoFor(error));
}

// libfuse calls the interrupt handler at once, inside fuse_req_interrupt_func, for a request that was interrupted before;
// the request must not be answered there.
thread_local bool* interruptedWhileArming = nullptr;

// A program that waits for a mapped page is reported like one in `read`. Its page fault ends without an error to it: it
// handles its signal and touches the page again.
void onInterrupt(fuse_req_t request, void* number) {
  if (interruptedWhileArming != nullptr) {
    *interruptedWhileArming = true;
  } else {
    frontOf(request).calls().interrupt(reinterpret_cast<std::uintptr_t>(number));
  }
}

// Registers a request that may wait. Null: it has been answered.
OpenCalls::CallPtr beginCall(fuse_req_t request) {
  OpenCalls& calls = frontOf(request).calls();
  bool interrupted = false;
  auto arm = [request, &interrupted](std::uint64_t number) {
    interruptedWhileArming = &interrupted;
    fuse_req_interrupt_func(
        request, &onInterrupt,
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the library keeps a pointer's worth for us
        reinterpret_cast<void*>(static_cast<std::uintptr_t>(number)));
    interruptedWhileArming = nullptr;
  };
  auto call = calls.begin(arm, [request](int error) { fuse_reply_err(request, error); });
  if (!call) {
    fuse_reply_err(request, ENOTCONN);
    return nullptr;
  }
  if (interrupted) calls.interrupt(call->number());
  return call->isClaimed() ? nullptr : call;
}

// Answers a lookup. References that do not reach the kernel are given back.
void replyEntry(Dispatcher& dispatcher, OpenCalls::Call& call, fuse_req_t request,
                const Answer<Entry>& answer) {
  const bool mine = call.claim();
  if (mine && !answer.ok()) replyError(request, *answer.error());
  if (!answer.ok()) return;
  const fuse_entry_param parameters = parametersOf(answer.value());
  const bool arrived = mine && fuse_reply_entry(request, &parameters) == 0;
  if (!arrived && answer.value().node != 0) dispatcher.forget(answer.value().node, 1);
}

void lookup(fuse_req_t request, fuse_ino_t folder, const char* name) {
  Dispatcher& dispatcher = dispatcherOf(request);
  auto call = beginCall(request);
  if (!call) return;
  dispatcher.lookup(folder, name, [&dispatcher, call, request](const Answer<Entry>& answer) {
    replyEntry(dispatcher, *call, request, answer);
  });
}

void forget(fuse_req_t request, fuse_ino_t node, std::uint64_t count) {
  dispatcherOf(request).forget(node, count);
  fuse_reply_none(request);
}

void forgetMany(fuse_req_t request, std::size_t count, fuse_forget_data* forgets) {
  for (std::size_t i = 0; i < count; ++i)
    dispatcherOf(request).forget(forgets[i].ino, forgets[i].nlookup);
  fuse_reply_none(request);
}

void getAttributes(fuse_req_t request, fuse_ino_t node, fuse_file_info*) {
  const auto answer = dispatcherOf(request).attributes(node);
  if (!answer.ok()) {
    replyError(request, *answer.error());
    return;
  }
  const struct stat status = statusOf(answer.value());
  fuse_reply_attr(request, &status, kValidSeconds);
}

void openFolder(fuse_req_t request, fuse_ino_t folder, fuse_file_info* info) {
  Dispatcher& dispatcher = dispatcherOf(request);
  auto call = beginCall(request);
  if (!call) return;
  fuse_file_info answered = *info;
  answered.cache_readdir = 1;
  answered.keep_cache = 1;
  dispatcher.openFolder(folder, [call, request, answered](const Answer<Done>& answer) {
    if (!call->claim()) return;
    if (answer.ok()) {
      fuse_reply_open(request, &answered);
    } else {
      replyError(request, *answer.error());
    }
  });
}

// Encodes the entries of a folder as long as the kernel's buffer has room.
class EntryBuffer final : public FolderSink {
 public:
  EntryBuffer(fuse_req_t request, std::size_t size, bool plus)
      : request_(request), plus_(plus), bytes_(size) {}

  bool add(const FolderEntry& entry) override {
    name_.assign(entry.name);
    const fuse_entry_param parameters = parametersOf(entry.entry);
    char* const place = bytes_.data() + used_;
    const std::size_t room = bytes_.size() - used_;
    const auto offset = static_cast<off_t>(entry.cookie);
    const std::size_t needed =
        plus_ ? fuse_add_direntry_plus(request_, place, room, name_.c_str(), &parameters, offset)
              : fuse_add_direntry(request_, place, room, name_.c_str(), &parameters.attr, offset);
    if (needed > room) return false;
    used_ += needed;
    if (plus_ && entry.entry.node != 0) remembered_.push_back(entry.entry.node);
    return true;
  }

  /// Ends the request.
  void reply(Dispatcher& dispatcher) {
    if (fuse_reply_buf(request_, bytes_.data(), used_) == 0) return;
    for (const NodeId node : remembered_) dispatcher.forget(node, 1);
  }

 private:
  const fuse_req_t request_;
  const bool plus_;
  std::vector<char> bytes_;
  std::size_t used_ = 0;
  std::string name_;  // ended by a NUL, as the library wants it
  std::vector<NodeId> remembered_;
};

void readEntries(fuse_req_t request, fuse_ino_t folder, std::size_t size, off_t after, bool plus) {
  Dispatcher& dispatcher = dispatcherOf(request);
  EntryBuffer buffer(request, std::min(size, kLargestRead), plus);
  const auto error = dispatcher.readFolder(folder, static_cast<std::uint64_t>(after), plus, buffer);
  if (error) {
    replyError(request, *error);
  } else {
    buffer.reply(dispatcher);
  }
}

void readFolder(fuse_req_t request, fuse_ino_t folder, std::size_t size, off_t after,
                fuse_file_info*) {
  readEntries(request, folder, size, after, false);
}

void readFolderPlus(fuse_req_t request, fuse_ino_t folder, std::size_t size, off_t after,
                    fuse_file_info*) {
  readEntries(request, folder, size, after, true);
}

OpenFilePtr* handleOf(const fuse_file_info* info) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel gives back the number that it was given
  return reinterpret_cast<OpenFilePtr*>(info->fh);
}

void replyOpen(Dispatcher& dispatcher, fuse_req_t request, fuse_file_info info,
               const OpenFilePtr& file) {
  auto handle = std::make_unique<OpenFilePtr>(file);
  info.fh = reinterpret_cast<std::uintptr_t>(handle.get());
  info.keep_cache = 1;  // a node's contents never change
  info.direct_io = file->listedEmpty ? 1 : 0;
  if (fuse_reply_open(request, &info) == 0) {
    static_cast<void>(handle.release());  // the kernel holds it until it is released
  } else {
    dispatcher.release(file);
  }
}

void openFile(fuse_req_t request, fuse_ino_t node, fuse_file_info* info) {
  Dispatcher& dispatcher = dispatcherOf(request);
  auto call = beginCall(request);
  if (!call) return;
  OpenMode mode;
  mode.writes = (info->flags & O_ACCMODE) != O_RDONLY;
  mode.truncates = (info->flags & O_TRUNC) != 0;
  const Caller caller{fuse_req_ctx(request)->pid};
  dispatcher.open(node, mode, caller,
                  [&dispatcher, call, request, info = *info](const Answer<OpenFilePtr>& answer) {
                    if (!call->claim()) {
                      if (answer.ok()) dispatcher.release(answer.value());
                    } else if (answer.ok()) {
                      replyOpen(dispatcher, request, info, answer.value());
                    } else {
                      replyError(request, *answer.error());
                    }
                  });
}

// A buffer that stays with its thread: allocating and touching a new one costs more than the copy into it.
std::vector<char>& readBuffer() {
  thread_local std::vector<char> buffer(kLargestRead);
  return buffer;
}

void replyBytes(fuse_req_t request, const LocalFile& file, std::size_t size, off_t offset) {
  std::vector<char>& buffer = readBuffer();
  const std::size_t wanted = std::min(size, buffer.size());
  std::size_t got = 0;
  while (got < wanted) {
    const ssize_t length = ::pread(file.descriptor(), buffer.data() + got, wanted - got,
                                   offset + static_cast<off_t>(got));
    if (length < 0 && errno == EINTR) continue;
    if (length < 0 && got == 0) {
      fuse_reply_err(request, errno);
      return;
    }
    if (length <= 0) break;
    got += static_cast<std::size_t>(length);
  }
  fuse_reply_buf(request, buffer.data(), got);
}

void readFile(fuse_req_t request, fuse_ino_t, std::size_t size, off_t offset,
              fuse_file_info* info) {
  const OpenFilePtr& file = *handleOf(info);
  Dispatcher& dispatcher = dispatcherOf(request);
  if (const auto present = dispatcher.present(*file, offset, size)) {
    replyBytes(request, *present, size, offset);
    return;
  }
  auto call = beginCall(request);
  if (!call) return;
  dispatcher.read(file, offset, size,
                  [call, request, size, offset](const Answer<LocalFilePtr>& answer) {
                    if (!call->claim()) return;
                    if (answer.ok()) {
                      replyBytes(request, *answer.value(), size, offset);
                    } else {
                      replyError(request, *answer.error());
                    }
                  });
}

void releaseFile(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
  const std::unique_ptr<OpenFilePtr> handle(handleOf(info));
  dispatcherOf(request).release(*handle);
  fuse_reply_err(request, 0);
}

void statFileSystem(fuse_req_t request, fuse_ino_t) {
  constexpr std::uint64_t kUnit = 4096;
  const Space space = dispatcherOf(request).space();
  struct statvfs status = {};
  status.f_bsize = kUnit;
  status.f_frsize = kUnit;
  status.f_blocks = space.totalBytes / kUnit;
  status.f_bfree = space.freeBytes / kUnit;
  status.f_bavail = status.f_bfree;
  status.f_files = 1ULL << 40U;
  status.f_ffree = status.f_files;
  status.f_favail = status.f_files;
  status.f_namemax = kLongestNameBytes;
  fuse_reply_statfs(request, &status);
}

void initialise(void*, fuse_conn_info* connection) {
  // Reads are asked for by the program that waits for them, not in the background: only so does its signal reach us.
  connection->want &= ~static_cast<unsigned>(FUSE_CAP_ASYNC_READ);
  // Bytes are copied through memory of ours: splicing them made reads slower.
  connection->want &=
      ~static_cast<unsigned>(FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE | FUSE_CAP_SPLICE_MOVE);
  connection->max_read = kLargestRead;
  connection->max_readahead = kLargestRead;
  connection->time_gran = 1000;  // dates are kept in microseconds
}

}  // namespace

fuse_session* FuseFront::newSession(fuse_args& arguments) {
  fuse_lowlevel_ops operations = {};
  operations.init = &initialise;
  operations.lookup = &lookup;
  operations.forget = &forget;
  operations.forget_multi = &forgetMany;
  operations.getattr = &getAttributes;
  operations.opendir = &openFolder;
  operations.readdir = &readFolder;
  operations.readdirplus = &readFolderPlus;
  operations.open = &openFile;
  operations.read = &readFile;
  operations.release = &releaseFile;
  operations.statfs = &statFileSystem;
  return fuse_session_new(&arguments, &operations, sizeof(operations), this);
}

void FuseFront::endAll() { calls_.endAll(ENOTCONN); }

}  // namespace kestrune::host
