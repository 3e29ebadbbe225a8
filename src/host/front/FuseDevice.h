// The kernel's device below the kernel library, for what libfuse 3.14 does not know of: the kernel's own reading of local
// files ("passthrough", Linux 6.9), for which it changes the answer to INIT and gives the kernel local files by ioctl; answers
// with bytes that are not copied through this process (AnswerPipe.h); and serving a mount that another process has begun, to
// which the kernel does not send INIT again: the session is given the old one's, and what it answers goes nowhere.
//
// Threads: every operation may be called from any thread once `attach` has returned.
// Owns: nothing; the descriptor is the session's, and the kernel forgets the backing files with it.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "host/front/Passthrough.h"
#include "host/front/UnansweredRequests.h"

struct fuse_req;
struct fuse_session;

namespace kestrune::host {

class FuseDevice final : public BackingFiles {
 public:
  FuseDevice() = default;
  FuseDevice(const FuseDevice&) = delete;
  FuseDevice& operator=(const FuseDevice&) = delete;

  /// Puts itself between the kernel and `session`, whose user data is a FuseFront with this device. `agreed` runs, inside
  /// the first answer, if the kernel is able to read files by itself.
  /// REQUIRES: the session is mounted, and no request has been received.
  void attach(fuse_session* session, std::function<void()> agreed);

  /// What host and kernel have told each other in the beginning.
  struct Agreement {
    std::string init;
    std::string answer;
  };
  /// REQUIRES: no request is received at this moment.
  const Agreement& agreement() const { return agreement_; }
  /// The same as `attach` for a mount whose device is `descriptor`, which belongs to the session from now on, and for which all
  /// has been agreed on. Throws NSPOSIXError if this program would have agreed on something else.
  void attachTo(fuse_session* session, int descriptor, const Agreement& agreement);

  /// Has the session take a request that was received before. Not aligned in any way.
  void process(fuse_session* session, std::string request);
  /// The request that this thread works on may be answered later. REQUIRES: it is not answered yet.
  void answersLater() { unanswered_.add(current_); }
  /// The same request turned out to have been interrupted before.
  void wasInterrupted();
  UnansweredRequests& unanswered() { return unanswered_; }
  int descriptor() const { return descriptor_; }

  std::optional<std::int32_t> open(int descriptor) override;
  void close(std::int32_t number) override;

  /// Answers a read with the bytes of a local file from `offset` on: `length`, or as many as there are. Ends the request.
  static void replyFromFile(fuse_req* request, int file, off_t offset, std::size_t length);

  /// As read(2) and writev(2); called by the library.
  ssize_t receive(void* buffer, std::size_t size);
  ssize_t send(const iovec* parts, int count);

 private:
  void setSession(fuse_session* session, int descriptor);
  void received(std::span<const char> request);
  void noteInit(const void* request, std::size_t size);
  bool isInitAnswer(const iovec* parts) const;
  void amendInit(const iovec* parts, int count);
  ssize_t give(const iovec* parts, int count) const;
  ssize_t sendFromFile(const iovec* parts) const;

  int descriptor_ = -1;
  std::function<void()> agreed_;
  // The request that INIT came with, until it is answered; 0 otherwise.
  std::atomic<std::uint64_t> init_ = 0;
  bool isPassthroughOffered_ = false;  // by that
  bool isRepeated_ = false;            // that: its answer is known to the kernel
  Agreement agreement_;
  UnansweredRequests unanswered_;
  // What this thread received last.
  static thread_local std::span<const char> current_;
};

}  // namespace kestrune::host
