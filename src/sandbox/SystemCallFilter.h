// The list of system calls that the program can make; all others fail with EPERM. It has what a client with many threads
// needs that reads and writes files and speaks HTTP over TLS: libcurl, OpenSSL, Asio, Cap'n Proto, the C library's
// resolver.
//
// It refuses what neither name spaces nor Landlock stop everywhere: other programs and processes, signals to others, Unix
// sockets, changes of modes, owners and times, links, and the parts of the kernel that an attacker would try first.
//
// Threads: binds all threads of the process.
#pragma once

namespace kestrune::sandbox {

/// From here on, for good. REQUIRES: no_new_privs is set. Throws NSPOSIXError, and nothing is refused then.
void applySystemCallFilter();

}  // namespace kestrune::sandbox
