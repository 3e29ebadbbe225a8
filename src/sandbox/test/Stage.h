// A machine in small for the confined program: a home with a key, a shared directory, a replica, sockets that others listen
// at; and the program itself, started in the sandbox or without.
//
// Threads: one.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/Descriptor.h"
#include "sandbox/SandboxRules.h"
#include "sandbox/test/Attempts.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::sandbox::test {

enum class Confined {
  bubblewrapped,  // in bubblewrap, and by itself
  alone,          // by itself
  late,           // by itself, the attempt being made by a thread that ran before
  // by one layer alone
  inBubblewrap,
  byLandlock,
  byFilter,
  not_,
};

/// Where the replica lies.
enum class Layout {
  besideShared,
  inShared,
  inSharedThroughLink,  // the home is a symbolic link
};

class Stage {
 public:
  explicit Stage(Layout layout = Layout::besideShared);

  const Surrounds& surrounds() const { return at_; }
  SandboxPaths paths() const;

  struct Outcome {
    /// As waitpid tells it.
    int status = 0;
    /// What the attempt came to; nothing where the probe did not get so far.
    std::optional<int> failure;
    std::string errors;
  };
  /// Starts the probe as the host would start the program, has it make the attempt, and waits for its end.
  Outcome run(const std::string& attempt, Confined confined);
  /// What the program has written to the host's end of the socket.
  std::string heard();

 private:
  std::vector<std::string> command(const std::string& attempt, Confined confined) const;

  support::TemporaryDirectory root_;
  Surrounds at_;
  std::vector<std::unique_ptr<Descriptor>> listeners_;
  std::unique_ptr<Descriptor> hostEnd_;
  std::unique_ptr<Descriptor> programEnd_;
};

}  // namespace kestrune::sandbox::test
