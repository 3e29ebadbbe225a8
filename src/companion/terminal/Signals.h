// The signals that concern who sits at a terminal, readable from a descriptor instead of delivered: so that what was changed of the
// terminal is put back on every way out.
//
// Threads: REQUIRES that no other thread runs yet, since it blocks the signals for the calling thread and those that it starts.
#pragma once

#include <optional>

#include "host/basics/LocalFile.h"

namespace kestrune {

class Signals {
 public:
  /// SIGINT, SIGTERM, SIGHUP, SIGTSTP and SIGWINCH, from now on. Throws NSPOSIXError.
  Signals();
  ~Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  /// Readable when one has come.
  int descriptor() const { return descriptor_.number(); }
  /// One that has come; none if there is none.
  std::optional<int> take() const;

 private:
  const host::Descriptor descriptor_;
};

/// What a program exits with that such a signal ended.
constexpr int exitCodeOf(int signal) { return 128 + signal; }

}  // namespace kestrune
