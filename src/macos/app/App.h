// The containing application: the bundle that brings the extension to the system. Its executable is a
// command: configure, add, remove, refresh. What the user sees otherwise is the Finder's business.
//
// Threads: one.
#pragma once

#include <istream>
#include <ostream>

namespace kestrune::macos {

/// The exit code: 0 done, 1 failed (`errors` says why and what to do), 2 wrong usage.
int runApp(int argc, const char* const* argv, std::istream& input, std::ostream& output,
           std::ostream& errors);

}  // namespace kestrune::macos
