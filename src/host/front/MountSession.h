// One FUSE mount and the threads that serve it.
//
//   constructor (mounts) · start · (pause · start)* · (stop)? · destructor (unmounts)
//
// A mount that another process has made and handed over is served in the same way.
//
// The session ends by itself when the folder is unmounted from outside; `endedDescriptor` becomes readable then.
//
// Threads: `start`, `stop` and the destructor belong to one thread. The requests are received and mostly answered on
// threads of the session; between `start` and `stop` they interrupt their waiting by the signal SIGUSR2, which the process
// must not use otherwise.
// Fails: throws NSPOSIXError.
#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/basics/LocalFile.h"
#include "host/front/FuseFront.h"

namespace kestrune::host {

struct MountSettings {
  std::filesystem::path mountPoint;
  /// Whether users other than the mounting one, root among them, may enter. The system's configuration may forbid it.
  bool allowOtherUsers = false;
  /// False: the kernel itself answers every change with EROFS.
  bool writable = false;
  /// Whether files and folders have extended attributes. Programs that list a folder ask for several of each file, which
  /// makes that three times as slow.
  bool extendedAttributes = false;
};

class MountSession {
 public:
  MountSession(FuseFront& front, const MountSettings& settings);
  /// Instead of mounting: serves the mount that was handed over. `files` as FuseFront::takeOver has them. Where this throws,
  /// the device may be closed, and the mount is the caller's still.
  MountSession(FuseFront& front, const MountSettings& settings, const Handover& handover,
               const std::vector<OpenFilePtr>& files);
  ~MountSession();
  MountSession(const MountSession&) = delete;
  MountSession& operator=(const MountSession&) = delete;

  fuse_session* kernelSession() const { return session_; }
  void start();
  /// No request is received from now on; those that were are processed when it returns. False: the session has ended.
  bool pause();
  /// Processes requests that were received earlier. REQUIRES: not started.
  void process(const std::vector<std::string>& requests);
  int endedDescriptor() const { return ended_->number(); }
  /// Ends the threads. Requests that wait are not answered by this.
  void stop();

 private:
  struct Server {
    std::thread thread;
    std::atomic<bool> done = false;
  };
  void serve(Server& server);
  void unmountInherited();

  FuseFront& front_;
  fuse_session* session_ = nullptr;
  // A mount that this process has not made; the library knows nothing of it.
  std::filesystem::path inherited_;
  std::unique_ptr<Descriptor> ended_;
  std::atomic<bool> stopping_ = false;
  std::vector<std::unique_ptr<Server>> servers_;
};

}  // namespace kestrune::host
