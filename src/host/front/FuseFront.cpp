#include "host/front/FuseFront.h"

#include <cerrno>
#include <utility>

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

void FuseFront::interrupt(std::uint64_t number, std::chrono::milliseconds patience) {
  timers_->after(patience, [calls = calls_, number] { calls->interrupt(number); });
}

void FuseFront::changedUnseen(std::vector<CacheUpdate> updates) {
  if (kernel_ && !updates.empty()) kernel_->tell(std::move(updates), nullptr);
}

void FuseFront::endAll() { calls_->endAll(ENOTCONN); }

}  // namespace kestrune::host
