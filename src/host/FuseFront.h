// The kernel's side of the mount: decodes FUSE requests, calls the Dispatcher, replies. No decision is made here.
//
// Requests that may wait are registered in OpenCalls, so that a program's signal, or the end of the mount, answers them
// while the work goes on; a value that comes too late is given back.
//
// Threads: requests come on the session's threads and are answered on any. Nothing blocks here.
#pragma once

#include <sys/types.h>

#include <memory>
#include <utility>

#include "host/Dispatcher.h"
#include "host/OpenCalls.h"
#include "host/Timers.h"

struct fuse_args;
struct fuse_session;

namespace kestrune::host {

class FuseFront {
 public:
  /// The dispatcher outlives the front.
  FuseFront(Dispatcher& dispatcher, std::shared_ptr<Timers> timers)
      : dispatcher_(dispatcher), timers_(std::move(timers)) {}
  FuseFront(const FuseFront&) = delete;
  FuseFront& operator=(const FuseFront&) = delete;

  /// A new kernel session that calls this front, which outlives it; null if the library refuses `arguments`.
  fuse_session* newSession(fuse_args& arguments);

  /// Answers everything that still waits with ENOTCONN, now and from now on.
  void endAll();

  Dispatcher& dispatcher() { return dispatcher_; }
  OpenCalls& calls() { return *calls_; }
  /// A signal reached `thread`, which waits for the request `number`; `reads` if it waits for the bytes of a file.
  void interrupted(std::uint64_t number, pid_t thread, bool reads);

 private:
  Dispatcher& dispatcher_;
  const std::shared_ptr<Timers> timers_;
  const std::shared_ptr<OpenCalls> calls_ = std::make_shared<OpenCalls>();
};

}  // namespace kestrune::host
