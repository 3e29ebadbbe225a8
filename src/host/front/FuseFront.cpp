#include "host/front/FuseFront.h"

#include <cerrno>
#include <utility>

#include "host/front/CallerSignals.h"
#include "host/front/FuseRequest.h"

namespace kestrune::host {

namespace {

void initialise(void*, fuse_conn_info* connection) {
  // Reads are asked for by the program that waits for them, not in the background: only so does its signal reach us.
  connection->want &= ~static_cast<unsigned>(FUSE_CAP_ASYNC_READ);
  // Bytes are spliced below the library (AnswerPipe.h): its own way needs a larger pipe than there is for large reads, and copies.
  connection->want &=
      ~static_cast<unsigned>(FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE | FUSE_CAP_SPLICE_MOVE);
  // A node's bytes change only through the kernel, so a new date is no reason to drop what it has of them.
  connection->want &= ~static_cast<unsigned>(FUSE_CAP_AUTO_INVAL_DATA);
  // Bytes that the kernel kept back would be bytes that the store does not get.
  connection->want &= ~static_cast<unsigned>(FUSE_CAP_WRITEBACK_CACHE);
  connection->want |= connection->capable &
                      static_cast<unsigned>(FUSE_CAP_ATOMIC_O_TRUNC | FUSE_CAP_PARALLEL_DIROPS |
                                            FUSE_CAP_READDIRPLUS | FUSE_CAP_READDIRPLUS_AUTO);
  connection->max_read = kLargestRead;
  connection->max_readahead = kLargestRead;
  connection->time_gran = 1;
}

// The kernel tells of the first signal only.
constexpr std::chrono::milliseconds kLooksAgainAfter{100};

void interruptOrLookAgain(const std::shared_ptr<OpenCalls>& calls,
                          const std::shared_ptr<Timers>& timers, std::uint64_t number,
                          pid_t thread) {
  if (!calls->isOpen(number)) return;
  if (signalEndsCallOf(thread)) {
    calls->interrupt(number);
    return;
  }
  timers->after(kLooksAgainAfter, [calls, timers, number, thread] {
    interruptOrLookAgain(calls, timers, number, thread);
  });
}

}  // namespace

fuse_session* FuseFront::newSession(fuse_args& arguments, const Options& options) {
  options_ = options;
  fuse_lowlevel_ops operations = {};
  operations.init = &initialise;
  addNameOperations(operations);
  addFolderOperations(operations);
  addFileOperations(operations);
  addAttributeOperations(operations);
  if (options.extendedAttributes) addExtendedAttributeOperations(operations);
  return fuse_session_new(&arguments, &operations, sizeof(operations), this);
}

void FuseFront::mounted(fuse_session* session) {
  device_.attach(session, [this] { passthrough_.allow(); });
}

void FuseFront::takeOver(fuse_session* session, const Handover& handover,
                         const std::vector<OpenFilePtr>& files) {
  device_.attachTo(session, handover.head.device, {handover.init, handover.initAnswer});
  passthrough_.restore({handover.passthroughOffered, handover.passthroughInUse});
  handles_.beginAt(handover.nextHandle);
  for (std::size_t i = 0; i < files.size(); ++i) {
    const Handover::File& file = handover.files.at(i);
    const auto way = file.backing != 0 ? Passthrough::Way::kernel : Passthrough::Way::requests;
    handles_.restore(file.handle, {files[i], way});
    passthrough_.restoreOpen(file.node, file.backing);
  }
}

bool FuseFront::handOver(Handover& handover, std::vector<OpenFilePtr>& files) {
  if (device_.agreement().answer.empty()) return false;  // the kernel has only just mounted it
  auto requests = device_.unanswered().handOver();
  if (!requests) return false;
  handover.head.device = device_.descriptor();
  handover.othersMayEnter = options_.othersMayEnter;
  handover.extendedAttributes = options_.extendedAttributes;
  handover.init = device_.agreement().init;
  handover.initAnswer = device_.agreement().answer;
  handover.passthroughOffered = passthrough_.standing().isOffered;
  handover.passthroughInUse = passthrough_.standing().isInUse;
  handover.nextHandle = handles_.next();
  for (auto& [number, handle] : handles_.all()) {
    Handover::File file;
    file.handle = number;
    file.node = handle.file->node;
    if (handle.way == Passthrough::Way::kernel) file.backing = passthrough_.backingOf(file.node);
    handover.files.push_back(file);
    files.push_back(std::move(handle.file));
  }
  handover.requests = std::move(*requests);
  return true;
}

void FuseFront::takeBack() { device_.unanswered().takeBack(); }

void FuseFront::interrupt(std::uint64_t number, pid_t thread, std::chrono::milliseconds patience) {
  timers_->after(patience, [calls = calls_, timers = timers_, number, thread] {
    interruptOrLookAgain(calls, timers, number, thread);
  });
}

void FuseFront::changedUnseen(std::vector<CacheUpdate> updates) {
  if (kernel_ && !updates.empty()) kernel_->tell(std::move(updates), nullptr);
}

void FuseFront::endAll() { calls_->endAll(ENOTCONN); }

}  // namespace kestrune::host
