// Whether a signal that came for a program's thread ends the call that it waits in.
//
// The kernel says only that something came, once for each request, also when the thread is merely stopped (Ctrl-Z), traced or
// frozen for the machine's sleep, or gets a signal that runtimes and shells live with (a child ended, the window has another size,
// a profiler's timer). Ending the call for those gives programs an EINTR that they do not expect of a file: `ls` fails after
// `fg`, a copy misses a file. What is pending in the thread tells which it was: proc_pid_status(5), signal(7).
#pragma once

#include <sys/types.h>

#include <string_view>

namespace kestrune::host {

/// The same for the text of the thread's status in /proc.
bool endsCall(std::string_view status);

/// Whether `thread` has a signal to handle, or to end by, for which it must leave its call. True also for a thread that cannot be
/// looked at (it is gone, or another user's in a hidden /proc): the kernel's word stands then. Reads one small file of /proc; may be called from any thread.
bool signalEndsCallOf(pid_t thread);

}  // namespace kestrune::host
