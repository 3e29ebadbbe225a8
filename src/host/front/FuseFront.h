// The kernel's side of the mount: decodes FUSE requests, calls the Dispatcher, replies. What the kernel decides by itself
// (permissions, locks, offsets of appended bytes) does not come here, and what the tree decides is the dispatcher's.
// Decided here is only what follows from the kernel's interface:
//
// - Hard and symbolic links, devices and the like: EPERM. Names over 255 bytes: ENAMETOOLONG.
// - Owners are the mounting user's and stay so: a chown to others answers EPERM.
// - Modes are 0644 or 0755, 0444 or 0555 where nobody may write; of a file the owner's execute bit is kept. The mode of
//   what is created is masked silently, as by a umask. A chmod that cannot be kept answers EPERM: one that takes away
//   the owner's rights, or sets the bits above 0777. What it says about group and others cannot be kept either, but is not
//   false where they cannot enter the mount at all: the mount is then like a folder of mode 0700, and programs that want a
//   file for themselves (0600: `mktemp`, key files, archives) or share it (0664) get what they ask for in effect. Where others
//   may enter, their bits must be those shown.
// - Extended attributes: ENOSYS, which the kernel remembers for the whole mount, unless the mount shows them; then
//   names outside "user." answer ENOTSUP.
// - `lseek` for data and holes is left to the kernel, which takes everything for data: what is not here is no hole.
// - A new file whose name turns out to be taken, for a program that would also have opened an old one: ESTALE, upon which
//   the kernel looks again.
//
// Requests that may wait are registered in OpenCalls, so that a program's signal, or the end of the mount, answers them
// while the work goes on; a value that comes too late is given back. Only a signal does that for which a program must leave its call:
// not that it is stopped, nor that a child has ended (CallerSignals.h). And it ends only what is really blocked: programs with a
// timer or a runtime of their own are signalled all the time, and expect of calls that need the local disk alone that they
// never end with EINTR. Looking and reading may take a moment more. What changes something gets a second, because EINTR leaves
// open whether it has happened, and a rename that is repeated says that there is no such file. A change that comes about after
// all is told to the kernel like one from elsewhere.
//
// Threads: requests come on the session's threads and are answered on any. Nothing blocks here.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "host/basics/KernelCache.h"
#include "host/basics/Timers.h"
#include "host/front/Dispatcher.h"
#include "host/front/FuseDevice.h"
#include "host/front/Handover.h"
#include "host/front/OpenCalls.h"
#include "host/front/OpenHandles.h"
#include "host/front/Passthrough.h"

struct fuse_args;
struct fuse_session;

namespace kestrune::host {

class FuseFront {
 public:
  struct Options {
    bool othersMayEnter = false;
    bool extendedAttributes = false;
  };

  /// The dispatcher outlives the front. `kernel`: where changes are told of which the kernel does not know.
  explicit FuseFront(Dispatcher& dispatcher, std::shared_ptr<KernelCache> kernel = nullptr)
      : dispatcher_(dispatcher), kernel_(std::move(kernel)) {}
  FuseFront(const FuseFront&) = delete;
  FuseFront& operator=(const FuseFront&) = delete;

  /// A new kernel session that calls this front, which outlives it; null if the library refuses `arguments`. Once a front.
  fuse_session* newSession(fuse_args& arguments, const Options& options);
  /// The session has been mounted; its requests may be received when this returns. Fails: throws NSPOSIXError.
  void mounted(fuse_session* session);

  /// In its place: `session` serves a mount that was handed over. `files`: what its open files are here, in their order.
  void takeOver(fuse_session* session, const Handover& handover,
                const std::vector<OpenFilePtr>& files);

  /// Writes down what the kernel knows of this front, from which moment on nothing that waits is answered; false, and nothing is
  /// done, if something waits that changes something. Which files they are is the dispatcher's to add, in the same order: `files`. REQUIRES: no request is received.
  bool handOver(Handover& handover, std::vector<OpenFilePtr>& files);
  /// That came to nothing: answers are given again. The requests that were handed over must be processed again.
  void takeBack();

  /// Answers everything that still waits with ENOTCONN, now and from now on.
  void endAll();

  /// Whether the kernel reads files that are whole here by itself. Not known, hence false, before the first of them is opened.
  bool passthroughInUse() const { return passthrough_.inUse(); }

  // What the requests work with.
  const Options& options() const { return options_; }
  Dispatcher& dispatcher() { return dispatcher_; }
  OpenCalls& calls() { return *calls_; }
  Passthrough& passthrough() { return passthrough_; }
  FuseDevice& device() { return device_; }
  OpenHandles& handles() { return handles_; }
  /// Something came for `thread`, which waits in the call with this number: the call is answered if it takes longer than `patience`
  /// and the thread has a signal that ends it (CallerSignals.h), then or later.
  void interrupt(std::uint64_t number, pid_t thread, std::chrono::milliseconds patience);
  /// A change came about whose call had been answered with an error.
  void changedUnseen(std::vector<CacheUpdate> updates);

 private:
  Dispatcher& dispatcher_;
  const std::shared_ptr<KernelCache> kernel_;
  Options options_;
  FuseDevice device_;
  Passthrough passthrough_{device_};
  OpenHandles handles_;
  const std::shared_ptr<OpenCalls> calls_ = std::make_shared<OpenCalls>();
  const std::shared_ptr<Timers> timers_ = systemTimers();
};

}  // namespace kestrune::host
