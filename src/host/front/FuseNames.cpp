// Names: what they stand for, and how they come, go and move.

#include <cerrno>
#include <cstdio>
#include <optional>
#include <utility>

#include "host/front/FuseRequest.h"

namespace kestrune::host {

namespace {

void lookup(fuse_req_t request, fuse_ino_t folder, const char* name) {
  if (!isNamePossible(request, name)) return;
  FuseFront& front = frontOf(request);
  auto call = beginCall(request, Effect::looks);
  if (!call) return;
  front.dispatcher().lookup(folder, name, [&front, call, request](const Answer<Entry>& answer) {
    replyEntry(front, *call, request, answer);
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

// A regular file, without opening it.
void makeNode(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode, dev_t) {
  if (!S_ISREG(mode)) {
    fuse_reply_err(request, EPERM);
    return;
  }
  if (!isNamePossible(request, name)) return;
  FuseFront& front = frontOf(request);
  auto call = beginCall(request, Effect::changes);
  if (!call) return;
  OpenMode open;
  open.writes = true;
  const Caller caller{fuse_req_ctx(request)->pid};
  front.dispatcher().create(
      folder, name, (mode & S_IXUSR) != 0, open, caller,
      [&front, call, request, ifLate = nameChanged(folder, name)](const Answer<Created>& answer) {
        if (answer.ok()) {
          front.dispatcher().release(answer.value().file);
          replyEntry(front, *call, request, answer.value().entry, ifLate);
        } else {
          replyEntry(front, *call, request, answer.error());
        }
      });
}

void makeFolder(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t) {
  if (!isNamePossible(request, name)) return;
  FuseFront& front = frontOf(request);
  auto call = beginCall(request, Effect::changes);
  if (!call) return;
  front.dispatcher().makeFolder(
      folder, name,
      [&front, call, request, ifLate = nameChanged(folder, name)](const Answer<Entry>& answer) {
        replyEntry(front, *call, request, answer, ifLate);
      });
}

void removeFile(fuse_req_t request, fuse_ino_t folder, const char* name) {
  auto call = beginCall(request, Effect::changes);
  if (!call) return;
  dispatcherOf(request).removeFile(folder, name,
                                   replyingDone(request, call, nameChanged(folder, name)));
}

void removeFolder(fuse_req_t request, fuse_ino_t folder, const char* name) {
  auto call = beginCall(request, Effect::changes);
  if (!call) return;
  dispatcherOf(request).removeFolder(folder, name,
                                     replyingDone(request, call, nameChanged(folder, name)));
}

std::optional<RenameMode> renameModeOf(unsigned flags) {
  switch (flags) {
    case 0:
      return RenameMode::replace;
    case RENAME_NOREPLACE:
      return RenameMode::noReplace;
    case RENAME_EXCHANGE:
      return RenameMode::exchange;
    default:
      return std::nullopt;
  }
}

void rename(fuse_req_t request, fuse_ino_t folder, const char* name, fuse_ino_t newFolder,
            const char* newName, unsigned flags) {
  const auto mode = renameModeOf(flags);
  if (!mode) {
    fuse_reply_err(request, EINVAL);
    return;
  }
  if (!isNamePossible(request, newName)) return;
  auto call = beginCall(request, Effect::changes);
  if (!call) return;
  Consequences ifLate = nameChanged(folder, name);
  for (auto& update : nameChanged(newFolder, newName)) ifLate.push_back(std::move(update));
  dispatcherOf(request).rename(folder, name, newFolder, newName, *mode,
                               replyingDone(request, call, std::move(ifLate)));
}

void makeSymbolicLink(fuse_req_t request, const char*, fuse_ino_t, const char*) {
  fuse_reply_err(request, EPERM);
}

void makeHardLink(fuse_req_t request, fuse_ino_t, fuse_ino_t, const char*) {
  fuse_reply_err(request, EPERM);
}

}  // namespace

void addNameOperations(fuse_lowlevel_ops& operations) {
  operations.lookup = &lookup;
  operations.forget = &forget;
  operations.forget_multi = &forgetMany;
  operations.create = &createFile;
  operations.mknod = &makeNode;
  operations.mkdir = &makeFolder;
  operations.unlink = &removeFile;
  operations.rmdir = &removeFolder;
  operations.rename = &rename;
  operations.symlink = &makeSymbolicLink;
  operations.link = &makeHardLink;
}

}  // namespace kestrune::host
