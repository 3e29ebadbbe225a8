// Attributes of files and folders, and the space that there is.

#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <utility>

#include "host/basics/ItemName.h"
#include "host/front/FuseRequest.h"

namespace kestrune::host {

namespace {

void replyAttributes(fuse_req_t request, const Answer<Attributes>& answer) {
  if (!answer.ok()) {
    replyError(request, *answer.error());
    return;
  }
  const struct stat status = statusOf(answer.value());
  fuse_reply_attr(request, &status, kValidSeconds);
}

void getAttributes(fuse_req_t request, fuse_ino_t node, fuse_file_info*) {
  replyAttributes(request, dispatcherOf(request).attributes(node));
}

// Whether a chmod to `wanted` says nothing false about what is shown as `shown` (FuseFront.h). Execute bits are not
// compared but those of a folder's owner: a file's are the part that can be changed.
bool isModeKept(mode_t wanted, mode_t shown, bool othersMayEnter) {
  constexpr mode_t kAbovePermissions = S_ISUID | S_ISGID | S_ISVTX;
  constexpr mode_t kOwner = S_IRUSR | S_IWUSR;
  constexpr mode_t kOthers = S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
  if ((wanted & kAbovePermissions) != 0) return false;
  if (S_ISDIR(shown) && (wanted & S_IXUSR) == 0) return false;
  const mode_t compared = othersMayEnter ? kOwner | kOthers : kOwner;
  return (wanted & compared) == (shown & compared);
}

FileTime timeOf(const timespec& wanted, bool isNow) {
  timespec time = wanted;
  if (isNow) ::clock_gettime(CLOCK_REALTIME, &time);
  return {time.tv_sec, static_cast<std::int32_t>(time.tv_nsec)};
}

bool isOwnerKept(const struct stat& wanted, int which) {
  if ((which & FUSE_SET_ATTR_UID) != 0 && wanted.st_uid != ::getuid()) return false;
  return (which & FUSE_SET_ATTR_GID) == 0 || wanted.st_gid == ::getgid();
}

// What is left to change; null: it cannot be, and has been answered.
std::optional<AttributeChanges> changesOf(fuse_req_t request, fuse_ino_t node,
                                          const struct stat& wanted, int which) {
  AttributeChanges changes;
  if (!isOwnerKept(wanted, which)) {
    fuse_reply_err(request, EPERM);
    return std::nullopt;
  }
  if ((which & FUSE_SET_ATTR_MODE) != 0) {
    const auto present = dispatcherOf(request).attributes(node);
    if (!present.ok()) {
      replyError(request, *present.error());
      return std::nullopt;
    }
    const bool othersMayEnter = frontOf(request).options().othersMayEnter;
    if (!isModeKept(wanted.st_mode, statusOf(present.value()).st_mode, othersMayEnter)) {
      fuse_reply_err(request, EPERM);
      return std::nullopt;
    }
    if (!present.value().isFolder) changes.isExecutable = (wanted.st_mode & S_IXUSR) != 0;
  }
  if ((which & FUSE_SET_ATTR_SIZE) != 0) changes.sizeBytes = wanted.st_size;
  if ((which & FUSE_SET_ATTR_ATIME) != 0)
    changes.accessed = timeOf(wanted.st_atim, (which & FUSE_SET_ATTR_ATIME_NOW) != 0);
  if ((which & FUSE_SET_ATTR_MTIME) != 0)
    changes.modified = timeOf(wanted.st_mtim, (which & FUSE_SET_ATTR_MTIME_NOW) != 0);
  return changes;
}

void setAttributes(fuse_req_t request, fuse_ino_t node, struct stat* wanted, int which,
                   fuse_file_info* info) {
  FuseFront& front = frontOf(request);
  const auto changes = changesOf(request, node, *wanted, which);
  if (!changes) return;
  if (!changes->sizeBytes && !changes->isExecutable && !changes->accessed && !changes->modified) {
    getAttributes(request, node, info);
    return;
  }
  // Who has it open for writing is counted already.
  const bool isChangeByName = changes->sizeBytes && info == nullptr;
  if (isChangeByName && !front.passthrough().beginChange(node)) {
    front.dispatcher().succeed(node);
    fuse_reply_err(request, ESTALE);  // the kernel looks the name up again
    return;
  }
  auto call = beginCall(request, Effect::changes);
  if (!call) {
    if (isChangeByName) front.passthrough().end(node, Passthrough::Way::requests);
    return;
  }
  front.dispatcher().setAttributes(
      node, info != nullptr ? handleOf(request, *info).file : nullptr, *changes,
      [&front, request, node, call, isChangeByName](const Answer<Attributes>& answer) {
        if (isChangeByName) front.passthrough().end(node, Passthrough::Way::requests);
        if (call->claim()) {
          replyAttributes(request, answer);
        } else if (answer.ok()) {
          front.changedUnseen(bytesChanged(node));
        }
      });
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

}  // namespace

void addAttributeOperations(fuse_lowlevel_ops& operations) {
  operations.getattr = &getAttributes;
  operations.setattr = &setAttributes;
  operations.statfs = &statFileSystem;
}

}  // namespace kestrune::host
