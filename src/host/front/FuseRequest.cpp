#include "host/front/FuseRequest.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <utility>

#include "host/basics/ErrorToErrno.h"
#include "host/basics/ItemName.h"

namespace kestrune::host {

namespace {

// A folder may gain a name at any time, and a second costs little.
constexpr double kAbsentSeconds = 1;
// Attributes are in units of 512 bytes.
constexpr std::int64_t kBlockBytes = 512;

timespec timespecOf(FileTime time) { return {time.seconds, time.nanoseconds}; }

mode_t modeOf(const Attributes& attributes) {
  const mode_t writable = attributes.isWritable ? S_IWUSR : 0U;
  if (attributes.isFolder) return S_IFDIR | 0555U | writable;
  return S_IFREG | (attributes.isExecutable ? 0555U : 0444U) | writable;
}

// libfuse calls the interrupt handler at once, inside fuse_req_interrupt_func, for a request that was interrupted before;
// the request must not be answered there.
thread_local bool* interruptedWhileArming = nullptr;

// Longer than what needs the local disk alone, and short for who presses Ctrl-C.
constexpr std::chrono::milliseconds kPatienceWithLooking{20};
constexpr std::chrono::milliseconds kPatienceWithChanges{1000};

// A program that waits for a mapped page is reported like one in `read`. Its page fault ends without an error to it: it
// handles its signal and touches the page again.
void interrupt(fuse_req_t request, void* number, std::chrono::milliseconds patience) {
  if (interruptedWhileArming != nullptr) {
    *interruptedWhileArming = true;
  } else {
    frontOf(request).interrupt(reinterpret_cast<std::uintptr_t>(number), fuse_req_ctx(request)->pid,
                               patience);
  }
}

void interruptLooking(fuse_req_t request, void* number) {
  interrupt(request, number, kPatienceWithLooking);
}

void interruptChange(fuse_req_t request, void* number) {
  interrupt(request, number, kPatienceWithChanges);
}

}  // namespace

FuseFront& frontOf(fuse_req_t request) {
  return *static_cast<FuseFront*>(fuse_req_userdata(request));
}

Dispatcher& dispatcherOf(fuse_req_t request) { return frontOf(request).dispatcher(); }

OpenCalls::CallPtr beginCall(fuse_req_t request, Effect effect) {
  FuseFront& front = frontOf(request);
  front.device().answersLater();
  bool interrupted = false;
  auto arm = [request, effect, &interrupted](std::uint64_t number) {
    interruptedWhileArming = &interrupted;
    fuse_req_interrupt_func(
        request, effect == Effect::looks ? &interruptLooking : &interruptChange,
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the library keeps a pointer's worth for us
        reinterpret_cast<void*>(static_cast<std::uintptr_t>(number)));
    interruptedWhileArming = nullptr;
  };
  auto call = front.calls().begin(arm, [request](int error) { fuse_reply_err(request, error); });
  if (!call) {
    fuse_reply_err(request, ENOTCONN);
    return nullptr;
  }
  if (interrupted) {
    front.device().wasInterrupted();
    front.interrupt(call->number(), fuse_req_ctx(request)->pid,
                    effect == Effect::looks ? kPatienceWithLooking : kPatienceWithChanges);
  }
  return call;
}

void replyError(fuse_req_t request, const platform::NSError& error) {
  fuse_reply_err(request, errnoFor(error));
}

Consequences nameChanged(NodeId folder, const std::string& name) {
  return {{CacheUpdate::Kind::entry, folder, name}, {CacheUpdate::Kind::listing, folder}};
}

// What a listing is for a folder is the bytes for a file.
Consequences bytesChanged(NodeId node) { return {{CacheUpdate::Kind::listing, node}}; }

Reply<Done> replyingDone(fuse_req_t request, OpenCalls::CallPtr call, Consequences ifLate) {
  return [&front = frontOf(request), request, call = std::move(call),
          ifLate = std::move(ifLate)](const Answer<Done>& answer) {
    if (call->claim()) {
      fuse_reply_err(request, answer.ok() ? 0 : errnoFor(*answer.error()));
    } else if (answer.ok()) {
      front.changedUnseen(ifLate);
    }
  };
}

struct stat statusOf(const Attributes& attributes) {
  struct stat status = {};
  status.st_ino = attributes.inode;
  status.st_mode = modeOf(attributes);
  status.st_nlink = attributes.isUnlinked ? 0 : 1;
  status.st_uid = ::getuid();
  status.st_gid = ::getgid();
  status.st_size = attributes.sizeBytes;
  status.st_blocks =
      attributes.storedBytes / kBlockBytes + (attributes.storedBytes % kBlockBytes == 0 ? 0 : 1);
  status.st_blksize = kPreferredPiece;
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

void replyEntry(FuseFront& front, OpenCalls::Call& call, fuse_req_t request,
                const Answer<Entry>& answer, const Consequences& ifLate) {
  const bool mine = call.claim();
  if (mine && !answer.ok()) replyError(request, *answer.error());
  if (!answer.ok()) return;
  const fuse_entry_param parameters = parametersOf(answer.value());
  const bool arrived = mine && fuse_reply_entry(request, &parameters) == 0;
  if (arrived) return;
  if (answer.value().node != 0) front.dispatcher().forget(answer.value().node, 1);
  front.changedUnseen(ifLate);
}

bool isNamePossible(fuse_req_t request, const char* name) {
  // The kernel's own limit is higher.
  if (std::strlen(name) <= kLongestNameBytes) return true;
  fuse_reply_err(request, ENAMETOOLONG);
  return false;
}

OpenHandle handleOf(fuse_req_t request, const fuse_file_info& info) {
  return frontOf(request).handles().at(info.fh);
}

}  // namespace kestrune::host
