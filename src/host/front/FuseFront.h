// The kernel's side of the mount: decodes FUSE requests, calls the Dispatcher, replies. No decision is made here.
//
// Requests that may wait are registered in OpenCalls, so that a program's signal, or the end of the mount, answers them
// while the work goes on; a value that comes too late is given back.
//
// Threads: requests come on the session's threads and are answered on any. Nothing blocks here.
#pragma once

#include <memory>

#include "host/front/Dispatcher.h"
#include "host/front/OpenCalls.h"

struct fuse_args;
struct fuse_session;

namespace kestrune::host {

class FuseFront {
 public:
  /// The dispatcher outlives the front.
  explicit FuseFront(Dispatcher& dispatcher) : dispatcher_(dispatcher) {}
  FuseFront(const FuseFront&) = delete;
  FuseFront& operator=(const FuseFront&) = delete;

  /// A new kernel session that calls this front, which outlives it; null if the library refuses `arguments`.
  fuse_session* newSession(fuse_args& arguments);

  /// Answers everything that still waits with ENOTCONN, now and from now on.
  void endAll();

  Dispatcher& dispatcher() { return dispatcher_; }
  OpenCalls& calls() { return calls_; }

 private:
  Dispatcher& dispatcher_;
  OpenCalls calls_;
};

}  // namespace kestrune::host
