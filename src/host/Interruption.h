// What a signal may do to a program that waits for the bytes of a file.
//
// The kernel reports every signal alike. A program in `read` expects EINTR. But one that touched a mapped page is in no
// system call: an error there is a bus error, which ends it, be the signal as harmless as a timer of its own. Such a
// program goes on waiting, unless it is being killed; and since the kernel reports only the first signal, who lets a
// program wait asks again after a while.
//
// Threads: a pure function of what the kernel shows below /proc; callable from any thread.
#pragma once

#include <sys/types.h>

namespace kestrune::host {

/// Whether `thread`, which a signal has reached, is to get EINTR: it is being killed, it is in a system call that reads,
/// or the kernel does not let us see.
bool signalEndsRead(pid_t thread);

}  // namespace kestrune::host
