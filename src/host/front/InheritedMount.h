// The mount for which this process was executed in the place of its host, if it was: whoever becomes its host takes it; if nobody
// does, whatever the reason, it is unmounted, so that no folder is left that answers nothing.
//
// Also the other direction: executing a program so that it inherits a mount.
//
// Threads: belongs to the main thread. Fails: throws NSPOSIXError.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/basics/LocalFile.h"
#include "host/front/Handover.h"
#include "platform/values/NSError.h"

namespace kestrune::host {

class InheritedMount {
 public:
  /// Looks whether there is one, and takes the word for it out of the environment. REQUIRES: no other thread runs.
  InheritedMount();
  ~InheritedMount() { abandon(); }
  InheritedMount(const InheritedMount&) = delete;
  InheritedMount& operator=(const InheritedMount&) = delete;

  bool exists() const { return memory_ != nullptr; }
  /// What the host before left behind. REQUIRES: exists().
  Handover read() const;
  /// It has a host. The device belongs to the caller.
  void taken();
  /// Unmounts it, if nobody took it.
  void abandon() noexcept;

 private:
  std::unique_ptr<Descriptor> memory_;
};

/// How to execute a program.
struct ProgramStart {
  /// Absolute, with links as they were given, so that what lies there later is what runs.
  std::filesystem::path file;
  std::vector<std::string> arguments;
  bool isKnown() const { return !file.empty(); }
};

/// How this process was executed. `arguments`: those of `main`.
ProgramStart presentProgram(std::vector<std::string> arguments);

/// Executes `program` in the place of this one, with `handover`, the device and the lock that it names, the standard
/// descriptors, and no other. The mask of signals stays as it is for this thread. Returns only if that fails; then nothing has changed but
/// that every descriptor would be closed by an execution.
/// REQUIRES: no other thread waits for the mount, which would keep the execution from coming about.
platform::NSErrorPtr executeWith(const ProgramStart& program, const Handover& handover);

}  // namespace kestrune::host
