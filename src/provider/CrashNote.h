// What the program writes of its own crash before it dies of it: the signal and the addresses of the calls that led there, to a
// file that the host has opened. No memory contents.
#pragma once

namespace kestrune::provider {

/// From here on a fault or an abort is noted in the file `descriptor`; then it ends the program as ever. Called once, before other
/// threads run.
void noteCrashesIn(int descriptor);

}  // namespace kestrune::provider
