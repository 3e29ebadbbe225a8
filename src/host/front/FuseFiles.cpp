// Files: created, opened, read, written and closed.

#include <fcntl.h>
#include <linux/falloc.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>
#include <vector>

#include "host/basics/ErrorToErrno.h"
#include "host/front/FuseRequest.h"

namespace kestrune::host {

namespace {

using Way = Passthrough::Way;

// As the kernel's include/uapi/linux/fuse.h has them (Linux 6.9); the library knows neither.
constexpr std::uint32_t kOpenNoFlush = 1U << 5U;
constexpr std::uint32_t kOpenPassthrough = 1U << 7U;
struct PassthroughOpenAnswer {
  std::uint64_t handle;
  std::uint32_t flags;
  std::int32_t backing;
};

OpenMode modeOf(const fuse_file_info& info) {
  OpenMode mode;
  mode.reads = (info.flags & O_ACCMODE) != O_WRONLY;
  mode.writes = (info.flags & O_ACCMODE) != O_RDONLY;
  mode.truncates = (info.flags & O_TRUNC) != 0;
  return mode;
}

// Has the kernel look the name up again.
void replyStale(fuse_req_t request) { fuse_reply_err(request, ESTALE); }

void fillIn(FuseFront& front, fuse_file_info& info, const OpenFilePtr& file, Way way) {
  info.fh = front.handles().add({file, way});
  info.keep_cache = 1;  // a node's bytes change only through the kernel
  info.direct_io = file->listedEmpty ? 1 : 0;
}

int replyPassthrough(fuse_req_t request, const fuse_file_info& info, std::int32_t backing) {
  // The kernel refuses any flag here that speaks of its own memory of the bytes.
  const PassthroughOpenAnswer answer = {info.fh, kOpenPassthrough | kOpenNoFlush, backing};
  return fuse_reply_buf(request, reinterpret_cast<const char*>(&answer), sizeof(answer));
}

// Answers an open. `opened` is counted already.
void replyOpen(FuseFront& front, fuse_req_t request, fuse_ino_t node, fuse_file_info info,
               const OpenFilePtr& file, Passthrough::Opened opened) {
  fillIn(front, info, file, opened.way);
  const int result = opened.way == Way::kernel ? replyPassthrough(request, info, opened.backing)
                                               : fuse_reply_open(request, &info);
  if (result == 0) return;  // the kernel holds it until it is released
  front.handles().remove(info.fh);
  front.passthrough().end(node, opened.way);
  front.dispatcher().release(file);
}

// The file that the kernel may read by itself: it would also read what lies behind the end, which does not belong to the file.
LocalFilePtr wholeOf(const OpenFile& file) {
  struct stat status = {};
  if (!file.whole || ::fstat(file.whole->descriptor(), &status) != 0) return nullptr;
  return status.st_size == file.whole->sizeBytes() ? file.whole : nullptr;
}

void openForReading(FuseFront& front, fuse_req_t request, fuse_ino_t node,
                    const fuse_file_info& info, const OpenCalls::CallPtr& call) {
  const auto ticket = front.passthrough().beginOpening(node);
  front.dispatcher().open(
      node, modeOf(info), {fuse_req_ctx(request)->pid},
      [&front, request, node, info, call, ticket](const Answer<OpenFilePtr>& answer) {
        Passthrough& passthrough = front.passthrough();
        const bool mine = call->claim();
        if (!mine || !answer.ok()) {
          passthrough.abandonOpening(node);
          if (answer.ok()) front.dispatcher().release(answer.value());
          if (mine) replyError(request, *answer.error());
          return;
        }
        const auto opened = passthrough.endOpening(node, ticket, wholeOf(*answer.value()));
        if (opened.way == Way::conflict) {
          front.dispatcher().succeed(node);
          front.dispatcher().release(answer.value());
          replyStale(request);
          return;
        }
        replyOpen(front, request, node, info, answer.value(), opened);
      });
}

void openForChange(FuseFront& front, fuse_req_t request, fuse_ino_t node,
                   const fuse_file_info& info, const OpenCalls::CallPtr& call) {
  if (!front.passthrough().beginChange(node)) {
    front.dispatcher().succeed(node);
    if (call->claim()) replyStale(request);
    return;
  }
  front.dispatcher().open(node, modeOf(info), {fuse_req_ctx(request)->pid},
                          [&front, request, node, info, call](const Answer<OpenFilePtr>& answer) {
                            const bool mine = call->claim();
                            if (!mine || !answer.ok()) {
                              front.passthrough().end(node, Way::requests);
                              if (answer.ok()) front.dispatcher().release(answer.value());
                              if (mine) replyError(request, *answer.error());
                              return;
                            }
                            replyOpen(front, request, node, info, answer.value(), {Way::requests});
                          });
}

void openFile(fuse_req_t request, fuse_ino_t node, fuse_file_info* info) {
  const OpenMode mode = modeOf(*info);
  if (mode.writes || mode.truncates) {
    if (auto call = beginCall(request, Effect::changes))
      openForChange(frontOf(request), request, node, *info, call);
    return;
  }
  info->noflush = 1;  // nobody waits for what the last reader leaves behind
  if (auto call = beginCall(request, Effect::looks))
    openForReading(frontOf(request), request, node, *info, call);
}

// Gives back what nobody wants any more.
void undo(FuseFront& front, const Created& created) {
  front.dispatcher().release(created.file);
  front.dispatcher().forget(created.entry.node, 1);
}

void replyCreated(FuseFront& front, fuse_req_t request, fuse_file_info info,
                  const Created& created) {
  const NodeId node = created.entry.node;
  // Somebody else may have opened it already, though not when it was opened for writing.
  if (!front.passthrough().beginChange(node)) {
    front.dispatcher().succeed(node);
    undo(front, created);
    replyStale(request);
    return;
  }
  fillIn(front, info, created.file, Way::requests);
  // Nobody reads through this handle: what the kernel kept of the bytes would be copied and thrown away. Kernels that can leave
  // files to themselves also drop what other handles have read of what is written so.
  const bool onlyWrites = (info.flags & O_ACCMODE) == O_WRONLY;
  if (onlyWrites && front.passthrough().isOffered()) info.direct_io = 1;
  const fuse_entry_param parameters = parametersOf(created.entry);
  if (fuse_reply_create(request, &parameters, &info) == 0) return;
  front.handles().remove(info.fh);
  front.passthrough().end(node, Way::requests);
  undo(front, created);
}

void replyBytes(fuse_req_t request, const LocalFile& file, std::size_t size, off_t offset) {
  const auto left = static_cast<std::size_t>(std::max<off_t>(file.sizeBytes() - offset, 0));
  FuseDevice::replyFromFile(request, file.descriptor(), offset, std::min(size, left));
}

void readFile(fuse_req_t request, fuse_ino_t, std::size_t size, off_t offset,
              fuse_file_info* info) {
  const OpenFilePtr file = handleOf(request, *info).file;
  Dispatcher& dispatcher = dispatcherOf(request);
  if (const auto present = dispatcher.present(*file, offset, size)) {
    replyBytes(request, *present, size, offset);
    return;
  }
  auto call = beginCall(request, Effect::looks);
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

void writeFile(fuse_req_t request, fuse_ino_t node, const char* bytes, std::size_t size,
               off_t offset, fuse_file_info* info) {
  FuseFront& front = frontOf(request);
  auto call = beginCall(request, Effect::changes);
  if (!call) return;
  front.dispatcher().write(handleOf(request, *info).file, offset,
                           std::as_bytes(std::span<const char>(bytes, size)),
                           [&front, call, request, node, size](const Answer<Done>& answer) {
                             const bool mine = call->claim();
                             if (mine && answer.ok()) {
                               fuse_reply_write(request, size);
                             } else if (mine) {
                               replyError(request, *answer.error());
                             } else if (answer.ok()) {
                               front.changedUnseen(bytesChanged(node));
                             }
                           });
}

void flushFile(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
  auto call = beginCall(request, Effect::changes);
  if (call) dispatcherOf(request).flush(handleOf(request, *info).file, replyingDone(request, call));
}

void syncFile(fuse_req_t request, fuse_ino_t, int, fuse_file_info* info) {
  auto call = beginCall(request, Effect::changes);
  if (call) dispatcherOf(request).sync(handleOf(request, *info).file, replyingDone(request, call));
}

void reserve(fuse_req_t request, fuse_ino_t node, int mode, off_t offset, off_t length,
             fuse_file_info* info) {
  if ((mode & ~FALLOC_FL_KEEP_SIZE) != 0) {
    fuse_reply_err(request, EOPNOTSUPP);
    return;
  }
  auto call = beginCall(request, Effect::changes);
  if (!call) return;
  const bool keepsSize = (mode & FALLOC_FL_KEEP_SIZE) != 0;
  dispatcherOf(request).reserve(handleOf(request, *info).file, offset, length, keepsSize,
                                replyingDone(request, call, bytesChanged(node)));
}

void releaseFile(fuse_req_t request, fuse_ino_t node, fuse_file_info* info) {
  FuseFront& front = frontOf(request);
  const OpenHandle handle = front.handles().remove(info->fh);
  // First, so that no open finds the node in use for the sake of one that is over.
  front.passthrough().end(node, handle.way);
  front.dispatcher().release(handle.file);
  fuse_reply_err(request, 0);
}

}  // namespace

void createFile(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
                fuse_file_info* info) {
  if (!isNamePossible(request, name)) return;
  FuseFront& front = frontOf(request);
  auto call = beginCall(request, Effect::changes);
  if (!call) return;
  front.dispatcher().create(
      folder, name, (mode & S_IXUSR) != 0, modeOf(*info), {fuse_req_ctx(request)->pid},
      [&front, call, request, info = *info,
       ifLate = nameChanged(folder, name)](const Answer<Created>& answer) {
        const bool mine = call->claim();
        if (answer.ok() && mine) {
          replyCreated(front, request, info, answer.value());
        } else if (answer.ok()) {
          undo(front, answer.value());
          front.changedUnseen(ifLate);
        } else if (mine) {
          const int error = errnoFor(*answer.error());
          const bool wouldOpenIt = error == EEXIST && (info.flags & O_EXCL) == 0;
          fuse_reply_err(request, wouldOpenIt ? ESTALE : error);
        }
      });
}

void addFileOperations(fuse_lowlevel_ops& operations) {
  operations.open = &openFile;
  operations.read = &readFile;
  operations.write = &writeFile;
  operations.flush = &flushFile;
  operations.fsync = &syncFile;
  operations.fallocate = &reserve;
  operations.release = &releaseFile;
}

}  // namespace kestrune::host
