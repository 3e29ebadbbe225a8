// The running host gives way to the program that lies at its place now, without the mount going away ("kestrune restart"): programs
// notice a delay, and nothing else.
//
//   the kernel is told nothing more · no request is received · changes that are under way end · all is committed · executed
//       └────────── whatever fails: why, and the host serves on as before ──────────┘
//
// From the last look until the execution the volume's lock is held, so that what was written down stays true. What the extension is
// doing ends as it would with a crash, which it and the host are made for; what waits for it is begun anew by the successor.
//
// Threads: `run` on the main thread; RestartWish as a mailbox.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>

#include "host/basics/Answer.h"
#include "host/basics/Mailbox.h"
#include "host/front/FuseKernelCache.h"
#include "host/front/InheritedMount.h"
#include "host/front/MountSession.h"
#include "host/volume/FileSystem.h"

namespace kestrune::host {

/// Who wants the host replaced; each is answered if it fails.
using RestartWish = Mailbox<Reply<Done>>;

class HostReplacement {
 public:
  /// How long programs may be kept waiting for what must end before.
  static constexpr std::chrono::seconds kPatience{5};
  /// What of that is left for the last commit.
  static constexpr std::chrono::seconds kCommitPatience{1};

  /// All of them outlive the object.
  struct Parts {
    FileSystem& fileSystem;
    FuseFront& front;
    MountSession& session;
    FuseKernelCache& kernel;
    const ContentDirectory& directory;
  };
  /// `restarts`: how often it has happened before.
  HostReplacement(Parts parts, ProgramStart program, std::filesystem::path mountPoint,
                  std::uint64_t restarts);

  /// Returns only if it fails: why. The host goes on.
  platform::NSErrorPtr run();

 private:
  using Clock = std::chrono::steady_clock;
  platform::NSErrorPtr whyNot() const;
  platform::NSErrorPtr settle(Clock::time_point deadline);
  bool execute(Handover& handover, platform::NSErrorPtr& error);

  const Parts parts_;
  const ProgramStart program_;
  const std::filesystem::path mountPoint_;
  const std::uint64_t restarts_;
};

}  // namespace kestrune::host
